// Pacing of the multi-writer: the bit-rate table and CanSendPkt driven with
// explicit times.
#include "sockbuf/MWPacer.h"
#include "sockbuf/SockMWBuffs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

// A sink that takes everything; pacing tests never send.
class NullSink final : public ISockBuff {
public:
  int OpenUrl() override { return 1; }
  int CloseUrl() override { return 1; }
  int IsOpened() override { return 1; }
};

struct Pacing {
  unsigned window = 0, slot = 0, perMs = 0;
  unsigned long slotMs = 0;
};

Pacing Read(SockMWBuffs &mw) {
  Pacing p;
  mw.GetPacing(&p.window, &p.slot, &p.perMs, &p.slotMs);
  return p;
}

TEST(SockMWBuffsRate, AudioShareTableAndWindow) {
  NullSink sink;
  SockMWBuffs mw(512, 10, 3000, 0, 1, 0, nullptr, &sink, 0, 1000, 0);
  ASSERT_EQ(1, mw.IsOk());
  EXPECT_EQ(427u, mw.GetBitrate());  // 512 - 64 * 4 / 3
  Pacing p = Read(mw);
  EXPECT_EQ(54656u, p.window);
  EXPECT_EQ(5465u, p.slot);
  EXPECT_EQ(55u, p.perMs);
  EXPECT_EQ(100ul, p.slotMs);

  EXPECT_EQ(0, mw.SetBitrate(1000));  // not in the table
  EXPECT_EQ(427u, mw.GetBitrate());
  EXPECT_EQ(1, mw.SetBitrate(16384));
  EXPECT_EQ(16384u - 380u * 4 / 3, mw.GetBitrate());
  EXPECT_EQ(1, mw.SetBitrate(33));
  EXPECT_EQ(23u, mw.GetBitrate());

  // Fewer milliseconds than slots (or none) leave the window as it was.
  ASSERT_EQ(1, mw.SetBitrate(512));
  EXPECT_EQ(0, mw.SetBitrateWindow(9));
  EXPECT_EQ(0, mw.SetBitrateWindow(0));
  EXPECT_EQ(100ul, Read(mw).slotMs);
  EXPECT_EQ(1, mw.SetBitrateWindow(2000));
  p = Read(mw);
  EXPECT_EQ(200ul, p.slotMs);
  EXPECT_EQ(2u * 54656u, p.window);
}

TEST(SockMWBuffsRate, NoSubtractionWhenAudioHasItsOwnBufferOrRateIsUnset) {
  NullSink sink;
  SockMWBuffs own(512, 10, 3000, 0, 1, 0, nullptr, &sink, 0, 1000, SockMWBuffs::kBufAudioOwn);
  ASSERT_EQ(1, own.IsOk());
  EXPECT_EQ(512u, own.GetBitrate());
  EXPECT_EQ(1, own.SetBitrate(1000));

  SockMWBuffs unpaced(0, 10, 0, 0, 0, 0, nullptr, &sink, 0, 1000, 0);
  EXPECT_EQ(1, unpaced.IsOk());
  EXPECT_EQ(0, unpaced.SetBitrate(512));
  EXPECT_EQ(0, unpaced.SetBitrateWindow(1000));
}

