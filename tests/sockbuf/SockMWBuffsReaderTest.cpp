// SockMWBuffs end to end: its own controller and send queue pace two media
// over loopback TCP into a SockBuffs reader listening on 127.0.0.1 port 0,
// one window per media. Every packet must arrive once and in order.
#include "sockbuf/SockMWBuffs.h"

#include "ReaderTestUtil.h"
#include "socket/SendQueue.h"
#include "sockbuf/SockBuffs.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace readertest;
using pkttest::Len;

namespace {

constexpr unsigned kA = 0x1001;
constexpr unsigned kB = 0x2002;
// 16,384 kbit/s (2 MB/s) with per-millisecond pacing: the packets below leave
// in about a tenth of a second, paced, not in one burst.
constexpr unsigned kKbps = 16384;

// A reader listening on 127.0.0.1 with one non-blocking window per media.
struct Reader {
  SockBuffs r{4, 1u << 20};
  ISockBuffExt* a = nullptr;
  ISockBuffExt* b = nullptr;
  Reader() {
    EXPECT_EQ(1, r.SetUrl("tcp-listen://127.0.0.1:0"));
    EXPECT_EQ(1, r.CreateWnd(1, 0, 0, 0, 0, kA, 0));
    EXPECT_EQ(1, r.CreateWnd(2, 0, 0, 0, 0, kB, 0));
    r.SetWndBlock(1, 0);
    r.SetWndBlock(2, 0);
    a = r.GetWndObj(1);
    b = r.GetWndObj(2);
    EXPECT_EQ(1, r.Play());
  }
  ~Reader() { r.Stop(); }
  std::string WriterUrl() const { return "tcp://127.0.0.1:" + std::to_string(r.GetPort()); }
};

// The writer: paced, its own controller with a send queue. Destroyed before
// the reader (declare it after), so its threads are joined first.
struct Writer {
  SendQueue queue{4096, 64, 64};
  SockMWBuffs mw;
  Writer(Reader const& rd, unsigned long flags)
      : mw(kKbps, 10, 3000, 1, 0, flags, &queue, nullptr, 0, 1000, 0) {
    EXPECT_EQ(1, mw.IsOk());
    EXPECT_EQ(1, mw.SetUrl(rd.WriterUrl().c_str()));
    EXPECT_EQ(1, mw.OpenUrl());
  }
};

struct Received {
  std::vector<Bytes> a, b;
};

// Drains both windows until each holds want packets or 10 s pass.
Received ReadBoth(Reader& rd, std::size_t want) {
  Received got;
  WaitFor([&] {
    for (Bytes& p : Drain(rd.a)) got.a.push_back(std::move(p));
    for (Bytes& p : Drain(rd.b)) got.b.push_back(std::move(p));
    return got.a.size() >= want && got.b.size() >= want;
  });
  return got;
}

std::vector<std::uint32_t> OneTo(unsigned n) {
  std::vector<std::uint32_t> v;
  for (unsigned i = 1; i <= n; ++i) v.push_back(i);
  return v;
}

TEST(SockMWBuffsIntoReader, TwoMediaArriveOnceAndInOrder) {
  constexpr unsigned kPerMedia = 150;
  Reader rd;
  ASSERT_NE(0, rd.r.GetPort());
  Writer w(rd, 0);
  ASSERT_EQ(1, w.mw.StartWriteThread());
  std::vector<Bytes> sentA, sentB;
  for (unsigned seq = 1; seq <= kPerMedia; ++seq) {
    sentA.push_back(MediaPkt(kA, seq, seq * 10, 700 + seq));
    sentB.push_back(MediaPkt(kB, seq, seq * 10, 300));
    ASSERT_EQ(1, w.mw.write(sentA.back().data(), Len(sentA.back())));
    ASSERT_EQ(1, w.mw.write(sentB.back().data(), Len(sentB.back())));
  }
  Received got = ReadBoth(rd, kPerMedia);
  EXPECT_TRUE(WaitFor([&] { return w.mw.GetnPktSent() == 2 * kPerMedia; }));
  // The writer sent each packet once, so a full, ordered window holds each
  // exactly once.
  EXPECT_EQ(OneTo(kPerMedia), Seqs(got.a));
  EXPECT_EQ(OneTo(kPerMedia), Seqs(got.b));
  EXPECT_EQ(sentA, got.a);
  EXPECT_EQ(sentB, got.b);
  EXPECT_EQ(0u, rd.a->GetnPktLost());
  EXPECT_EQ(0u, rd.b->GetnPktLost());
  EXPECT_EQ(0u, w.mw.GetnPktDropped());
  EXPECT_EQ(0u, w.mw.GetnSendErrors());
}

// With the fragment queue the fragments carry their own sequence numbers
// (bytes 4-7; the packet's number moves to 12-15). Each media must count
// its own: a receiver filtering one media would otherwise see the other
// media's fragments as gaps and count them lost.
TEST(SockMWBuffsIntoReader, FragmentsAreNumberedPerMedia) {
  // Per media; all of them fit the 131,070-byte fragment queue at once, so
  // none is dropped however late the defrag thread runs.
  constexpr unsigned kPackets = 20;
  constexpr unsigned kFragsPerPkt = 3;  // 3,000 payload bytes: 1,400 + 1,400 + 200
  Reader rd;
  ASSERT_NE(0, rd.r.GetPort());
  Writer w(rd, SockMWBuffs::kFlagFragQueue);
  ASSERT_EQ(1, w.mw.StartDefragThread());
  ASSERT_EQ(1, w.mw.StartWriteThread());
  for (unsigned seq = 1; seq <= kPackets; ++seq) {
    ASSERT_EQ(1, w.mw.write(MediaPkt(kA, seq, seq, 3000).data(), 3012));
    ASSERT_EQ(1, w.mw.write(MediaPkt(kB, seq, seq, 3000).data(), 3012));
  }
  constexpr unsigned kFrags = kPackets * kFragsPerPkt;
  Received got = ReadBoth(rd, kFrags);
  EXPECT_EQ(OneTo(kFrags), Seqs(got.a));
  EXPECT_EQ(OneTo(kFrags), Seqs(got.b));
  EXPECT_EQ(0u, rd.a->GetnPktLost());
  EXPECT_EQ(0u, rd.b->GetnPktLost());
  for (std::vector<Bytes> const* frags : {&got.a, &got.b}) {
    ASSERT_EQ(kFrags, frags->size());
    for (unsigned i = 0; i < kFrags; ++i) {
      Bytes const& f = (*frags)[i];
      ASSERT_GE(f.size(), 21u);
      EXPECT_EQ(0x20, f[11] & 0x20);
      EXPECT_EQ(i / kFragsPerPkt + 1, Get32(f.data() + 12)) << "fragment " << i;  // packet number
    }
  }
}

}  // namespace
