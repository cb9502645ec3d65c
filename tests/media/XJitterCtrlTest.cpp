#include "media/XJitterCtrl.h"

#include "thread/ThreadTestUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using testutil::Eventually;

// Counts every callback, logs them in order, and runs the test's script as
// the read callback (set before Resume).
class ScriptedEvents : public IJitterBufferEvents {
public:
  int OnJitterStart() override {
    Count(starts, "start");
    return startResult;
  }
  int OnJitterRead() override {
    ++reads;
    return script ? script() : 0;
  }
  void OnJitterBufFull() override {
    Count(fulls, "full");
    if (onFull)
      onFull();
  }
  void OnJitterBufEmpty() override { Count(empties, "empty"); }
  void OnJitterStop() override { Count(stops, "stop"); }
  void OnJitterThreadEnd() override {
    Count(threadEnds, "end");
    if (onThreadEnd)
      onThreadEnd();
  }

  std::vector<std::string> Events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return log_;
  }

  std::atomic<int> starts{0}, reads{0}, fulls{0}, empties{0}, stops{0}, threadEnds{0};
  int startResult = 1;
  std::function<int()> script;
  std::function<void()> onFull;
  std::function<void()> onThreadEnd;

private:
  void Count(std::atomic<int> &counter, char const *what) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++counter;
    log_.emplace_back(what);
  }
  std::mutex mutex_;
  std::vector<std::string> log_;
};

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
  testutil::Latch done;
  unsigned seq = 99;  // written before done opens
  unsigned outLen = 0;
};

std::string Bytes(unsigned n) { return std::string(n, 'b'); }

// The events object outlives the controller, whose destructor stops it.
class XJitterCtrlTest : public ::testing::Test {
protected:
  // Initialised (capacity, maximum packet size) and started, not resumed.
  bool Started(unsigned capacity, unsigned size) {
    return ctrl.Initialize(capacity, size, size, &ev) == 1 && ctrl.Start() == 1;
  }
  ScriptedEvents ev;
  XJitterCtrl ctrl;
};

TEST_F(XJitterCtrlTest, InitializeChecksAndARefusedOrUnresumedStart) {
  EXPECT_EQ(0, ctrl.Start());  // not initialised
  EXPECT_EQ(0, ctrl.Initialize(20, 500, 400, &ev));
  EXPECT_EQ(0, ctrl.Initialize(20, 400, 400, nullptr));
  EXPECT_EQ(1, ctrl.Initialize(20, 400, 400, &ev));

  ev.startResult = 0;
  EXPECT_EQ(0, ctrl.Start());
  EXPECT_EQ(0, ctrl.Resume());
  EXPECT_EQ(0, ctrl.Insert(1, "x", 1));
  ctrl.Stop();  // nothing to stop: no event

  // Started but never resumed: Stop releases the thread without running it.
  ev.startResult = 1;
  ASSERT_EQ(1, ctrl.Start());
  EXPECT_EQ(0, ctrl.Initialize(10, 100, 100, &ev));  // refused while started
  EXPECT_EQ(1, ctrl.Insert(1, "x", 1));
  ctrl.Stop();
  EXPECT_EQ(0, ctrl.Insert(2, "x", 1));
  EXPECT_EQ(0, ev.reads);
  EXPECT_EQ((std::vector<std::string>{"start", "start", "stop"}), ev.Events());
}

TEST_F(XJitterCtrlTest, GetPacketWaitsForTheFillTargetAndTheThreadForTheDrain) {
  ASSERT_TRUE(Started(20, 1000));
  OneRead read(ev, ctrl, 1000, 1);
  ASSERT_EQ(1, ctrl.Insert(1, Bytes(400).data(), 400));
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ctrl.IsFilling() == 1; }));
  ASSERT_EQ(1, ctrl.Insert(2, Bytes(400).data(), 400));
  EXPECT_EQ(1, ctrl.IsFilling());  // 800 bytes are not yet 1000
  EXPECT_FALSE(read.done.IsOpen());
  ASSERT_EQ(1, ctrl.Insert(3, Bytes(400).data(), 400));
  ASSERT_TRUE(read.done.Wait());
  EXPECT_EQ(1u, read.seq);
  EXPECT_EQ(400u, read.outLen);

  // The read loop has ended; the thread ends once the client drains the rest.
  char buf[1000];
  unsigned n = 0;
  EXPECT_EQ(2u, ctrl.GetPacket(buf, sizeof buf, &n, 0, 0));
  EXPECT_EQ(0, ev.threadEnds);
  EXPECT_EQ(3u, ctrl.GetPacket(buf, sizeof buf, &n, 0, 0));
  ASSERT_TRUE(Eventually([&] { return ev.threadEnds.load() == 1; }));
  EXPECT_EQ(1, ev.empties);
  EXPECT_EQ(1, ctrl.IsStarted());  // the client ended reading, not the controller
  ctrl.Stop();
  EXPECT_EQ("stop", ev.Events().back());
}

