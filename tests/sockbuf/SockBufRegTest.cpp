#include "sockbuf/SockBuf_reg.h"

#include "PktTestUtil.h"
#include "platform/Clock.h"
#include "thread/ThreadTestUtil.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using namespace pkttest;
using shared::platform::ManualClock;
using shared::platform::ScopedClockSource;

// An object that keeps every default of the stream interfaces.
class Defaults : public ISockBuffExt {
 public:
  virtual ~Defaults() = default;
  int OpenUrl() override { return 1; }
  int CloseUrl() override { return 1; }
  int IsOpened() override { return 1; }
};

int Save(SockBuf_reg& reg, Bytes const& b) { return reg.SaveData(const_cast<unsigned char*>(b.data()), Len(b)); }

// Reads one packet through GetData; empty when nothing was delivered.
Bytes Take(SockBuf_reg& reg, unsigned room = 1024) {
  Bytes out(room);
  unsigned len = room;
  if (!reg.GetData(out.data(), &len))
    return {};
  out.resize(len);
  return out;
}

std::uint32_t SeqOf(Bytes const& b) { return b.size() >= 8 ? Get32(b.data() + 4) : 0; }

// Joins on every path, so a failed assertion cannot leave a thread running.
class Joiner {
 public:
  explicit Joiner(std::thread& t) : t_(t) {}
  ~Joiner() {
    if (t_.joinable())
      t_.join();
  }

 private:
  std::thread& t_;
};

TEST(SockBuffInterfaces, DefaultsRefuseTransfersAndLeaveOutArgumentsAlone) {
  Defaults d;
  unsigned char buf[4] = {};
  unsigned n = 77;
  int flag = 5;
  EXPECT_EQ(STG_E_INVALIDPOINTER, d.Read(buf, 4, &n));
  EXPECT_EQ(STG_E_INVALIDPOINTER, d.Write(buf, 4, &n));
  EXPECT_EQ(STG_E_INVALIDPOINTER, d.ReadExt(buf, 4, &n, &flag));
  EXPECT_EQ(STG_E_INVALIDPOINTER, d.WriteExt(buf, 4, &n, 0));
  EXPECT_EQ(77u, n);
  EXPECT_EQ(5, flag);
  EXPECT_EQ(0u, d.GetnPktRcv());
  EXPECT_EQ(0u, d.GetnPktLost());
  // The result codes keep their storage values at 32 bits.
  EXPECT_EQ(static_cast<std::uint32_t>(STG_E_INCOMPLETE), 0x80030201u);
  EXPECT_EQ(static_cast<std::uint32_t>(STG_S_BLOCK), 0x00030201u);
}

TEST(SockBufReg, OverflowDropsEverythingHeldAndGrowableRegistersGrowExactly) {
  SockBuf_reg fixed(40, 0);
  ASSERT_TRUE(fixed.IsOk());
  fixed.SetBlock(0);
  EXPECT_EQ(0, Save(fixed, Pkt(1, 1)));  // not opened yet
  ASSERT_EQ(1, fixed.OpenUrl());
  EXPECT_EQ(1, Save(fixed, Pkt(1, 1)));
  EXPECT_EQ(1, Save(fixed, Pkt(1, 2)));
  EXPECT_EQ(32u, fixed.GetBytesUsed());
  EXPECT_EQ(0, Save(fixed, Pkt(1, 3)));  // 48 > 40
  EXPECT_EQ(0u, fixed.GetBytesUsed());
  EXPECT_EQ(1, Save(fixed, Pkt(1, 4)));
  EXPECT_EQ(4u, SeqOf(Take(fixed)));
  EXPECT_TRUE(Take(fixed).empty());

  SockBuf_reg growing(20, 1);
  growing.SetBlock(0);
  growing.OpenUrl();
  EXPECT_EQ(1, Save(growing, Pkt(1, 1)));
  EXPECT_EQ(1, Save(growing, Pkt(1, 2, 10)));
  EXPECT_EQ(38u, growing.GetMaxBufLen());
  EXPECT_EQ(0u, growing.GetBytesLeft());
  EXPECT_EQ(1u, SeqOf(Take(growing)));
  EXPECT_EQ(2u, SeqOf(Take(growing)));

  SockBuf_reg none(0, 1);
  none.OpenUrl();
  EXPECT_EQ(0, Save(none, Pkt(1, 1)));
}

// Packets saved as one run keep the one-by-one rules: the packet that does
// not fit drops what is held (and itself), the rest of the run goes on; a
// packet cut short at the end of the bytes is not stored.
TEST(SockBufReg, RunOfPacketsFollowsTheSameOverflowRule) {
  SockBuf_reg reg(40, 0);
  reg.SetBlock(0);
  ASSERT_EQ(1, reg.OpenUrl());
  Bytes run;
  for (std::uint32_t seq = 1; seq <= 5; ++seq) {
    Bytes p = Pkt(1, seq);
    run.insert(run.end(), p.begin(), p.end());
  }
  Bytes const cut = Pkt(1, 6, 10);
  run.insert(run.end(), cut.begin(), cut.end() - 1);
  // 1 and 2 fit, 3 overflows, 4 and 5 fit again; 6 lacks a byte.
  EXPECT_EQ(4u, reg.SavePackets(run.data(), Len(run)));
  EXPECT_EQ(4u, SeqOf(Take(reg)));
  EXPECT_EQ(5u, SeqOf(Take(reg)));
  EXPECT_TRUE(Take(reg).empty());
  EXPECT_EQ(0u, reg.SavePackets(nullptr, 16));
  reg.CloseUrl();
  EXPECT_EQ(0u, reg.SavePackets(run.data(), Len(run)));
}

