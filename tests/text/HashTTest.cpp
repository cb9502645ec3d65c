// HashT and Hash_cmd: bucket formula, duplicates, erase and slot reuse,
// iteration and owned values.
#include "text/HashT.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <string>
#include <vector>

namespace {

std::string MixCase(std::string s) {
  for (std::size_t i = 0; i < s.size(); i += 2)
    s[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(s[i])));
  return s;
}

// n distinct keys that all land in the same bucket.
std::vector<std::string> KeysInOneBucket(unsigned n) {
  std::vector<std::string> keys;
  unsigned const bucket = HashT<unsigned>::formula("K0");
  for (int i = 0; keys.size() < n; ++i) {
    std::string key = "K" + std::to_string(i);
    if (HashT<unsigned>::formula(key.c_str()) == bucket)
      keys.push_back(key);
  }
  return keys;
}

TEST(HashCmd, FindsEveryServerCommandInAnyCase) {
  Hash_cmd hash(srvcmd_vet);
  for (int i = 0; srvcmd_vet[i].name[0]; ++i) {
    std::string const name = srvcmd_vet[i].name;
    EXPECT_EQ(hash.search(name.c_str()), srvcmd_vet[i].code) << name;
    EXPECT_EQ(hash.search(MixCase(name).c_str()), srvcmd_vet[i].code) << name;
  }
  EXPECT_EQ(hash.get_nitens(), 108u);
  EXPECT_EQ(hash.search("privmsg"), 1049u);
  EXPECT_EQ(hash.search("PRIVMSGX"), 0u);
  EXPECT_EQ(hash.search(""), 0u);
  EXPECT_EQ(hash.search(nullptr), 0u);
  Hash_cmd empty(nullptr);
  EXPECT_EQ(empty.search("PRIVMSG"), 0u);
}

TEST(HashT, FormulaBuckets) {
  EXPECT_EQ(HashT<unsigned>::formula("A"), 35u);  // 8 * 65 mod 97
  EXPECT_EQ(HashT<unsigned>::formula("a"), 35u);
  EXPECT_EQ(HashT<unsigned>::formula("AB"), 82u);  // 65 + 3*66 + 11*65 + 7*66
  EXPECT_EQ(HashT<unsigned>::formula("privmsg"), 87u);
  EXPECT_EQ(HashT<unsigned>::formula("\xE9"), 45u);  // a negative byte, in unsigned arithmetic
  EXPECT_EQ(HashT<unsigned>::formula(""), 0u);
  EXPECT_EQ(HashT<unsigned>::formula("AB  "), 82u);  // trailing blanks dropped
  std::string const longKey(63, 'Q');
  EXPECT_EQ(HashT<unsigned>::formula((longKey + "Z").c_str()), HashT<unsigned>::formula(longKey.c_str()));
}

TEST(HashT, DuplicateKeysAreFoundOldestFirstAndErasedOneByOne) {
  HashT<unsigned> hash;
  EXPECT_EQ(hash.add("KEY", 1), 1);
  EXPECT_EQ(hash.add("key", 2), 1);
  EXPECT_EQ(hash.search("Key"), 1u);
  EXPECT_EQ(hash.erase("KEY"), 1);
  EXPECT_EQ(hash.search("KEY"), 2u);
  EXPECT_EQ(hash.remove("KEY"), 1);
  EXPECT_EQ(hash.search("KEY"), 0u);
  EXPECT_EQ(hash.erase("KEY"), 0);
  EXPECT_EQ(hash.add("", 3), 0);
  EXPECT_EQ(hash.add(nullptr, 3), 0);
  EXPECT_EQ(hash.get_nitens(), 0u);
  EXPECT_EQ(hash.count(), 2u);
}

TEST(HashT, LongKeysCompareOnTheirFirst63Characters) {
  HashT<unsigned> hash;
  std::string const key(63, 'k');
  ASSERT_EQ(hash.add((key + "tail").c_str(), 7), 1);
  EXPECT_EQ(hash.search(key.c_str()), 7u);
  EXPECT_EQ(hash.search((key + "other").c_str()), 7u);
  char stored[64];
  EXPECT_EQ(hash.first(stored), 7u);
  EXPECT_EQ(std::string(stored), key);
}

