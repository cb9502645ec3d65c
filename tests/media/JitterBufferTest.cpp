#include "media/JitterBuffer.h"
#include "media/MediaJitterBuf.h"

#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string Payload(unsigned n, char fill = 'x') { return std::string(n, fill); }

struct Counters {
  unsigned left, perc, lost, inserted, removed;
  bool operator==(Counters const &) const = default;
};

Counters Info(JitterBuffer &jb) {
  Counters c{};
  jb.GetInfo(&c.left, &c.perc, &c.lost, &c.inserted, &c.removed);
  return c;
}

TEST(JitterBuffer, RefusesBadInputAndTruncatesLongPackets) {
  JitterBuffer jb(10, 100);
  ASSERT_TRUE(jb.IsOk());
  std::string const data = Payload(150);
  EXPECT_EQ(0, jb.insert(0, data.data(), 10));
  EXPECT_EQ(0, jb.insert(5, nullptr, 10));
  EXPECT_EQ(0, jb.insert(5, data.data(), 0));
  EXPECT_EQ((Counters{0, 0, 0, 0, 0}), Info(jb));
  EXPECT_EQ(0u, jb.GetLastSeq());

  ASSERT_EQ(1, jb.insert(1, data.data(), 150));
  EXPECT_EQ(100u, jb.GetnBytesLeft());
  char buf[200];
  unsigned n = sizeof buf;
  EXPECT_EQ(1, jb.search(1, buf, &n));
  EXPECT_EQ(100u, n);
  n = sizeof buf;
  EXPECT_EQ(0, jb.search(0, buf, &n));
  EXPECT_EQ(0, jb.search(2, buf, &n));
}

TEST(JitterBuffer, LossIsCountedAgainstTheLastInsert) {
  JitterBuffer jb(10, 100);
  std::string const d = Payload(10);
  for (unsigned seq : {1u, 2u, 5u})
    ASSERT_EQ(1, jb.insert(seq, d.data(), 10));
  EXPECT_EQ(2u, jb.GetnPacketsLost());
  // A late packet adds nothing but moves the last number back...
  ASSERT_EQ(1, jb.insert(3, d.data(), 10));
  EXPECT_EQ(2u, jb.GetnPacketsLost());
  EXPECT_EQ(3u, jb.GetLastSeq());
  // ...so 4 and 5 count again as the stream moves on.
  ASSERT_EQ(1, jb.insert(6, d.data(), 10));
  EXPECT_EQ(4u, jb.GetnPacketsLost());

  // The first packet after a flush counts everything below it.
  jb.flush();
  EXPECT_EQ((Counters{0, 0, 0, 0, 0}), Info(jb));
  ASSERT_EQ(1, jb.insert(100, d.data(), 10));
  EXPECT_EQ(99u, jb.GetnPacketsLost());

  // The addition wraps: after 0xFFFFFFFF any number counts itself as lost.
  JitterBuffer top(4, 16);
  ASSERT_EQ(1, top.insert(0xFFFFFFFFu, d.data(), 10));
  ASSERT_EQ(1, top.insert(3, d.data(), 10));
  EXPECT_EQ(0xFFFFFFFEu + 3u, top.GetnPacketsLost());
}

TEST(JitterBuffer, DuplicateReplacesAndReleaseIsInAscendingOrder) {
  JitterBuffer jb(10, 100);
  ASSERT_EQ(1, jb.insert(7, "old", 3));
  ASSERT_EQ(1, jb.insert(7, "newer", 5));
  EXPECT_EQ(1u, jb.GetnPacketsLeft());
  EXPECT_EQ(2u, jb.GetnPacketsInserted());
  EXPECT_EQ(1u, jb.GetnPacketsRemoved());

  ASSERT_EQ(1, jb.insert(3, "c", 1));
  ASSERT_EQ(1, jb.insert(5, "e", 1));
  char buf[16];
  unsigned n = sizeof buf;
  EXPECT_EQ(3u, jb.popfirst(buf, &n));
  n = sizeof buf;
  EXPECT_EQ(5u, jb.popfirst(buf, &n));
  n = sizeof buf;
  EXPECT_EQ(7u, jb.popfirst(buf, &n));
  EXPECT_EQ("newer", std::string(buf, n));
  n = sizeof buf;
  EXPECT_EQ(0u, jb.popfirst(buf, &n));
  EXPECT_EQ(4u, jb.GetnPacketsRemoved());
  EXPECT_EQ(0, jb.remove(0));
}

