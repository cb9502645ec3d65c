#include "thread/SVectorT.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

using Vec = SVectorT<unsigned, int>;
using PairList = std::vector<std::pair<unsigned, int>>;

PairList Pairs(Vec const &v) {
  PairList out;
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
  EXPECT_EQ((PairList{{3, 2}, {3, 4}, {4, 6}, {5, 1}, {9, 3}, {9, 5}}), Pairs(v));

  int value = -1;
  EXPECT_EQ(4u, v.search(5, &value));
  EXPECT_EQ(1, value);
  EXPECT_EQ(0u, v.search(7, &value));
  EXPECT_EQ(0, value);  // the missing value
  EXPECT_EQ(0u, v.search(1, nullptr));
  EXPECT_EQ(0u, v.search(10, nullptr));

  EXPECT_EQ(0, v.eraseIndex(0, 0));
  EXPECT_EQ(0, v.eraseIndex(7, 0));
  EXPECT_EQ(1, v.erase(4, 0));
  EXPECT_EQ(0, v.erase(4, 0));
  EXPECT_EQ(5u, v.get_nitens());
}

TEST(SVectorT, CursorKeepsNamingTheSamePair) {
  Vec v;
  for (unsigned k = 10; k <= 50; k += 10)
    v.insert(k, 0);
  v.set_cursor(3);    // names 30
  v.insert(5, 0);     // before it
  v.insert(60, 0);    // after it
  v.eraseIndex(1, 0); // before it
  v.erase(50, 0);     // after it
  unsigned k;
  ASSERT_EQ(1, v.get_next(&k, nullptr));
  EXPECT_EQ(30u, k);
  v.erase(40, 0);  // the pair under the cursor: it moves on to the next
  ASSERT_EQ(1, v.get_next(&k, nullptr));
  EXPECT_EQ(60u, k);
  EXPECT_EQ(0, v.get_next(&k, nullptr));
}

TEST(SVectorT, GrowsGeometricallyAndStaysSorted) {
  Vec v(0, 100);
  std::mt19937 rng(7);
  for (int i = 0; i < 250; ++i)
    ASSERT_NE(0u, v.insert(rng() % 60, i));  // plenty of duplicates
  EXPECT_EQ(400u, v.get_capacity());  // 100, 200, 400
  Vec empty(0, 0);
  ASSERT_NE(0u, empty.insert(1, 1));
  EXPECT_EQ(100u, empty.get_capacity());  // at least one step of 100
  auto pairs = Pairs(v);
  ASSERT_EQ(250u, pairs.size());
  for (std::size_t i = 1; i < pairs.size(); ++i) {
    ASSERT_LE(pairs[i - 1].first, pairs[i].first);
    if (pairs[i - 1].first == pairs[i].first) {
      ASSERT_LT(pairs[i - 1].second, pairs[i].second);  // arrival order
    }
    ASSERT_NE(0u, v.search(pairs[i].first, nullptr));
  }
}

TEST(SVectorT, PointerKeysCompareByTheirFullWidth) {
  SVectorT<void *, int> v;
  // Equal in their low 32 bits on a 64-bit system.
  auto *high = reinterpret_cast<void *>((std::uintptr_t{1} << (sizeof(void *) * 8 - 1)) | 0x10);
  auto *low = reinterpret_cast<void *>(std::uintptr_t{0x10});
  v.insert(high, 1);
  v.insert(low, 2);
  void *k = nullptr;
  v.get_item(1, &k, nullptr);
  EXPECT_EQ(low, k);
  int value = 0;
  EXPECT_EQ(2u, v.search(high, &value));
  EXPECT_EQ(1, value);
}

class Owning : public Vec {
public:
  explicit Owning(int owns) : Vec(owns, 100) {}
  ~Owning() override { kill(); }
  void kill_elem(unsigned k, int) override {
    EXPECT_EQ(0u, search(k, nullptr));  // already out of the table
    killed.push_back(k);
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
  v.kill();
  EXPECT_EQ((std::vector<unsigned>{4, 6, 8}), v.killed);
}

}  // namespace
