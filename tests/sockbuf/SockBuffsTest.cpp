// The reader's packet path, windows and state without a read thread: the
// test feeds WriteData itself, as an application source would.
#include "sockbuf/SockBuffs.h"

#include "ReaderTestUtil.h"
#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace readertest;
namespace sp = shared::platform;

namespace {

constexpr unsigned kA = 0xA1;
constexpr unsigned kB = 0xB2;

struct Fed {
  SockBuffs reader{4, 8192};
  Fed() {
    reader.DisableReadThread();
    EXPECT_EQ(reader.Play(), 1);
  }
  void Feed(Bytes const& b) { EXPECT_EQ(reader.WriteData(b.data(), pkttest::Len(b)), 1); }
  ISockBuffExt* Window(unsigned key, unsigned media, unsigned jitter = 0, unsigned wait = 0) {
    EXPECT_EQ(reader.CreateWnd(key, jitter, wait, 0, 0, media, 0), 1);
    EXPECT_EQ(reader.SetWndBlock(key, 0), 1);
    return reader.GetWndObj(key);
  }
};

TEST(SockBuffsCut, PacketSplitAcrossWritesArrivesWhole) {
  Fed f;
  ISockBuffExt* w = f.Window(1, kA);
  Bytes a = MediaPkt(kA, 1, 100, 30);
  Bytes b = MediaPkt(kA, 2, 140, 8);
  Bytes stream = a;
  stream.insert(stream.end(), b.begin(), b.end());
  f.Feed(Bytes(stream.begin(), stream.begin() + 17));  // header plus a bit
  EXPECT_TRUE(Drain(w).empty());
  f.Feed(Bytes(stream.begin() + 17, stream.end() - 3));
  std::vector<Bytes> got = Drain(w);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0], a);
  f.Feed(Bytes(stream.end() - 3, stream.end()));
  got = Drain(w);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0], b);
  // Pieces of 5 bytes split headers as well as payloads.
  for (std::size_t at = 0; at < stream.size(); at += 5)
    f.Feed(Bytes(stream.begin() + static_cast<long>(at),
                 stream.begin() + static_cast<long>(std::min(at + 5, stream.size()))));
  EXPECT_EQ(Drain(w), (std::vector<Bytes>{a, b}));
}

TEST(SockBuffsCut, ShortAndAnonymousPacketsAreSkipped) {
  Fed f;
  ISockBuffExt* w = f.Window(1, kA);
  f.Feed(pkttest::Pkt(kA, 1, Bytes(7, 1)));  // 19 bytes: no room for a time stamp
  f.Feed(MediaPkt(0, 2, 5));                // media identifier 0
  Bytes twenty = MediaPkt(kA, 3, 5, 8);
  ASSERT_EQ(twenty.size(), 20u);
  f.Feed(twenty);
  EXPECT_EQ(Seqs(Drain(w)), (std::vector<std::uint32_t>{3}));
}

// Two streams interleaved, with a gap and a swap in each: the ordering
// window sorts and counts its loss; the plain one counts the gap it sees.
TEST(SockBuffsWindows, TwoStreamsWithGapsAndReordering) {
  Fed f;
  ISockBuffExt* ordered = f.Window(1, kA, 20, 2);
  ISockBuffExt* plain = f.Window(2, kB);
  for (unsigned seq : {1u, 3u, 2u, 4u, 6u, 7u, 8u, 9u}) {
    f.Feed(MediaPkt(kA, seq, seq * 10));
    f.Feed(MediaPkt(kB, seq, seq * 10));
  }
  EXPECT_EQ(Seqs(Drain(ordered)), (std::vector<std::uint32_t>{1, 2, 3, 4, 6, 7, 8, 9}));
  EXPECT_EQ(ordered->GetnPktLost(), 1u);
  EXPECT_EQ(Seqs(Drain(plain)), (std::vector<std::uint32_t>{1, 3, 2, 4, 6, 7, 8, 9}));
  EXPECT_EQ(plain->GetnPktLost(), 3u);  // 1->3, 2->4 (3 came before 2) and 4->6
  EXPECT_EQ(f.reader.GetWndId(kB), 2u);
}