TEST(JitterBuffer, BytesLeftDeductsSequenceNumbersExceptInPopbytes) {
  JitterBuffer jb(10, 100);
  std::string const d = Payload(10);
  ASSERT_EQ(1, jb.insert(7, d.data(), 10));
  ASSERT_EQ(1, jb.insert(4, d.data(), 10));
  ASSERT_EQ(1, jb.insert(30, d.data(), 10));
  EXPECT_EQ(30u, jb.GetnBytesLeft());
  // remove and popfirst take the packet's number off, not its 10 bytes.
  EXPECT_NE(0, jb.remove(7));
  EXPECT_EQ(23u, jb.GetnBytesLeft());
  EXPECT_EQ(4u, jb.popfirst(nullptr, nullptr));
  EXPECT_EQ(19u, jb.GetnBytesLeft());
  // A replaced duplicate deducts its number too, and the counter may wrap.
  ASSERT_EQ(1, jb.insert(30, d.data(), 10));
  EXPECT_EQ(19u - 30u + 10u, jb.GetnBytesLeft());
  EXPECT_NE(0, jb.remove(0));
  EXPECT_EQ(19u - 30u + 10u - 30u, jb.GetnBytesLeft());

  // popbytes deducts what it read, in pieces of the room given.
  jb.flush();
  ASSERT_EQ(1, jb.insert(9, "0123456789", 10));
  ASSERT_EQ(1, jb.insert(12, "ab", 2));
  char buf[16];
  std::string got;
  for (unsigned expected : {4u, 4u, 2u}) {
    unsigned n = 4;
    EXPECT_EQ(9u, jb.popbytes(buf, &n));
    EXPECT_EQ(expected, n);
    got.append(buf, n);
    EXPECT_EQ(expected == 2 ? 1u : 0u, jb.GetnPacketsRemoved());
  }
  EXPECT_EQ("0123456789", got);
  EXPECT_EQ(2u, jb.GetnBytesLeft());
  // Without len the room is a whole packet.
  EXPECT_EQ(12u, jb.popbytes(buf, nullptr));
  EXPECT_EQ(0u, jb.GetnBytesLeft());
  unsigned n = 4;
  EXPECT_EQ(0u, jb.popbytes(buf, &n));
  EXPECT_EQ(0u, n);
}

