#include "media/XJitterCtrl.h"

#include "thread/ThreadTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using testutil::Eventually;
using testutil::Latch;

// Counts every callback and logs the ones whose order matters. The read
// callback runs the test's script (set before Resume).
class ScriptedEvents : public IJitterBufferEvents {
public:
  int OnJitterStart() override {
    ++starts;
    Log("start");
    return startResult;
  }
  int OnJitterRead() override {
    ++reads;
    return script ? script() : 0;
  }
  void OnJitterBufFull() override {
    ++fulls;
    Log("full");
  }
  void OnJitterBufEmpty() override {
    ++empties;
    Log("empty");
  }
  void OnJitterStop() override {
    ++stops;
    Log("stop");
  }
  void OnJitterThreadEnd() override {
    ++threadEnds;
    Log("end");
  }

  std::vector<std::string> Events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return log_;
  }

  std::atomic<int> starts{0}, reads{0}, fulls{0}, empties{0}, stops{0}, threadEnds{0};
  int startResult = 1;
  std::function<int()> script;

private:
  void Log(char const *what) {
    std::lock_guard<std::mutex> lock(mutex_);
    log_.emplace_back(what);
  }
  std::mutex mutex_;
  std::vector<std::string> log_;
};

std::string Bytes(unsigned n, char c) { return std::string(n, c); }

// The client's read loop makes one waiting GetPacket call, then ends the
// loop (the read thread then waits for the buffer to drain).
struct OneRead {
  OneRead(ScriptedEvents &ev, XJitterCtrl &ctrl, unsigned len, int waitForLen) {
    ev.script = [this, &ctrl, len, waitForLen] {
      std::vector<char> buf(len);
      seq = ctrl.GetPacket(buf.data(), len, &outLen, 1, waitForLen);
      done.Open();
      return 0;
    };
  }
  Latch done;
  unsigned seq = 99;  // written before done opens
  unsigned outLen = 0;
};

TEST(XJitterCtrl, InitializeChecksItsSizesAndStartCanBeRefused) {
  ScriptedEvents ev;
  XJitterCtrl ctrl;
  EXPECT_EQ(0, ctrl.Start());  // not initialised
  EXPECT_EQ(0, ctrl.Initialize(20, 500, 400, &ev));
  EXPECT_EQ(0, ctrl.IsOk());
  EXPECT_EQ(0, ctrl.Initialize(20, 400, 400, nullptr));
  EXPECT_EQ(0, ctrl.Initialize(0, 400, 400, &ev));
  EXPECT_EQ(1, ctrl.Initialize(20, 400, 400, &ev));
  EXPECT_EQ(1, ctrl.IsOk());

  ev.startResult = 0;
  EXPECT_EQ(0, ctrl.Start());
  EXPECT_EQ(0, ctrl.IsStarted());
  EXPECT_EQ(1, ev.starts);
  EXPECT_EQ(0, ctrl.Resume());
  EXPECT_EQ(0, ctrl.Insert(1, "x", 1));
  ctrl.Stop();  // nothing to stop
  EXPECT_EQ(0, ev.stops);
  EXPECT_EQ(0, ev.reads);
  EXPECT_EQ(0, ev.threadEnds);

  // Started but never resumed: Stop releases the thread without running it.
  ev.startResult = 1;
  ASSERT_EQ(1, ctrl.Start());
  EXPECT_EQ(0, ctrl.Initialize(10, 100, 100, &ev));  // refused while started
  EXPECT_EQ(1, ctrl.Insert(1, "x", 1));
  ctrl.Stop();
  EXPECT_EQ(0, ctrl.IsStarted());
  EXPECT_EQ(0, ctrl.Insert(2, "x", 1));
  EXPECT_EQ(1, ev.stops);
  EXPECT_EQ(0, ev.reads);
  EXPECT_EQ(0, ev.threadEnds);
  EXPECT_EQ((std::vector<std::string>{"start", "start", "stop"}), ev.Events());
}