// A window with both stages joins the fragments of a frame that arrive out
// of order into one packet.
TEST(SockBuffsWindows, DefragmentingWindowJoinsAReorderedFrame) {
  Fed f;
  ASSERT_EQ(f.reader.CreateWnd(3, 4096, 2, 1, 0, kA, 0), 1);
  f.reader.SetWndBlock(3, 0);
  auto fragment = [](unsigned seq, unsigned char fill) {
    Bytes payload = {7, 0, 0, 0, 100, 0, 0, 0, 3};  // frame id 7, time 100, 3 fragments
    payload.insert(payload.end(), 5, fill);
    return pkttest::Pkt(kA, seq, payload);
  };
  f.Feed(fragment(1, 0xA));
  f.Feed(fragment(3, 0xC));
  f.Feed(fragment(2, 0xB));
  std::vector<Bytes> got = Drain(f.reader.GetWndObj(3));
  ASSERT_EQ(got.size(), 1u);
  Bytes data(5, 0xA);
  data.insert(data.end(), 5, 0xB);
  data.insert(data.end(), 5, 0xC);
  EXPECT_EQ(got[0], pkttest::Pkt(kA, 7, data));  // the frame id in the sequence field
}

TEST(SockBuffsWindows, RebindingMovesTheIdentifier) {
  Fed f;
  ISockBuffExt* one = f.Window(1, kA);
  ISockBuffExt* two = f.Window(2, kB);
  EXPECT_EQ(f.reader.SetWndMediaId(2, kA), 1);
  EXPECT_EQ(f.reader.SearchMediaID(kA), 2u);
  EXPECT_EQ(f.reader.SearchMediaID(kB), 0u);
  f.Feed(MediaPkt(kA, 1, 10));
  EXPECT_TRUE(Drain(one).empty());
  EXPECT_EQ(Drain(two).size(), 1u);
  EXPECT_EQ(f.reader.SetWndMediaId(9, kA), 0);  // no such window
}

TEST(SockBuffsWindows, CreateRefusesBadKeysAndTooMany) {
  SockBuffs r(2, 4096);
  r.DisableReadThread();
  EXPECT_EQ(r.CreateWnd(0, 0, 0, 0, 0, 0, 0), 0);
  EXPECT_EQ(r.CreateWnd(5, 0, 0, 0, 0, 0, 0), 1);
  EXPECT_EQ(r.CreateWnd(5, 0, 0, 0, 0, 0, 0), 0);
  EXPECT_EQ(r.CreateWnd(6, 0, 0, 0, 0, 0, 0), 1);
  EXPECT_EQ(r.CreateWnd(7, 0, 0, 0, 0, 0, 0), 0);
  EXPECT_EQ(r.DestroyWnd(5), 1);
  EXPECT_EQ(r.CreateWnd(7, 0, 0, 0, 0, 0, 0), 1);
  EXPECT_EQ(r.GetWndCount(), 2u);
  SockBuffs none(0, 4096);
  EXPECT_EQ(none.IsOk(), 0);
  EXPECT_EQ(none.CreateWnd(1, 0, 0, 0, 0, 0, 0), 0);
}

// The notifier's tests: a reader fed by the test, on a clock the test moves.
class SockBuffsNotify : public ::testing::Test {
 protected:
  sp::ManualClock clock;
  sp::ScopedClockSource use{clock};
  Fed f;
  Notifier n;
};

// NewMediaId runs with the reader's lock released: it may create and bind a
// window, and the packet that asked lands there. A 0 answer drops the packet
// and the next one asks again.
TEST_F(SockBuffsNotify, NewMediaIdBindsFromInside) {
  int calls = 0;
  n.onNew = [&](unsigned media) {
    if (++calls == 1) return 0;
    EXPECT_EQ(f.reader.CreateWnd(7, 0, 0, 0, 0, media, 0), 1);
    f.reader.SetWndBlock(7, 0);
    return 1;
  };
  f.reader.SetINotify(&n, 0, 0);
  f.Feed(MediaPkt(kB, 1, 10));
  f.Feed(MediaPkt(kB, 2, 20));
  f.Feed(MediaPkt(kB, 3, 30));
  EXPECT_EQ(n.asked, (std::vector<unsigned>{kB, kB}));
  EXPECT_EQ(Seqs(Drain(f.reader.GetWndObj(7))), (std::vector<std::uint32_t>{2, 3}));
}