TEST(JitterBuffer, CapacityIsOnlyTheMeasureOfFullness) {
  JitterBuffer jb(20, 8);
  for (unsigned seq = 1; seq <= 30; ++seq)
    ASSERT_EQ(1, jb.insert(seq, "p", 1));
  EXPECT_EQ((Counters{30, 150, 0, 30, 0}), Info(jb));
  unsigned left = 0;
  jb.GetInfo(&left, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(30u, left);

  JitterBuffer zero(0, 8);
  EXPECT_EQ(0u, zero.GetPercFull());
  EXPECT_EQ(0, zero.insert(1, "p", 1));
}

TEST(JitterBuffer, CopyHoldsTheSamePacketsAndCounters) {
  JitterBuffer a(4, 16);
  ASSERT_EQ(1, a.insert(2, "two", 3));
  ASSERT_EQ(1, a.insert(5, "five", 4));
  JitterBuffer b(1, 16);
  b = a;
  EXPECT_EQ(Info(a), Info(b));
  EXPECT_EQ(5u, b.GetLastSeq());
  EXPECT_EQ(2u, a.popfirst(nullptr, nullptr));
  char buf[16];
  unsigned n = sizeof buf;
  EXPECT_EQ(2u, b.popfirst(buf, &n));
  EXPECT_EQ("two", std::string(buf, n));
}

// ------------------------------------------------------------ MediaJitterBuf

TEST(MediaJitterBuf, KeepsOnlyTheNewestPackets) {
  MediaJitterBuf mjb(3, 100, 5);
  ASSERT_TRUE(mjb.IsOk());
  for (unsigned seq = 1; seq <= 5; ++seq)
    ASSERT_EQ(1, mjb.insert(seq, "p", 1));
  EXPECT_EQ(3u, mjb.GetnPacketsLeft());
  EXPECT_EQ(2u, mjb.GetnPacketsRemoved());
  EXPECT_EQ(5u, mjb.GetnPacketsInserted());
  std::vector<unsigned> order;
  while (unsigned seq = mjb.popfirst(nullptr, nullptr))
    order.push_back(seq);
  EXPECT_EQ((std::vector<unsigned>{3, 4, 5}), order);

  EXPECT_EQ(0, MediaJitterBuf(0, 100, 5).IsOk());
  EXPECT_EQ(0, MediaJitterBuf(3, 0, 5).IsOk());
  MediaJitterBuf noIdle(3, 100, 0);
  EXPECT_EQ(0, noIdle.IsOk());
  // Not ok, but still working.
  EXPECT_EQ(1, noIdle.insert(1, "p", 1));
}

TEST(MediaJitterBuf, EmptiesAfterIdleTimeOrAClockStepBack) {
  shared::platform::ManualClock clock(1700000000, 1000, false);
  shared::platform::ScopedClockSource installed(clock);
  MediaJitterBuf mjb(10, 100, 5);
  ASSERT_EQ(1, mjb.insert(4, "p", 1));
  ASSERT_EQ(1, mjb.insert(6, "p", 1));
  // Exactly the idle time is not yet idle.
  clock.SetSeconds(1700000005);
  EXPECT_EQ(2u, mjb.GetnPacketsLeft());
  EXPECT_EQ(4u, mjb.GetnPacketsLost());
  clock.SetSeconds(1700000006);
  EXPECT_EQ(0u, mjb.GetnPacketsLeft());
  EXPECT_EQ(0u, mjb.GetnPacketsLost());
  EXPECT_EQ(0u, mjb.GetnPacketsInserted());

  // Counting restarts from the next insert; a clock set back empties too.
  ASSERT_EQ(1, mjb.insert(2, "p", 1));
  EXPECT_EQ(1u, mjb.GetnPacketsLost());
  clock.SetSeconds(1700000003);
  char buf[4];
  unsigned n = sizeof buf;
  EXPECT_EQ(0, mjb.search(2, buf, &n));
  EXPECT_EQ(0u, mjb.GetnPacketsInserted());

  // An idle check with nothing inserted yet changes nothing; inserting
  // restarts the idle clock.
  clock.SetSeconds(1800000000);
  ASSERT_EQ(1, mjb.insert(1, "p", 1));
  clock.SetSeconds(1800000004);
  ASSERT_EQ(1, mjb.insert(3, "p", 1));
  clock.SetSeconds(1800000008);
  EXPECT_EQ(2u, mjb.GetnPacketsLeft());
  mjb.flush(1);
  EXPECT_EQ(0u, mjb.GetnPacketsLeft());
}

TEST(MediaJitterBuf, OneThreadInsertsWhileAnotherPops) {
  constexpr unsigned kPackets = 2000;
  MediaJitterBuf mjb(kPackets, 64, 3600);
  std::atomic<bool> done{false};
  std::thread producer([&] {
    for (unsigned seq = 1; seq <= kPackets; ++seq)
      mjb.insert(seq, "payload", 7);
    done = true;
  });
  unsigned popped = 0;
  unsigned last = 0;
  bool ordered = true;
  for (;;) {
    bool const finished = done;  // read before popping: nothing is missed
    char buf[64];
    unsigned n = sizeof buf;
    unsigned const seq = mjb.popfirst(buf, &n);
    if (seq != 0) {
      ++popped;
      ordered = ordered && seq > last;
      last = seq;
    } else if (finished) {
      break;
    } else {
      std::this_thread::yield();
    }
  }
  producer.join();
  EXPECT_EQ(kPackets, popped);
  EXPECT_TRUE(ordered);  // one producer in order: pops come out ascending
  EXPECT_EQ(kPackets, mjb.GetnPacketsRemoved());
}

}  // namespace