TEST(XJitterCtrl, GetPacketWaitsForTheFillTargetAndTheThreadWaitsForTheDrain) {
  ScriptedEvents ev;
  XJitterCtrl ctrl;
  ASSERT_EQ(1, ctrl.Initialize(20, 1000, 1000, &ev));
  OneRead read(ev, ctrl, 1000, 1);
  ASSERT_EQ(1, ctrl.Start());
  ASSERT_EQ(1, ctrl.Insert(1, Bytes(400, 'a').data(), 400));
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ctrl.IsFilling() == 1; }));
  ASSERT_EQ(1, ctrl.Insert(2, Bytes(400, 'b').data(), 400));
  EXPECT_EQ(1, ctrl.IsFilling());  // 800 bytes are not yet 1000
  EXPECT_FALSE(read.done.IsOpen());
  ASSERT_EQ(1, ctrl.Insert(3, Bytes(400, 'c').data(), 400));
  ASSERT_TRUE(read.done.Wait());
  EXPECT_EQ(1u, read.seq);
  EXPECT_EQ(400u, read.outLen);
  EXPECT_EQ(0, ctrl.IsFilling());

  // The client drains the rest; the last read raises the empty event and
  // lets the read thread end.
  char buf[1000];
  unsigned n = 0;
  EXPECT_EQ(2u, ctrl.GetPacket(buf, sizeof buf, &n, 0, 0));
  EXPECT_EQ(0, ev.empties);
  EXPECT_EQ(0, ev.threadEnds);
  EXPECT_EQ(3u, ctrl.GetPacket(buf, sizeof buf, &n, 0, 0));
  EXPECT_EQ(1, ev.empties);
  ASSERT_TRUE(Eventually([&] { return ev.threadEnds.load() == 1; }));
  EXPECT_EQ(1, ctrl.IsStarted());  // the client ended reading, not the controller
  ctrl.Stop();
  // "empty" and "end" may come in either order: the drained buffer wakes
  // the read thread before GetPacket raises the event.
  auto events = ev.Events();
  ASSERT_EQ(4u, events.size());
  EXPECT_EQ("start", events.front());
  EXPECT_EQ("stop", events.back());
}

TEST(XJitterCtrl, GetPacketWaitsForAnyPacket) {
  ScriptedEvents ev;
  XJitterCtrl ctrl;
  ASSERT_EQ(1, ctrl.Initialize(20, 100, 100, &ev));
  OneRead read(ev, ctrl, 100, 0);
  ASSERT_EQ(1, ctrl.Start());
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ctrl.IsFilling() == 1; }));
  ASSERT_EQ(1, ctrl.Insert(5, Bytes(30, 'x').data(), 30));
  ASSERT_TRUE(read.done.Wait());
  EXPECT_EQ(5u, read.seq);
  EXPECT_EQ(30u, read.outLen);
  ASSERT_TRUE(Eventually([&] { return ev.threadEnds.load() == 1; }));
  EXPECT_EQ(1, ev.empties);
  ctrl.Stop();
}

TEST(XJitterCtrl, LockReleasesAWaitingReaderUntilUnlock) {
  ScriptedEvents ev;
  XJitterCtrl ctrl;
  ASSERT_EQ(1, ctrl.Initialize(20, 100, 100, &ev));
  OneRead read(ev, ctrl, 100, 0);
  ASSERT_EQ(1, ctrl.Start());
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ctrl.IsFilling() == 1; }));
  ctrl.Lock();
  ASSERT_TRUE(read.done.Wait());
  EXPECT_EQ(0u, read.seq);
  EXPECT_EQ(0, ev.empties);  // released, not emptied

  // Inserts go on while paused, reads and peeks do not.
  ASSERT_EQ(1, ctrl.Insert(8, "abc", 3));
  char buf[100];
  unsigned n = 0;
  EXPECT_EQ(0u, ctrl.GetPacket(buf, sizeof buf, &n, 0, 0));
  EXPECT_EQ(0, ctrl.SearchPacket(8, buf, sizeof buf, &n));
  ctrl.Unlock();
  EXPECT_EQ(1, ctrl.SearchPacket(8, buf, sizeof buf, &n));
  EXPECT_EQ(3u, n);
  EXPECT_EQ(8u, ctrl.GetPacket(buf, sizeof buf, &n, 0, 0));
  ASSERT_TRUE(Eventually([&] { return ev.threadEnds.load() == 1; }));
  ctrl.Stop();
}

