#include "media/SortedIdVector.h"

#include <gtest/gtest.h>

namespace {

struct Entry {
  unsigned id;
  unsigned GetId() const { return id; }
};

using Index = shared::detail::SortedIdVector<Entry>;

// Inserts id and reports whether the entries had to move to do it.
bool InsertMoved(Index &index, unsigned id) {
  Entry const *before = index.begin();
  EXPECT_NE(Index::kNotFound, index.Insert(Entry{id}));
  return index.begin() != before;
}

TEST(SortedIdVector, AFullArrayWithRoomInFrontDoesNotMoveEverythingOnEachAppend) {
  Index index;
  ASSERT_TRUE(index.Create(20000));
  for (unsigned id = 1; id <= 20000; ++id)
    InsertMoved(index, id);
  // The jitter buffer's steady state near capacity: drop the lowest, append.
  int moves = 0;
  for (unsigned id = 20001; id <= 30000; ++id) {
    index.EraseAt(0);
    moves += InsertMoved(index, id) ? 1 : 0;
  }
  EXPECT_LE(moves, 3);
  ASSERT_EQ(20000u, index.Count());
  for (unsigned pos = 0; pos < index.Count(); ++pos)
    ASSERT_EQ(10001 + pos, index.At(pos).id);
}

TEST(SortedIdVector, GrowsGeometricallyAndKeepsOrder) {
  Index index(100);
  int moves = 0;
  for (unsigned id = 1; id <= 100000; ++id)
    moves += InsertMoved(index, id) ? 1 : 0;
  EXPECT_LE(moves, 20);  // a fixed step of 100 would move 1,000 times
  ASSERT_EQ(100000u, index.Count());
  for (unsigned pos = 0; pos < index.Count(); pos += 997)
    ASSERT_EQ(pos + 1, index.At(pos).id);
  EXPECT_EQ(4999u, index.Find(5000));
  index.EraseAt(4999);
  EXPECT_EQ(Index::kNotFound, index.Find(5000));
  EXPECT_EQ(4999u, index.LowerBound(5000));
}

}  // namespace