TEST_F(XJitterCtrlTest, LockReleasesAWaitingReaderUntilUnlock) {
  ASSERT_TRUE(Started(20, 100));
  OneRead read(ev, ctrl, 100, 0);
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ctrl.IsFilling() == 1; }));
  ctrl.Lock();
  ASSERT_TRUE(read.done.Wait());
  EXPECT_EQ(0u, read.seq);
  EXPECT_EQ(0, ev.empties);  // released, not emptied

  // Inserts go on while paused; reads and peeks do not.
  ASSERT_EQ(1, ctrl.Insert(8, "abc", 3));
  char buf[100];
  unsigned n = 0;
  EXPECT_EQ(0u, ctrl.GetPacket(buf, sizeof buf, &n, 0, 0));
  EXPECT_EQ(0, ctrl.SearchPacket(8, buf, sizeof buf, &n));
  ctrl.Unlock();
  EXPECT_EQ(1, ctrl.SearchPacket(8, buf, sizeof buf, &n));
  EXPECT_EQ(8u, ctrl.GetPacket(buf, sizeof buf, &n, 0, 0));
  EXPECT_EQ(3u, n);
}

TEST_F(XJitterCtrlTest, FullIsRaisedOnceUntilReset) {
  ASSERT_TRUE(Started(20, 100));  // not resumed: this thread does all the work
  auto insertRange = [&](unsigned from, unsigned to) {
    for (unsigned seq = from; seq <= to; ++seq)
      ASSERT_EQ(1, ctrl.Insert(seq, "p", 1));
  };
  insertRange(1, 19);
  EXPECT_EQ(0, ev.fulls);
  insertRange(20, 21);
  EXPECT_EQ(1, ev.fulls);
  EXPECT_EQ(1, ctrl.IsBufFull());
  ctrl.ResetBufFull();
  insertRange(22, 22);
  EXPECT_EQ(2, ev.fulls);

  unsigned perc = 0;
  ctrl.GetInfo(nullptr, &perc, nullptr, nullptr, nullptr);
  EXPECT_EQ(110u, perc);
  EXPECT_EQ(1u, ctrl.GetNextSeq());

  ctrl.Flush(0);  // does not re-arm the event
  insertRange(1, 20);
  EXPECT_EQ(2, ev.fulls);
  ctrl.Flush(1);
  insertRange(1, 20);
  EXPECT_EQ(3, ev.fulls);
}

TEST_F(XJitterCtrlTest, EmptyIsRaisedByTheLastReadAndByReadsThatFindNothing) {
  ASSERT_TRUE(Started(20, 100));
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

  // Remove raises it only for the last packet.
  ASSERT_EQ(1, ctrl.Insert(6, "a", 1));
  ASSERT_EQ(1, ctrl.Insert(7, "b", 1));
  EXPECT_NE(0, ctrl.Remove(6));
  EXPECT_EQ(2, ev.empties);
  EXPECT_NE(0, ctrl.Remove(7));
  EXPECT_EQ(3, ev.empties);
}

TEST_F(XJitterCtrlTest, StopReleasesAWaitingReaderAndJoinsTheThread) {
  ASSERT_TRUE(Started(20, 100));
  ev.script = [&] {
    char buf[100];
    unsigned n = 0;
    ctrl.GetPacket(buf, sizeof buf, &n, 1, 1);
    return 1;  // keep reading: only Stop ends this loop
  };
  ASSERT_EQ(1, ctrl.Insert(1, "tiny", 4));  // held, but short of 100 bytes
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ctrl.IsFilling() == 1; }));
  ctrl.Stop();
  EXPECT_EQ((std::vector<std::string>{"start", "stop", "end"}), ev.Events());
  EXPECT_EQ(0u, ctrl.GetnPacketsLeft());

  ev.script = nullptr;  // and it starts again
  ASSERT_EQ(1, ctrl.Start());
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ev.threadEnds.load() == 2; }));
}

TEST_F(XJitterCtrlTest, AReplacedDuplicateDoesNotEndTheWaitForAnyByte) {
  ASSERT_TRUE(Started(20, 100));
  ASSERT_EQ(1, ctrl.Insert(5, Bytes(10).data(), 10));
  ASSERT_EQ(1, ctrl.Insert(5, Bytes(10).data(), 10));  // replaced: the counter deducts 5, not 10
  char buf[100];
  unsigned n = 0;
  ASSERT_EQ(5u, ctrl.GetPacket(buf, sizeof buf, &n, 0, 0));
  ASSERT_EQ(0u, ctrl.GetnPacketsLeft());
  // Nothing is held, so a read for any byte waits for the next insert.
  OneRead read(ev, ctrl, 100, 0);
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ctrl.IsFilling() == 1 || read.done.IsOpen(); }));
  EXPECT_EQ(1, ctrl.IsFilling());
  ASSERT_EQ(1, ctrl.Insert(6, "x", 1));
  ASSERT_TRUE(read.done.Wait());
  EXPECT_EQ(6u, read.seq);
}