TEST(XJitterCtrl, FullIsRaisedOnceUntilReset) {
  ScriptedEvents ev;
  XJitterCtrl ctrl;
  ASSERT_EQ(1, ctrl.Initialize(20, 100, 100, &ev));
  ASSERT_EQ(1, ctrl.Start());  // no Resume: this thread does all the work
  for (unsigned seq = 1; seq <= 19; ++seq)
    ASSERT_EQ(1, ctrl.Insert(seq, "p", 1));
  EXPECT_EQ(0, ev.fulls);
  EXPECT_EQ(0, ctrl.IsBufFull());
  ASSERT_EQ(1, ctrl.Insert(20, "p", 1));
  EXPECT_EQ(1, ev.fulls);
  EXPECT_EQ(1, ctrl.IsBufFull());
  ASSERT_EQ(1, ctrl.Insert(21, "p", 1));
  EXPECT_EQ(1, ev.fulls);
  ctrl.ResetBufFull();
  ASSERT_EQ(1, ctrl.Insert(22, "p", 1));
  EXPECT_EQ(2, ev.fulls);

  unsigned left = 0, perc = 0, lost = 9, inserted = 0, removed = 9;
  ctrl.GetInfo(&left, &perc, &lost, &inserted, &removed);
  EXPECT_EQ(22u, left);
  EXPECT_EQ(110u, perc);
  EXPECT_EQ(0u, lost);
  EXPECT_EQ(22u, inserted);
  EXPECT_EQ(0u, removed);
  EXPECT_EQ(1u, ctrl.GetNextSeq());

  // Flush without re-arming keeps the event quiet; Flush(1) re-arms it.
  ctrl.Flush(0);
  EXPECT_EQ(1, ctrl.IsBufEmpty());
  for (unsigned seq = 1; seq <= 20; ++seq)
    ASSERT_EQ(1, ctrl.Insert(seq, "p", 1));
  EXPECT_EQ(2, ev.fulls);
  ctrl.Flush(1);
  for (unsigned seq = 1; seq <= 20; ++seq)
    ASSERT_EQ(1, ctrl.Insert(seq, "p", 1));
  EXPECT_EQ(3, ev.fulls);
  ctrl.Stop();
  ctrl.GetInfo(&left, &perc, &lost, &inserted, &removed);
  EXPECT_EQ(0u, inserted);  // zeroed once stopped
  EXPECT_EQ(0u, ctrl.GetNextSeq());
}

TEST(XJitterCtrl, EmptyIsRaisedByTheLastReadAndByReadsThatFindNothing) {
  ScriptedEvents ev;
  XJitterCtrl ctrl;
  ASSERT_EQ(1, ctrl.Initialize(20, 100, 100, &ev));
  ASSERT_EQ(1, ctrl.Start());
  char buf[16];
  unsigned n = 77;
  EXPECT_EQ(0u, ctrl.GetPacket(buf, sizeof buf, &n, 0, 0));
  EXPECT_EQ(1, ev.empties);
  EXPECT_EQ(77u, n);  // untouched when nothing was read

  ASSERT_EQ(1, ctrl.Insert(4, "0123456789", 10));
  for (unsigned expected : {4u, 4u, 2u}) {
    EXPECT_EQ(4u, ctrl.GetPacket(buf, 4, &n, 0, 0));
    EXPECT_EQ(expected, n);
  }
  EXPECT_EQ(2, ev.empties);

  // Remove of the last packet raises it too; of one among several, not.
  ASSERT_EQ(1, ctrl.Insert(6, "a", 1));
  ASSERT_EQ(1, ctrl.Insert(7, "b", 1));
  EXPECT_NE(0, ctrl.Remove(6));
  EXPECT_EQ(2, ev.empties);
  EXPECT_EQ(0, ctrl.Remove(6));
  EXPECT_NE(0, ctrl.Remove(7));
  EXPECT_EQ(3, ev.empties);
  EXPECT_EQ(1, ctrl.IsBufEmpty());
  ctrl.Stop();
}