TEST(SockMWBuffsRate, ConstructionRules) {
  NullSink sink;
  // A rate is refused by the table: not usable.
  EXPECT_EQ(0, SockMWBuffs(1000, 10, 3000, 0, 1, 0, nullptr, &sink, 0, 1000, 0).IsOk());
  // A paced stream needs a buffer and slots.
  EXPECT_EQ(0, SockMWBuffs(512, 10, 0, 0, 0, 0, nullptr, &sink, 0, 1000, 0).IsOk());
  EXPECT_EQ(0, SockMWBuffs(512, 0, 3000, 0, 0, 0, nullptr, &sink, 0, 1000, 0).IsOk());
  // Unpaced and buffered needs a buffer; unpaced and direct does not.
  EXPECT_EQ(0, SockMWBuffs(0, 0, 0, 0, 0, SockMWBuffs::kFlagBuffered, nullptr, &sink, 0, 0, 0).IsOk());
  EXPECT_EQ(1, SockMWBuffs(0, 0, 0, 0, 0, 0, nullptr, &sink, 0, 0, 0).IsOk());
  // The window is raised to the slot count (0 included).
  SockMWBuffs small(512, 10, 3000, 0, 0, 0, nullptr, &sink, 0, 4, 0);
  EXPECT_EQ(1ul, Read(small).slotMs);
  SockMWBuffs none(512, 10, 3000, 0, 0, 0, nullptr, &sink, 0, 0, 0);
  EXPECT_EQ(1ul, Read(none).slotMs);
  EXPECT_EQ(1000ul, MWPacer(0, 0, false).WindowMs());
}

// 427 kbit/s, a 1000 ms window of 10 slots: 54,656 bytes, 5,465 per slot.
MWPacer Pacer427(bool perMs) {
  MWPacer p(10, 1000, perMs);
  p.SetRate(427);
  return p;
}

TEST(SockMWBuffsCanSendPkt, UnpacedAndEmptyPackets) {
  MWPacer p(10, 1000, false);
  unsigned wait = 99;
  EXPECT_EQ(1, p.CanSendPkt(1400, 5, &wait));
  EXPECT_EQ(0, p.CanSendPkt(1400, 0, &wait));
  p.SetRate(427);
  EXPECT_EQ(0, p.CanSendPkt(0, 5000, &wait));
  EXPECT_EQ(0u, wait);
}

TEST(SockMWBuffsCanSendPkt, RestartAfterAWindowOrWhenTimeGoesBack) {
  MWPacer p = Pacer427(false);
  ASSERT_EQ(1, p.CanSendPkt(1400, 10000, nullptr));
  p.Count(54000, 10000);
  unsigned wait = 0;
  EXPECT_EQ(0, p.CanSendPkt(1400, 10500, &wait));
  // 1.5 s after the window's start: a fresh window, the packet goes at once.
  EXPECT_EQ(1, p.CanSendPkt(1400, 11500, &wait));
  EXPECT_EQ(0u, p.Total());
  EXPECT_EQ(11500ul, p.WindowStart());
  EXPECT_FALSE(p.SlotLimit());

  p.Count(54000, 11500);
  EXPECT_EQ(1, p.CanSendPkt(1400, 9000, &wait));  // the tick count went back
  EXPECT_EQ(0u, p.Total());
}

TEST(SockMWBuffsCanSendPkt, FullWindowAdvisesWaitUntilTheOldSlotsExpire) {
  MWPacer p = Pacer427(false);
  ASSERT_EQ(1, p.CanSendPkt(1, 5000, nullptr));
  p.Count(54000, 5000);  // all in slot 0
  unsigned wait = 0;
  // Slot 3: 54,000 + 1,400 > 54,656. Slot 0 leaves the ring at 6000.
  EXPECT_EQ(0, p.CanSendPkt(1400, 5300, &wait));
  EXPECT_EQ(700u, wait);
  EXPECT_EQ(0, p.CanSendPkt(1400, 5342, &wait));
  EXPECT_EQ(658u, wait);
  // Slot 0 entered again: its bytes are a lap old and cleared.
  EXPECT_EQ(1, p.CanSendPkt(1400, 6000, &wait));
  EXPECT_EQ(0u, p.Total());
}

TEST(SockMWBuffsCanSendPkt, SlotLimitWaitsOneSlot) {
  MWPacer p = Pacer427(false);
  ASSERT_EQ(1, p.CanSendPkt(1400, 2000, nullptr));
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(1, p.CanSendPkt(1400, 2010, nullptr)) << i;
    p.Count(1400, 2010);
  }
  // 5,600 bytes in slot 0 reach its 5,465-byte budget; the window has room.
  unsigned wait = 0;
  EXPECT_TRUE(p.SlotLimit());
  EXPECT_EQ(0, p.CanSendPkt(1400, 2020, &wait));
  EXPECT_EQ(100u, wait);
  EXPECT_EQ(1, p.CanSendPkt(1400, 2100, &wait));
  // A packet larger than a whole slot still goes into an empty slot.
  EXPECT_EQ(1, p.CanSendPkt(6000, 2100, &wait));
}

