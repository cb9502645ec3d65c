#include "media/JitterBuffer.h"
#include "media/MediaJitterBuf.h"

#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string const kTen = "0123456789";

TEST(JitterBuffer, RefusesBadInputTruncatesAndReplacesDuplicates) {
  JitterBuffer jb(10, 8);
  ASSERT_TRUE(jb.IsOk());
  EXPECT_EQ(0, jb.insert(0, "x", 1));
  EXPECT_EQ(0, jb.insert(5, nullptr, 1));
  EXPECT_EQ(0, jb.insert(5, "x", 0));
  EXPECT_EQ(0u, jb.GetnPacketsInserted() + jb.GetnPacketsLeft() + jb.GetLastSeq());

  ASSERT_EQ(1, jb.insert(7, kTen.data(), 10));  // truncated to 8 bytes
  EXPECT_EQ(8u, jb.GetnBytesLeft());
  ASSERT_EQ(1, jb.insert(7, "new", 3));
  EXPECT_EQ(1u, jb.GetnPacketsLeft());
  EXPECT_EQ(2u, jb.GetnPacketsInserted());
  EXPECT_EQ(1u, jb.GetnPacketsRemoved());
  char buf[16];
  unsigned n = sizeof buf;
  EXPECT_EQ(1, jb.search(7, buf, &n));
  EXPECT_EQ("new", std::string(buf, n));
  EXPECT_EQ(0, jb.search(0, buf, &n));

  // Released lowest first, whatever the arrival order.
  ASSERT_EQ(1, jb.insert(3, "c", 1));
  ASSERT_EQ(1, jb.insert(5, "e", 1));
  std::vector<unsigned> order;
  while (unsigned seq = jb.popfirst(nullptr, nullptr))
    order.push_back(seq);
  EXPECT_EQ((std::vector<unsigned>{3, 5, 7}), order);
  EXPECT_EQ(0, jb.remove(0));
}

TEST(JitterBuffer, LossIsCountedAgainstTheLastInsert) {
  JitterBuffer jb(10, 100);
  for (unsigned seq : {1u, 2u, 5u})
    ASSERT_EQ(1, jb.insert(seq, "p", 1));
  EXPECT_EQ(2u, jb.GetnPacketsLost());
  // A late packet adds nothing but moves the last number back, so 4 and 5
  // count again when the stream moves on.
  ASSERT_EQ(1, jb.insert(3, "p", 1));
  EXPECT_EQ(2u, jb.GetnPacketsLost());
  ASSERT_EQ(1, jb.insert(6, "p", 1));
  EXPECT_EQ(4u, jb.GetnPacketsLost());

  // After flush, the first packet counts everything below it. Capacity (10)
  // only measures fullness.
  jb.flush();
  EXPECT_EQ(0u, jb.GetnPacketsLost() + jb.GetnPacketsInserted() + jb.GetnPacketsLeft());
  for (unsigned seq = 100; seq < 115; ++seq)
    ASSERT_EQ(1, jb.insert(seq, "p", 1));
  unsigned left = 0, perc = 0, lost = 0;
  jb.GetInfo(&left, &perc, &lost, nullptr, nullptr);
  EXPECT_EQ(15u, left);
  EXPECT_EQ(150u, perc);
  EXPECT_EQ(99u, lost);
  EXPECT_EQ(0u, JitterBuffer(0, 8).GetPercFull());
}