TEST(HashT, ErasedSlotsAreReusedAndBlocksChainByFive) {
  HashT<unsigned> hash;
  auto const keys = KeysInOneBucket(8);
  unsigned const bucket = HashT<unsigned>::formula(keys[0].c_str());
  for (unsigned i = 0; i < 7; ++i)
    ASSERT_EQ(hash.add(keys[i].c_str(), i + 1), 1);
  unsigned deleted = 99;
  EXPECT_EQ(hash.get_nrecs(bucket, &deleted), 7u);
  EXPECT_EQ(deleted, 0u);
  // One in the first block, one in the second.
  ASSERT_EQ(hash.erase(keys[1].c_str()), 1);
  ASSERT_EQ(hash.erase(keys[6].c_str()), 1);
  EXPECT_EQ(hash.get_nrecs(bucket, &deleted), 7u);
  EXPECT_EQ(deleted, 2u);
  ASSERT_EQ(hash.add(keys[7].c_str(), 80), 1);  // takes the first free slot
  EXPECT_EQ(hash.get_nrecs(bucket, &deleted), 7u);
  EXPECT_EQ(deleted, 1u);
  for (unsigned i = 0; i < 7; ++i)
    EXPECT_EQ(hash.search(keys[i].c_str()), (i == 1 || i == 6) ? 0u : i + 1) << i;
  EXPECT_EQ(hash.search(keys[7].c_str()), 80u);
  EXPECT_EQ(hash.count(), 7u);
  EXPECT_EQ(hash.get_nitens(), 6u);
  // Once every slot is deleted the bucket is passed over; adds refill it.
  for (unsigned i = 0; i < 8; ++i)
    hash.erase(keys[i].c_str());
  EXPECT_EQ(hash.get_nrecs(bucket, &deleted), 7u);
  EXPECT_EQ(deleted, 7u);
  EXPECT_EQ(hash.search(keys[0].c_str()), 0u);
  for (unsigned i = 0; i < 8; ++i)
    ASSERT_EQ(hash.add(keys[i].c_str(), 100 + i), 1);
  EXPECT_EQ(hash.get_nrecs(bucket, &deleted), 8u);
  EXPECT_EQ(deleted, 0u);
  for (unsigned i = 0; i < 8; ++i)
    EXPECT_EQ(hash.search(keys[i].c_str()), 100 + i);
  EXPECT_EQ(hash.get_nrecs(97, &deleted), 0u);
}

TEST(HashT, IterationVisitsEveryLiveElementOnce) {
  HashT<unsigned> hash;
  auto const crowded = KeysInOneBucket(12);
  std::set<std::string> live;
  unsigned value = 1;
  for (auto const &k : crowded) {
    hash.add(k.c_str(), value++);
    live.insert(k);
  }
  for (char const *k : {"alpha", "beta", "gamma", "A"}) {
    hash.add(k, value++);
    live.insert(k);
  }
  for (char const *k : {crowded[0].c_str(), crowded[5].c_str(), crowded[11].c_str(), "beta"}) {
    hash.erase(k);
    live.erase(k);
  }
  std::multiset<std::string> seen;
  char key[64];
  for (unsigned v = hash.first(key); key[0]; v = hash.next(key)) {
    EXPECT_EQ(hash.search(key), v);
    EXPECT_EQ(hash.get_item(key), v);  // answers the same element again
    seen.insert(key);
  }
  EXPECT_EQ(seen, std::multiset<std::string>(live.begin(), live.end()));
  EXPECT_EQ(hash.next(key), 0u);
  EXPECT_STREQ(key, "");

  hash.reset();
  EXPECT_EQ(hash.first(key), 0u);
  EXPECT_EQ(hash.get_nitens(), 0u);
  EXPECT_EQ(hash.add("again", 5), 1);
  EXPECT_EQ(hash.first(key), 5u);
}

class OwningHash : public HashT<unsigned> {
public:
  OwningHash() : HashT<unsigned>(1) {}
  ~OwningHash() override { kill(); }
  void kill_reg(unsigned value) override { released.push_back(value); }
  std::vector<unsigned> released;
};

TEST(HashT, OwnedValuesAreReleasedByEraseAndKillOnly) {
  OwningHash hash;
  hash.add("one", 1);
  hash.add("two", 2);
  hash.add("zero", 0);
  hash.add("three", 3);
  hash.erase("one");
  hash.remove("two");  // taken out, not released
  EXPECT_EQ(hash.released, std::vector<unsigned>({1}));
  hash.kill();
  std::sort(hash.released.begin(), hash.released.end());
  EXPECT_EQ(hash.released, std::vector<unsigned>({1, 3}));
  EXPECT_EQ(hash.search("three"), 0u);
}

}  // namespace
