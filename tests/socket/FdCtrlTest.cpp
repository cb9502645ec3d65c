// The fd sets: Myfd_set's fixed rules, fdVector's table, and walks under removal.
#include "DemuxTestSupport.h"

#include "socket/TxtBuf_reg.h"

#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <random>
#include <set>
#include <vector>

using namespace demux_test;

namespace {

std::vector<unsigned int> WalkAll(IfdCtrl &set) {
  std::vector<unsigned int> out;
  unsigned int pos = 0;
  for (unsigned int fd = set.first(&pos); fd != kNone; fd = set.next(&pos)) {
    EXPECT_EQ(set.getfd(pos), fd);
    out.push_back(fd);
  }
  EXPECT_EQ(pos, 0u);
  return out;
}

TEST(Myfd_setTest, SetKeepsTheHistoricalDuplicateRule) {
  Myfd_set s;
  EXPECT_EQ(s.set(kNone), 0);
  EXPECT_EQ(s.set(5), 1);
  EXPECT_EQ(s.set(5), 2);  // the last socket is added again
  EXPECT_EQ(s.isset(5), 2);  // searched from the back
  s.zero();
  EXPECT_EQ(s.set(5), 1);
  EXPECT_EQ(s.set(7), 2);
  EXPECT_EQ(s.set(5), 0);  // found before the last position
  EXPECT_EQ(s.count(), 2);
  EXPECT_EQ(s.set(7), 3);
}

TEST(Myfd_setTest, ClrReturnsTheIndexAndKeepsTheOrder) {
  Myfd_set s;
  for (unsigned fd : {10u, 11u, 12u, 13u}) s.set(fd);
  EXPECT_EQ(s.clr(11), 1);
  EXPECT_EQ(s.clr(99), 3);  // absent: the count
  EXPECT_EQ(WalkAll(s), (std::vector<unsigned int>{10, 12, 13}));
  EXPECT_EQ(s.getfd(0), kNone);
  EXPECT_EQ(s.getfd(4), kNone);
  EXPECT_EQ(s.isset(99), 0);
  unsigned int pos = 9;
  EXPECT_EQ(s.next(&pos), kNone);
  EXPECT_EQ(pos, 0u);
}

TEST(Myfd_setTest, HoldsExactly2048) {
  auto s = std::make_unique<Myfd_set>();
  for (unsigned fd = 0; fd < kSewSelectMaxSockets; ++fd) ASSERT_EQ(s->set(fd + 100), static_cast<int>(fd + 1));
  EXPECT_EQ(s->set(99999), 0);
  EXPECT_EQ(s->count(), 2048);
  EXPECT_EQ(s->isset(100 + 2047), 2048);
}

// Removing sockets while walking (what a dispatch pass does when a callback
// closes its own or another socket) neither skips nor repeats one; Myfd_set
// also keeps the order of the rest.
TEST(Myfd_setTest, RemovalDuringWalkKeepsTheOrder) {
  Myfd_set s;
  for (unsigned fd = 1; fd <= 6; ++fd) s.set(fd);
  std::vector<unsigned int> seen;
  unsigned int pos = 0;
  for (unsigned int fd = s.first(&pos); fd != kNone; fd = s.next(&pos)) {
    seen.push_back(fd);
    if (fd == 2) s.clr(2);  // the current one
    if (fd == 3) s.clr(1);  // one already passed
    if (fd == 4) s.clr(6);  // one still to come
  }
  EXPECT_EQ(seen, (std::vector<unsigned int>{1, 2, 3, 4, 5}));
  EXPECT_EQ(WalkAll(s), (std::vector<unsigned int>{3, 4, 5}));
}

// Every position answers both ways and the set holds exactly the model.
void ExpectHolds(fdVector &v, std::set<unsigned int> const &model) {
  ASSERT_EQ(v.count(), static_cast<int>(model.size()));
  std::set<unsigned int> held;
  for (int p = 1; p <= v.count(); ++p) {
    unsigned int const fd = v.getfd(static_cast<unsigned int>(p));
    ASSERT_EQ(v.isset(fd), p) << fd;
    held.insert(fd);
  }
  EXPECT_EQ(held, model);
}

// fdVector fills a gap with another socket, so its walk is checked against a
// model: a socket held when the walk starts, or added during it, is returned
// exactly once unless removed before its turn; a removed one never is.
// Numbers on both sides of the direct index's limit take part.
TEST(fdVectorTest, WalkWithRemovalsAndAdditionsReturnsEachSocketOnce) {
  std::mt19937 rng(14);
  std::vector<unsigned int> pool;
  for (unsigned int fd = 0; fd < 40; ++fd) pool.push_back(fd);
  for (unsigned int fd = (1u << 20) - 4; fd < (1u << 20) + 4; ++fd) pool.push_back(fd);
  pool.push_back(0xFFFFFFF0u);
  auto pick = [&](auto const &from) {
    auto it = from.begin();
    std::advance(it, static_cast<long>(rng() % from.size()));
    return *it;
  };
  fdVector v;
  std::set<unsigned int> model;
  for (int walk = 0; walk < 300; ++walk) {
    while (model.size() < 25) {
      unsigned int const fd = pick(pool);
      if (model.insert(fd).second) {
        ASSERT_EQ(v.set(fd), static_cast<int>(model.size()));
      }
    }
    std::set<unsigned int> due = model;
    unsigned int pos = 0;
    for (unsigned int fd = v.first(&pos); fd != kNone; fd = v.next(&pos)) {
      ASSERT_EQ(due.erase(fd), 1u) << "socket " << fd << " returned twice, or after its removal";
      ASSERT_EQ(v.getfd(pos), fd);
      unsigned int const action = rng() % 4;
      unsigned int const victim = action == 0 ? fd : pick(model);
      if (action <= 1) {  // remove the current socket or any other
        int const at = v.isset(victim);
        ASSERT_EQ(v.clr(victim), at - 1);
        model.erase(victim);
        due.erase(victim);
      } else if (action == 2) {  // add one: it is still to come
        unsigned int const fresh = pick(pool);
        if (model.insert(fresh).second) {
          ASSERT_NE(v.set(fresh), 0);
          due.insert(fresh);
        }
      }
      if (model.empty()) break;
    }
    EXPECT_TRUE(due.empty()) << due.size() << " sockets skipped in walk " << walk;
    ExpectHolds(v, model);
    if (HasFatalFailure()) return;
  }
}

TEST(fdVectorTest, GrowsWithoutLimitAndNeverHoldsASocketTwice) {
  fdVector v;
  for (unsigned fd = 0; fd < 5000; ++fd) ASSERT_EQ(v.set(fd * 3), static_cast<int>(fd + 1));
  EXPECT_EQ(v.set(3), 0);
  EXPECT_EQ(v.count(), 5000);
  EXPECT_EQ(v.isset(3 * 4999), 5000);
  EXPECT_EQ(v.clr(0), 0);
  EXPECT_EQ(v.clr(0), 4999);  // absent: the count
  EXPECT_EQ(v.isset(3 * 4999), 1);  // the last one took the gap
  EXPECT_EQ(v.isset(3), 2);
  // A removed number comes back once, at the end.
  EXPECT_EQ(v.set(0), 5000);
  EXPECT_EQ(v.set(0), 0);
  EXPECT_EQ(v.isset(0), 5000);
  // Handles far beyond any descriptor number are held too.
  EXPECT_EQ(v.set(0xFFFFFFF0u), 5001);
  EXPECT_EQ(v.isset(0xFFFFFFF0u), 5001);
  EXPECT_EQ(v.set(0xFFFFFFF0u), 0);
  EXPECT_EQ(v.clr(0xFFFFFFF0u), 5000);
  EXPECT_EQ(v.isset(0xFFFFFFF0u), 0);
  EXPECT_EQ(v.set(kNone), 0);
  v.zero();
  EXPECT_EQ(v.count(), 0);
  EXPECT_EQ(v.isset(3), 0);
  EXPECT_EQ(v.first(nullptr), kNone);

  // Emptied in mid-walk: a later removal must not take the old cursor for
  // a place in the smaller set.
  for (unsigned fd : {1u, 2u, 3u}) v.set(fd);
  v.first(nullptr);
  v.next(nullptr);
  v.zero();
  EXPECT_EQ(v.set(9), 1);
  EXPECT_EQ(v.clr(9), 0);
  EXPECT_EQ(v.count(), 0);
  EXPECT_EQ(v.isset(2), 0);
}

// Accept/close churn over many sockets: random adds and removals against a
// model, with the positions checked at intervals.
TEST(fdVectorTest, ChurnOverManySocketsKeepsEveryPosition) {
  std::mt19937 rng(7);
  fdVector v;
  std::set<unsigned int> model;
  for (int op = 1; op <= 200000; ++op) {
    unsigned int const fd = rng() % 20000;
    if (model.count(fd) != 0) {
      ASSERT_NE(v.clr(fd), v.count());
      model.erase(fd);
    } else {
      ASSERT_EQ(v.set(fd), static_cast<int>(model.size() + 1));
      model.insert(fd);
    }
    if (op % 50000 == 0) {
      ExpectHolds(v, model);
      if (HasFatalFailure()) return;
    }
  }
}

TEST(fdATxtSVectorTest, EachSocketHasItsOwnRegisterForItsTimeInTheSet) {
  fdATxtSVector v;
  IfdACtrl &a = v;
  EXPECT_EQ(v.set(9), 1);
  EXPECT_EQ(v.set(4), 2);
  ASSERT_NE(v.GetTxtBuf(9), nullptr);
  EXPECT_EQ(a.PutTxt(9, "nine\r\nhal", 9), 9);
  EXPECT_EQ(a.PutTxt(4, "four", 4), 4);
  char line[16];
  EXPECT_EQ(a.GetTxtLine(9, line, sizeof(line)), 5);
  EXPECT_STREQ(line, "nine");
  EXPECT_EQ(a.GetTxtLine(9, line, sizeof(line)), 0);
  unsigned pending = 0;
  EXPECT_EQ(a.GetTxtPending(9, &pending), 1);
  EXPECT_EQ(pending, 3u);
  EXPECT_EQ(a.GetTxtLine(4, line, sizeof(line)), 0);
  unsigned room = 0;
  EXPECT_EQ(a.GetTxtRoom(4, &room), 1);
  EXPECT_EQ(room, TxtBuf_reg::kMaxLine - 4);

  // Leaving the set drops the register and its half line.
  v.clr(9);
  EXPECT_EQ(v.GetTxtBuf(9), nullptr);
  EXPECT_EQ(a.PutTxt(9, "x\n", 2), 0);
  v.set(9);
  EXPECT_EQ(a.GetTxtPending(9, &pending), 1);
  EXPECT_EQ(pending, 0u);

  EXPECT_EQ(a.DelTxtBuf(4), 1);
  EXPECT_EQ(a.DelTxtBuf(4), 0);
  EXPECT_EQ(a.AddTxtBuf(4), 1);
  v.zero();
  EXPECT_EQ(v.GetTxtBuf(4), nullptr);
}

}  // namespace