TEST(SockBufReg, FilterDropsForeignPacketsAndLossCountsGapsOnly) {
  SockBuf_reg reg(1024, 0);
  reg.SetBlock(0);
  reg.OpenUrl();
  reg.SetMediaId(7);
  for (auto const& p : {Pkt(7, 5), Pkt(9, 6), Pkt(7, 9), Pkt(9, 10), Pkt(7, 7)})
    ASSERT_EQ(1, Save(reg, p));
  EXPECT_EQ(5u, SeqOf(Take(reg)));
  EXPECT_EQ(9u, SeqOf(Take(reg)));  // 6, 7, 8 missing
  EXPECT_EQ(7u, SeqOf(Take(reg)));  // back in time: no loss, 7 is the last
  EXPECT_TRUE(Take(reg).empty());
  EXPECT_EQ(3u, reg.GetnPktLost());
  EXPECT_EQ(3u, reg.GetnPktRcv());

  Save(reg, Pkt(7, 9));
  EXPECT_EQ(9u, SeqOf(Take(reg)));  // 8 missing
  EXPECT_EQ(4u, reg.GetnPktLost());
  reg.SetMediaId(7);  // a new count of gaps
  Save(reg, Pkt(7, 50));
  Take(reg);
  EXPECT_EQ(4u, reg.GetnPktLost());

  SockBuf_reg all(1024, 0);  // no filter: nothing dropped, no loss counted
  all.SetBlock(0);
  all.OpenUrl();
  Save(all, Pkt(3, 1));
  Save(all, Pkt(4, 9));
  EXPECT_EQ(1u, SeqOf(Take(all)));
  EXPECT_EQ(9u, SeqOf(Take(all)));
  EXPECT_EQ(0u, all.GetnPktLost());
}

TEST(SockBufReg, ReaderTooSmallLosesThatPacketOnly) {
  SockBuf_reg reg(1024, 0);
  reg.OpenUrl();
  Save(reg, Pkt(1, 1, 20));  // 32 bytes
  Save(reg, Pkt(1, 2, 20));
  EXPECT_TRUE(Take(reg, 31).empty());
  Bytes const second = Take(reg, 32);
  EXPECT_EQ(Pkt(1, 2, 20), second);
  EXPECT_EQ(1u, reg.GetnPktRcv());
  EXPECT_EQ(0u, reg.GetBytesUsed());
}

TEST(SockBufReg, ReadResultCodesAndForwardingToThePacketWriter) {
  FakeOwner owner;
  PacketSink sink;
  SockBuf_reg reg(1024, 0);
  reg.SetBlock(0);
  unsigned char buf[64];
  unsigned n = 0;
  EXPECT_EQ(STG_E_INVALIDPOINTER, reg.Read(buf, 64, &n));  // no owner
  reg.SetSockBuffs(&owner);
  EXPECT_EQ(STG_E_ACCESSDENIED, reg.Read(buf, 64, &n));
  ASSERT_EQ(1, reg.OpenUrl());
  EXPECT_EQ(1, owner.opens.load());
  EXPECT_EQ(1, reg.OpenUrl());  // already open: the owner is not asked again
  EXPECT_EQ(1, owner.opens.load());
  EXPECT_EQ(STG_S_BLOCK, reg.Read(buf, 64, &n));
  EXPECT_EQ(1, reg.ShouldBlock());

  Save(reg, Pkt(1, 1));
  Save(reg, Pkt(1, 2, 40));
  int flag = 9;
  EXPECT_EQ(S_OK, reg.ReadExt(buf, 64, &n, &flag));
  EXPECT_EQ(0, flag);
  EXPECT_EQ(16u, n);
  EXPECT_TRUE(sink.Packets().empty());
  owner.writer = &sink;
  EXPECT_EQ(STG_E_INVALIDPOINTER, reg.Read(buf, 40, &n));  // 52 bytes: dropped
  Save(reg, Pkt(1, 3));
  EXPECT_EQ(S_OK, reg.Read(buf, 64, nullptr));
  ASSERT_EQ(1u, sink.Packets().size());
  EXPECT_EQ(Pkt(1, 3), sink.Packets()[0]);
  EXPECT_EQ(0, sink.Flags()[0]);

  owner.sockError = 1;
  EXPECT_EQ(STG_E_INCOMPLETE, reg.Read(buf, 64, &n));
  owner.sockError = 0;
  EXPECT_EQ(1, reg.CloseUrl());
  EXPECT_EQ(1, owner.verifies.load());
  EXPECT_EQ(1, reg.CloseUrl());  // closing twice asks nothing more
  EXPECT_EQ(1, owner.verifies.load());
  owner.openResult = 0;
  EXPECT_EQ(0, reg.OpenUrl());
  EXPECT_EQ(0, reg.IsOpened());
}