// One chunk of the byte stream: the read thread stores runs of one window's
// packets together, but the application must never be told of a packet, or
// asked about a new identifier, before what came earlier is in its window.
TEST_F(SockBuffsNotify, ChunkOfManyPacketsIsStoredBeforeTheApplicationHearsOfIt) {
  f.reader.SetINotify(&n, 1, 0);
  ISockBuffExt* a = f.Window(1, kA);
  ISockBuffExt* b = nullptr;
  std::size_t heldWhenAsked = 0;
  n.onNew = [&](unsigned media) {
    heldWhenAsked = Drain(a).size();
    EXPECT_EQ(f.reader.CreateWnd(2, 0, 0, 0, 0, media, 0), 1);
    f.reader.SetWndBlock(2, 0);
    b = f.reader.GetWndObj(2);
    return 1;
  };
  Bytes chunk;
  auto add = [&](Bytes const& p) { chunk.insert(chunk.end(), p.begin(), p.end()); };
  add(MediaPkt(kA, 1, 10));
  add(MediaPkt(kA, 2, 20));
  add(MediaPkt(kB, 1, 10));  // unbound: asked with A's two already stored
  add(MediaPkt(kA, 3, 30));
  add(pkttest::Pkt(kA, 9, Bytes(7, 1)));  // too short: skipped, A's run breaks
  add(MediaPkt(kA, 4, 40));
  add(MediaPkt(kB, 2, 20));
  Bytes const tail = MediaPkt(kA, 5, 50);
  add(Bytes(tail.begin(), tail.begin() + 15));
  f.Feed(chunk);
  EXPECT_EQ(heldWhenAsked, 2u);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(Seqs(Drain(a)), (std::vector<std::uint32_t>{3, 4}));
  EXPECT_EQ(Seqs(Drain(b)), (std::vector<std::uint32_t>{1, 2}));
  f.Feed(Bytes(tail.begin() + 15, tail.end()));
  EXPECT_EQ(Seqs(Drain(a)), (std::vector<std::uint32_t>{5}));

  // A notice due in the middle of a chunk finds its packet readable.
  std::size_t readableAtNotice = 0;
  n.onRead = [&] { readableAtNotice = Drain(a).size(); };
  clock.Advance(5000);
  chunk.clear();
  for (std::uint32_t seq = 6; seq <= 9; ++seq) add(MediaPkt(kA, seq, seq * 10));
  f.Feed(chunk);
  EXPECT_EQ(readableAtNotice, 1u);
  EXPECT_EQ(Seqs(Drain(a)), (std::vector<std::uint32_t>{7, 8, 9}));
}

TEST_F(SockBuffsNotify, PktReadOncePerPeriodWithGatheredFlags) {
  f.reader.SetINotify(&n, 2, 77);
  f.Window(1, kA);
  f.Feed(MediaPkt(kA, 1, 10, 8, 0x01));
  f.Feed(MediaPkt(kA, 2, 20, 8, 0x04));
  EXPECT_TRUE(n.Reads().empty());
  clock.Advance(3000);  // past the record's time, not past it by a period
  f.Feed(MediaPkt(kA, 3, 30, 8, 0x10));
  std::vector<Notifier::Read> r = n.Reads();
  ASSERT_EQ(r.size(), 1u);
  EXPECT_EQ(r[0].mediaId, kA);
  EXPECT_EQ(r[0].flags, 0x15u);
  EXPECT_EQ(r[0].percent, 0.0);
  EXPECT_EQ(n.lastCookie, 77u);
  f.Feed(MediaPkt(kA, 4, 40, 8, 0x02));
  EXPECT_EQ(n.Reads().size(), 1u);
}

TEST(SockBuffsState, IdleTimeAndPauseRules) {
  sp::ManualClock clock;
  sp::ScopedClockSource use(clock);
  SockBuffs r(2, 4096);
  r.DisableReadThread();
  EXPECT_EQ(r.Pause(1), 0);  // stopped
  ASSERT_EQ(r.Play(), 1);
  EXPECT_EQ(r.Pause(1), 1);
  EXPECT_EQ(r.Pause(1), 0);
  EXPECT_EQ(r.IsPauseOn(), 1);
  EXPECT_EQ(r.Pause(0), 1);
  clock.Advance(31000);
  EXPECT_EQ(r.MaxIdleTimeReached(), 0);  // no packet yet
  r.CreateWnd(1, 0, 0, 0, 0, kA, 0);
  Bytes p = MediaPkt(kA, 1, 1);
  r.WriteData(p.data(), pkttest::Len(p));
  clock.Advance(30000);
  EXPECT_EQ(r.MaxIdleTimeReached(), 0);
  clock.Advance(1000);
  EXPECT_EQ(r.MaxIdleTimeReached(), 1);
  EXPECT_EQ(r.Stop(), 1);
  EXPECT_EQ(r.IsStopped(), 1);
  EXPECT_EQ(r.GetWndCount(), 0u);
  EXPECT_EQ(r.WriteData(p.data(), pkttest::Len(p)), 0);
}

TEST(SockBuffsUrl, RefusesUnknownForms) {
  SockBuffs r(1, 1024);
  EXPECT_EQ(r.SetUrl("http://127.0.0.1:80"), 0);
  EXPECT_EQ(r.SetUrl("tcp://127.0.0.1"), 0);
  EXPECT_EQ(r.SetUrl(nullptr), 0);
  EXPECT_EQ(r.OpenUrl(), 0);  // no source
  EXPECT_EQ(r.SetUrl("udp://127.0.0.1:0"), 1);
}

}  // namespace