TEST_F(XJitterCtrlTest, TheFullCallbackMayReadWhileAReaderWakes) {
  ASSERT_TRUE(Started(2, 100));
  OneRead read(ev, ctrl, 2, 1);  // waits for two bytes
  unsigned readInFull = 0;
  ev.onFull = [&] {
    char buf[4];
    unsigned n = 0;
    // Waits for the woken reader, which needs the main lock.
    readInFull = ctrl.GetPacket(buf, sizeof buf, &n, 0, 0);
  };
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ctrl.IsFilling() == 1; }));
  ASSERT_EQ(1, ctrl.Insert(1, "a", 1));
  ASSERT_EQ(1, ctrl.Insert(2, "b", 1));  // meets the target and fills the buffer
  ASSERT_TRUE(read.done.Wait());
  EXPECT_EQ(1u, read.seq);
  EXPECT_EQ(2u, readInFull);
}

// Stop or destruction from the controller's own callbacks neither deadlocks
// nor joins the thread it runs on.
TEST_F(XJitterCtrlTest, StopFromTheFullCallbackWhileTheThreadReads) {
  ASSERT_TRUE(Started(1, 100));
  ev.script = [&] {
    char buf[100];
    unsigned n = 0;
    ctrl.GetPacket(buf, sizeof buf, &n, 1, 1);
    return 1;
  };
  ev.onFull = [&] { ctrl.Stop(); };
  ASSERT_EQ(1, ctrl.Resume());
  ASSERT_TRUE(Eventually([&] { return ctrl.IsFilling() == 1; }));
  ASSERT_EQ(1, ctrl.Insert(1, "a", 1));
  EXPECT_EQ(0, ctrl.IsStarted());
  EXPECT_EQ((std::vector<std::string>{"start", "full", "stop", "end"}), ev.Events());
}

// What a let-go read thread may still be returning through when a test
// ends: kept until the process exits.
struct Leftovers {
  ScriptedEvents ev;
  testutil::Latch deleted;
  XJitterCtrl *ctrl = new XJitterCtrl;
};
Leftovers &NewLeftovers() {
  static std::list<Leftovers> all;
  return all.emplace_back();
}

TEST(XJitterCtrlCallbacks, StopAndDestroyFromTheReadThread) {
  Leftovers &a = NewLeftovers();
  ASSERT_EQ(1, a.ctrl->Initialize(4, 100, 100, &a.ev));
  ASSERT_EQ(1, a.ctrl->Start());
  a.ev.script = [&a] {
    a.ctrl->Stop();
    a.ctrl->Stop();  // once is enough
    EXPECT_EQ(0, a.ctrl->IsStarted());
    delete a.ctrl;
    a.deleted.Open();
    return 1;
  };
  ASSERT_EQ(1, a.ctrl->Resume());
  ASSERT_TRUE(a.deleted.Wait());
  EXPECT_EQ((std::vector<std::string>{"start", "stop", "end"}), a.ev.Events());

  // Destroyed from the thread's last notice, after the client ended reading.
  Leftovers &b = NewLeftovers();
  ASSERT_EQ(1, b.ctrl->Initialize(4, 100, 100, &b.ev));
  ASSERT_EQ(1, b.ctrl->Start());
  b.ev.onThreadEnd = [&b] {
    delete b.ctrl;
    b.deleted.Open();
  };
  ASSERT_EQ(1, b.ctrl->Resume());  // no script: the loop ends at once
  ASSERT_TRUE(b.deleted.Wait());
  EXPECT_EQ((std::vector<std::string>{"start", "end", "stop"}), b.ev.Events());
}

TEST_F(XJitterCtrlTest, ShuffledInsertsFromOneThreadAreAllReadInPieces) {
  constexpr unsigned kPackets = 400;
  ASSERT_TRUE(Started(32, 600));
  auto sizeOf = [](unsigned seq) { return 100 + (seq * 37) % 400; };
  std::vector<unsigned> order(kPackets);
  unsigned long total = 0;
  for (unsigned i = 0; i < kPackets; ++i)
    total += sizeOf(order[i] = i + 1);
  std::mt19937 rng(7);
  for (unsigned w = 0; w < kPackets; w += 16)
    std::shuffle(order.begin() + w, order.begin() + w + 16, rng);

  std::map<unsigned, unsigned> bytesBySeq;  // read thread only, until it ends
  unsigned long readTotal = 0;
  ev.script = [&] {
    char buf[128];
    unsigned n = 0;
    unsigned const seq = ctrl.GetPacket(buf, sizeof buf, &n, 1, 0);
    if (seq != 0 && static_cast<unsigned>(std::count(buf, buf + n, static_cast<char>(seq))) == n) {
      bytesBySeq[seq] += n;
      readTotal += n;
    }
    return readTotal < total ? 1 : 0;
  };
  ASSERT_EQ(1, ctrl.Resume());
  std::thread inserter([&] {
    for (unsigned seq : order)
      EXPECT_EQ(1, ctrl.Insert(seq, std::string(sizeOf(seq), static_cast<char>(seq)).data(), sizeOf(seq)));
  });
  inserter.join();
  ASSERT_TRUE(Eventually([&] { return ev.threadEnds.load() == 1; }));
  ASSERT_EQ(kPackets, bytesBySeq.size());
  for (auto const &[seq, bytes] : bytesBySeq)
    ASSERT_EQ(sizeOf(seq), bytes) << "packet " << seq;
}

}  // namespace