TEST(SockBufReg, AbortRefusesUntilResetWhichMakesTheRegisterNew) {
  SockBuf_reg reg(1024, 0);
  reg.OpenUrl();
  reg.SetMediaId(4);
  Save(reg, Pkt(4, 1));
  Save(reg, Pkt(4, 3));
  Take(reg);
  Take(reg);
  reg.Abort();
  EXPECT_EQ(1, reg.CanAbort());
  EXPECT_EQ(0, reg.OpenUrl());
  EXPECT_EQ(0, Save(reg, Pkt(4, 4)));
  reg.reset();
  EXPECT_EQ(0, reg.CanAbort());
  EXPECT_EQ(0u, reg.GetMediaId());
  EXPECT_EQ(0u, reg.GetnPktLost());
  EXPECT_EQ(0u, reg.GetnPktRcv());
  EXPECT_EQ(0, reg.IsOpened());
  EXPECT_EQ(1, reg.OpenUrl());
  EXPECT_EQ(1, Save(reg, Pkt(9, 1)));
  EXPECT_EQ(1u, SeqOf(Take(reg)));
}

TEST(SockBufReg, IdleFlushAndBitRatesFollowTheClock) {
  ManualClock clock(1000000, 5000, false);
  ScopedClockSource installed(clock);
  SockBuf_reg reg(300000, 0);
  reg.OpenUrl();
  reg.SetOptions(0, 0, 10, 0, 0);

  Bytes const big = Pkt(1, 1, 63988);  // 64000 bytes
  ASSERT_EQ(1, Save(reg, big));
  ASSERT_EQ(1, Save(reg, big));
  EXPECT_EQ(0u, reg.GetSaveBitrate());  // the first second is not over
  clock.Advance(1000);
  ASSERT_EQ(1, Save(reg, Pkt(1, 2)));
  EXPECT_EQ(1000u, reg.GetSaveBitrate());  // 128000 bytes * 8 / 1024
  EXPECT_EQ(128016u, reg.GetBytesUsed());  // 10 s idle not reached

  Bytes out(70000);
  unsigned len = 70000;
  ASSERT_EQ(1, reg.GetData(out.data(), &len));
  clock.Advance(1000);
  len = 70000;
  ASSERT_EQ(1, reg.GetData(out.data(), &len));
  EXPECT_EQ(500u, reg.GetReadBitrate());
  clock.Advance(2000);  // more than a whole second without traffic
  EXPECT_EQ(0u, reg.GetReadBitrate());
  EXPECT_EQ(0u, reg.GetSaveBitrate());

  reg.SetTSFstPkt(1234);
  unsigned ts = 0, tick = 0;
  reg.GetTSFstPkt(&ts, &tick);
  EXPECT_EQ(1234u, ts);
  EXPECT_EQ(clock.TickCount(), tick);

  clock.Advance(11000);  // 13 s after the last save
  ASSERT_EQ(1, Save(reg, Pkt(1, 3)));
  EXPECT_EQ(16u, reg.GetBytesUsed());  // the stale packet went first
  EXPECT_EQ(3u, SeqOf(Take(reg)));
  reg.GetTSFstPkt(&ts, nullptr);
  EXPECT_EQ(0u, ts);  // flushed with the data
}

TEST(SockBufReg, BlockedReaderIsWokenByDataCloseAndAbort) {
  FakeOwner owner;
  SockBuf_reg reg(1024, 0);
  reg.SetSockBuffs(&owner);
  reg.OpenUrl();

  HRESULT result = 1;
  unsigned got = 0;
  unsigned char buf[64];
  auto read = [&] { result = reg.Read(buf, sizeof buf, &got); };

  std::thread reader(read);
  {
    Joiner joiner(reader);
    ASSERT_TRUE(testutil::Eventually([&] { return reg.IsWaitingForData() == 1; }));
    Save(reg, Pkt(1, 8));
  }
  EXPECT_EQ(S_OK, result);
  EXPECT_EQ(8u, Get32(buf + 4));

  std::thread closer(read);
  {
    Joiner joiner(closer);
    ASSERT_TRUE(testutil::Eventually([&] { return reg.IsWaitingForData() == 1; }));
    reg.CloseUrl();
  }
  EXPECT_EQ(STG_E_ACCESSDENIED, result);

  reg.OpenUrl();
  std::thread aborted(read);
  {
    Joiner joiner(aborted);
    ASSERT_TRUE(testutil::Eventually([&] { return reg.IsWaitingForData() == 1; }));
    reg.Abort();
    // Abort returns only once the reader has left GetData.
    EXPECT_EQ(0, reg.IsWaitingForData());
  }
  EXPECT_EQ(STG_E_INVALIDPOINTER, result);
}

}  // namespace