TEST(SockMWBuffsCanSendPkt, PerMillisecondPacing) {
  MWPacer p = Pacer427(true);
  ASSERT_EQ(1, p.CanSendPkt(1000, 1000, nullptr));
  p.Count(1000, 1000);
  unsigned wait = 0;
  // 1000 bytes need 1000 / 55 = 18 ms at 55 bytes per ms.
  EXPECT_EQ(0, p.CanSendPkt(1000, 1010, &wait));
  EXPECT_EQ(8u, wait);
  EXPECT_EQ(1, p.CanSendPkt(1000, 1019, &wait));
  // It was due at 1018.3 ms: the next one is measured from there, so the
  // millisecond lost to the tick is not lost to the rate.
  p.Count(1000, 1019);
  EXPECT_EQ(0, p.CanSendPkt(1000, 1020, &wait));
  EXPECT_EQ(16u, wait);
  EXPECT_EQ(0, p.CanSendPkt(1000, 1036, &wait));
  EXPECT_EQ(1, p.CanSendPkt(1000, 1037, &wait));
  // Sent 200 ms late: one slot (100 ms) of it is made up, the rest given
  // up. Due from 1137 ms, 18.3 ms a packet: six may go at 1250.
  p.Count(1000, 1237);
  unsigned sent = 0;
  while (sent < 20 && p.CanSendPkt(1000, 1250, &wait)) {
    p.Count(1000, 1250);
    ++sent;
  }
  EXPECT_EQ(6u, sent);
  EXPECT_EQ(0, p.CanSendPkt(1000, 1265, &wait));  // the seventh is due at 1265.07
  EXPECT_EQ(1, p.CanSendPkt(1000, 1266, &wait));
}

// A sender with a permanent backlog of 1,400-byte packets, asking every
// millisecond for 20 s: the pacing must hold the rate and stay smooth.
TEST(SockMWBuffsCanSendPkt, BacklogIsSentAtTheRateAndSmoothly) {
  for (bool perMs : {false, true}) {
    MWPacer p = Pacer427(perMs);
    unsigned long const t0 = 100000, span = 20000;
    std::vector<unsigned> perMsBytes(span, 0);
    for (unsigned long t = t0; t < t0 + span; ++t) {
      while (p.CanSendPkt(1400, t, nullptr)) {
        p.Count(1400, t);
        perMsBytes[t - t0] += 1400;
      }
    }
    unsigned long long total = 0, worstWindow = 0, worst100 = 0, sumWindow = 0, sum100 = 0;
    for (unsigned long i = 0; i < span; ++i) {
      total += perMsBytes[i];
      sumWindow += perMsBytes[i];
      sum100 += perMsBytes[i];
      if (i >= 1000)
        sumWindow -= perMsBytes[i - 1000];
      if (i >= 100)
        sum100 -= perMsBytes[i - 100];
      worstWindow = std::max(worstWindow, sumWindow);
      worst100 = std::max(worst100, sum100);
    }
    SCOPED_TRACE(perMs ? "per-ms" : "slots");
    double rate = static_cast<double>(total) / (span / 1000.0);
    if (perMs) {
      // Evenly spaced at the exact rate, any span holds its share plus at
      // most the one packet that straddles its edge.
      EXPECT_LE(worstWindow, 54656u + 1400u);
      EXPECT_LE(worst100, 5465u + 1400u);
      EXPECT_NEAR(rate, 54656.0, 54656 * 0.01);
    } else {
      EXPECT_LE(worstWindow, 54656u);
      EXPECT_LE(worst100, 5465u + 1400u);
      EXPECT_GT(rate, 54656 * 0.97);
    }
  }
}

}  // namespace