TEST(JitterBuffer, BytesLeftDeductsSequenceNumbersExceptInPopbytes) {
  JitterBuffer jb(10, 100);
  for (unsigned seq : {7u, 4u, 30u})
    ASSERT_EQ(1, jb.insert(seq, kTen.data(), 10));
  EXPECT_EQ(30u, jb.GetnBytesLeft());
  // remove and popfirst take the packet's number off, not its 10 bytes;
  // so does a replaced duplicate, and the counter wraps.
  EXPECT_NE(0, jb.remove(7));
  EXPECT_EQ(23u, jb.GetnBytesLeft());
  EXPECT_EQ(4u, jb.popfirst(nullptr, nullptr));
  EXPECT_EQ(19u, jb.GetnBytesLeft());
  ASSERT_EQ(1, jb.insert(30, kTen.data(), 10));
  EXPECT_EQ(19u - 30u + 10u, jb.GetnBytesLeft());

  // popbytes reads in pieces and deducts what it read.
  jb.flush();
  ASSERT_EQ(1, jb.insert(9, kTen.data(), 10));
  ASSERT_EQ(1, jb.insert(12, "ab", 2));
  std::string got;
  for (unsigned expected : {4u, 4u, 2u}) {
    char buf[4];
    unsigned n = 4;
    EXPECT_EQ(9u, jb.popbytes(buf, &n));
    EXPECT_EQ(expected, n);
    got.append(buf, n);
    EXPECT_EQ(expected == 2 ? 1u : 0u, jb.GetnPacketsRemoved());
  }
  EXPECT_EQ(kTen, got);
  EXPECT_EQ(2u, jb.GetnBytesLeft());
  char buf[16];
  EXPECT_EQ(12u, jb.popbytes(buf, nullptr));  // room: a whole packet
  unsigned n = 4;
  EXPECT_EQ(0u, jb.popbytes(buf, &n));
  EXPECT_EQ(0u, n);
  EXPECT_EQ(0u, jb.GetnBytesLeft());
}

TEST(MediaJitterBuf, KeepsOnlyTheNewestPackets) {
  MediaJitterBuf mjb(3, 100, 5);
  ASSERT_TRUE(mjb.IsOk());
  for (unsigned seq = 1; seq <= 5; ++seq)
    ASSERT_EQ(1, mjb.insert(seq, "p", 1));
  EXPECT_EQ(2u, mjb.GetnPacketsRemoved());
  std::vector<unsigned> order;
  while (unsigned seq = mjb.popfirst(nullptr, nullptr))
    order.push_back(seq);
  EXPECT_EQ((std::vector<unsigned>{3, 4, 5}), order);
  EXPECT_EQ(0, MediaJitterBuf(0, 100, 5).IsOk());
  EXPECT_EQ(0, MediaJitterBuf(3, 0, 5).IsOk());
  EXPECT_EQ(0, MediaJitterBuf(3, 100, 0).IsOk());
}

TEST(MediaJitterBuf, EmptiesAfterIdleTimeOrAClockStepBack) {
  shared::platform::ManualClock clock(1700000000, 1000, false);
  shared::platform::ScopedClockSource installed(clock);
  MediaJitterBuf mjb(10, 100, 5);
  ASSERT_EQ(1, mjb.insert(4, "p", 1));
  clock.SetSeconds(1700000004);
  ASSERT_EQ(1, mjb.insert(6, "p", 1));  // restarts the idle time
  clock.SetSeconds(1700000009);         // exactly the idle time: not yet
  EXPECT_EQ(2u, mjb.GetnPacketsLeft());
  EXPECT_EQ(4u, mjb.GetnPacketsLost());
  clock.SetSeconds(1700000010);
  EXPECT_EQ(0u, mjb.GetnPacketsLeft());
  EXPECT_EQ(0u, mjb.GetnPacketsLost());
  EXPECT_EQ(0u, mjb.GetnPacketsInserted());

  ASSERT_EQ(1, mjb.insert(2, "p", 1));
  EXPECT_EQ(1u, mjb.GetnPacketsLost());  // counting restarted
  clock.SetSeconds(1700000003);          // set back
  char buf[4];
  unsigned n = sizeof buf;
  EXPECT_EQ(0, mjb.search(2, buf, &n));
  EXPECT_EQ(0u, mjb.GetnPacketsInserted());
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
  unsigned popped = 0, last = 0;
  for (;;) {
    bool const finished = done;  // read before popping: nothing is missed
    if (unsigned const seq = mjb.popfirst(nullptr, nullptr)) {
      ++popped;
      EXPECT_GT(seq, last);
      last = seq;
    } else if (finished) {
      break;
    } else {
      std::this_thread::yield();
    }
  }
  producer.join();
  EXPECT_EQ(kPackets, popped);
}

}  // namespace