TEST(XJitterCtrl, StopReleasesAWaitingReaderAndJoinsTheThread) {
  ScriptedEvents ev;
  XJitterCtrl ctrl;
  ASSERT_EQ(1, ctrl.Initialize(20, 100, 100, &ev));
  std::atomic<int> zeroReads{0};
  ev.script = [&] {
    char buf[100];
    unsigned n = 0;
    if (ctrl.GetPacket(buf, sizeof buf, &n, 1, 1) == 0)
      ++zeroReads;
    return 1;  // keep reading: only Stop ends this loop
  };
  ASSERT_EQ(1, ctrl.Start());
  ASSERT_EQ(1, ctrl.Insert(1, "tiny", 4));  // held, but short of 100 bytes
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ctrl.IsFilling() == 1; }));
  ctrl.Stop();
  // Stop returned after the thread's last action.
  EXPECT_EQ(1, ev.threadEnds);
  EXPECT_GE(zeroReads, 1);
  EXPECT_EQ(0, ctrl.IsStarted());
  EXPECT_EQ(0u, ctrl.GetnPacketsLeft());
  EXPECT_EQ((std::vector<std::string>{"start", "stop", "end"}), ev.Events());

  // And it starts again.
  ev.script = nullptr;
  ASSERT_EQ(1, ctrl.Start());
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ev.threadEnds.load() == 2; }));
}

TEST(XJitterCtrl, ShuffledInsertsFromOneThreadAreAllReadInPieces) {
  constexpr unsigned kPackets = 400;
  ScriptedEvents ev;
  XJitterCtrl ctrl;
  ASSERT_EQ(1, ctrl.Initialize(32, 600, 600, &ev));

  std::vector<unsigned> order(kPackets);
  for (unsigned i = 0; i < kPackets; ++i)
    order[i] = i + 1;
  std::mt19937 rng(7);
  for (unsigned w = 0; w < kPackets; w += 16)
    std::shuffle(order.begin() + w, order.begin() + std::min(w + 16, kPackets), rng);
  auto sizeOf = [](unsigned seq) { return 100 + (seq * 37) % 400; };
  unsigned long total = 0;
  for (unsigned seq = 1; seq <= kPackets; ++seq)
    total += sizeOf(seq);

  std::map<unsigned, unsigned> bytesBySeq;  // read thread only, until it ends
  unsigned long readTotal = 0;
  bool contentOk = true;
  ev.script = [&] {
    char buf[128];
    unsigned n = 0;
    unsigned const seq = ctrl.GetPacket(buf, sizeof buf, &n, 1, 0);
    if (seq != 0) {
      bytesBySeq[seq] += n;
      readTotal += n;
      for (unsigned i = 0; i < n; ++i)
        contentOk = contentOk && buf[i] == static_cast<char>(seq);
    }
    return readTotal < total ? 1 : 0;
  };
  ASSERT_EQ(1, ctrl.Start());
  ASSERT_EQ(1, ctrl.Resume());
  std::thread inserter([&] {
    for (unsigned seq : order) {
      std::string const data(sizeOf(seq), static_cast<char>(seq));
      EXPECT_EQ(1, ctrl.Insert(seq, data.data(), static_cast<unsigned>(data.size())));
    }
  });
  inserter.join();
  ASSERT_TRUE(Eventually([&] { return ev.threadEnds.load() == 1; }));
  EXPECT_EQ(total, readTotal);
  EXPECT_TRUE(contentOk);
  ASSERT_EQ(kPackets, bytesBySeq.size());
  for (auto const &[seq, bytes] : bytesBySeq)
    ASSERT_EQ(sizeOf(seq), bytes) << "packet " << seq;
  ctrl.Stop();
}

}  // namespace
