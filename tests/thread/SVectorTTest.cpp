#include "thread/SVectorT.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

using Vec = SVectorT<unsigned, int>;

std::vector<std::pair<unsigned, int>> Pairs(Vec const &v) {
  std::vector<std::pair<unsigned, int>> out;
  unsigned k;
  int val;
  for (unsigned pos = 1; v.get_item(pos, &k, &val); ++pos)
    out.emplace_back(k, val);
  return out;
}

TEST(SVectorT, OrdersKeysAndKeepsEqualKeysInArrivalOrder) {
  Vec v;
  EXPECT_EQ(1u, v.insert(5, 1));
  EXPECT_EQ(1u, v.insert(3, 2));
  EXPECT_EQ(3u, v.insert(9, 3));
  EXPECT_EQ(2u, v.insert(3, 4));  // after the equal key already there
  EXPECT_EQ(5u, v.insert(9, 5));  // equal to the last: at the end
  EXPECT_EQ(3u, v.insert(4, 6));  // between the ends
  std::vector<std::pair<unsigned, int>> expected{{3, 2}, {3, 4}, {4, 6}, {5, 1}, {9, 3}, {9, 5}};
  EXPECT_EQ(expected, Pairs(v));

  int value = -1;
  EXPECT_EQ(4u, v.search(5, &value));
  EXPECT_EQ(1, value);
  EXPECT_EQ(3u, v.search(4, &value));
  EXPECT_EQ(0u, v.search(7, &value));
  EXPECT_EQ(0, value);  // the missing value
  EXPECT_EQ(0u, v.search(1, nullptr));
  EXPECT_EQ(0u, v.search(10, nullptr));
  unsigned pos = v.search(3, &value);
  EXPECT_TRUE(pos == 1 || pos == 2);

  EXPECT_EQ(0, v.eraseIndex(0, 0));
  EXPECT_EQ(0, v.eraseIndex(7, 0));
  EXPECT_EQ(1, v.erase(4, 0));
  EXPECT_EQ(0, v.erase(4, 0));
  EXPECT_EQ(5u, v.get_nitens());
}

TEST(SVectorT, CursorKeepsNamingTheSamePair) {
  Vec v;
  for (unsigned k = 10; k <= 50; k += 10)
    v.insert(k, static_cast<int>(k));
  v.set_cursor(3);  // names 30
  v.insert(5, 5);   // before it
  v.insert(60, 60); // after it
  EXPECT_EQ(4u, v.get_cursor());
  v.eraseIndex(1, 0);  // before it
  v.erase(50, 0);      // after it
  unsigned k;
  ASSERT_EQ(1, v.get_next(&k, nullptr));
  EXPECT_EQ(30u, k);
  // Erasing the pair under the cursor leaves it on the next one.
  v.erase(40, 0);
  ASSERT_EQ(1, v.get_next(&k, nullptr));
  EXPECT_EQ(60u, k);
  EXPECT_EQ(0, v.get_next(&k, nullptr));
  // Never below 1.
  v.set_cursor(1);
  v.eraseIndex(1, 0);
  EXPECT_EQ(1u, v.get_cursor());
}

TEST(SVectorT, GrowsByHundredsAndStaysSorted) {
  Vec v(0, 100);
  EXPECT_EQ(100u, v.get_capacity());
  std::mt19937 rng(7);
  std::vector<unsigned> keys;
  for (int i = 0; i < 250; ++i)
    keys.push_back(rng() % 60);  // plenty of duplicates
  for (std::size_t i = 0; i < keys.size(); ++i)
    ASSERT_NE(0u, v.insert(keys[i], static_cast<int>(i)));
  EXPECT_EQ(300u, v.get_capacity());
  auto pairs = Pairs(v);
  ASSERT_EQ(250u, pairs.size());
  for (std::size_t i = 1; i < pairs.size(); ++i) {
    ASSERT_LE(pairs[i - 1].first, pairs[i].first);
    if (pairs[i - 1].first == pairs[i].first) {
      ASSERT_LT(pairs[i - 1].second, pairs[i].second);  // arrival order
    }
  }
  for (unsigned k : keys)
    ASSERT_NE(0u, v.search(k, nullptr));

  // No initial array: the first insert grows one.
  Vec empty(0, 0);
  EXPECT_EQ(0u, empty.get_capacity());
  EXPECT_EQ(1u, empty.insert(1, 1));
  EXPECT_EQ(100u, empty.get_capacity());
}

TEST(SVectorT, PointerAndSignedKeysCompareAsFullWidthUnsigned) {
  SVectorT<void *, int> v;
  auto *high = reinterpret_cast<void *>(static_cast<std::uintptr_t>(0x1) << (sizeof(void *) * 8 - 1));
  auto *low = reinterpret_cast<void *>(std::uintptr_t{0x10});
  auto *mid = reinterpret_cast<void *>(std::uintptr_t{0x20});
  v.insert(high, 1);
  v.insert(mid, 2);
  v.insert(low, 3);
  void *k = nullptr;
  ASSERT_EQ(1, v.get_item(1, &k, nullptr));
  EXPECT_EQ(low, k);
  ASSERT_EQ(1, v.get_item(3, &k, nullptr));
  EXPECT_EQ(high, k);
  EXPECT_EQ(3u, v.search(high, nullptr));

  SVectorT<int, int> s;
  s.insert(-1, 0);  // 0xFFFFFFFF as unsigned: after every positive key
  s.insert(7, 0);
  int first = 0;
  s.get_item(1, &first, nullptr);
  EXPECT_EQ(7, first);
}

class Owning : public SVectorT<unsigned, int> {
public:
  explicit Owning(int owns) : SVectorT<unsigned, int>(owns, 100) {}
  ~Owning() override { kill(); }
  void kill_elem(unsigned k, int) override {
    killed.push_back(k);
    // Already out of the table when disposed of.
    EXPECT_EQ(0u, search(k, nullptr));
  }
  std::vector<unsigned> killed;
};

TEST(SVectorT, OwnedPairsAreDisposedOfOnlyWhenAsked) {
  Owning v(1);
  for (unsigned k : {4u, 2u, 8u, 6u})
    v.insert(k, 0);
  v.erase(2, 0);
  EXPECT_TRUE(v.killed.empty());
  v.erase(4, 1);
  EXPECT_EQ(std::vector<unsigned>{4}, v.killed);
  v.kill();
  EXPECT_EQ((std::vector<unsigned>{4, 6, 8}), v.killed);
  EXPECT_EQ(0u, v.get_nitens());

  Owning notOwner(0);
  notOwner.insert(1, 0);
  notOwner.erase(1, 1);
  notOwner.insert(2, 0);
  notOwner.kill();
  EXPECT_TRUE(notOwner.killed.empty());
}

}  // namespace
