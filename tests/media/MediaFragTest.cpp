#include "media/MediaFrag.h"

#include "platform/Clock.h"
#include "thread/ThreadTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

std::uint32_t Le(Bytes const &b, std::size_t at, int width) {
  std::uint32_t v = 0;
  for (int i = width - 1; i >= 0; --i)
    v = (v << 8) | b[at + i];
  return v;
}
void Put32(Bytes &b, std::size_t at, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    b[at + i] = static_cast<unsigned char>(v >> (8 * i));
}
unsigned char PayloadByte(unsigned i) { return static_cast<unsigned char>(i * 7); }

// A media packet (short or long form, optional extension with a timestamp)
// whose payload byte i is PayloadByte(i).
Bytes Packet(bool longForm, std::uint32_t stream, std::uint32_t seq, unsigned payload, unsigned char type,
             unsigned char flag, bool ext = false, std::uint32_t stamp = 0) {
  unsigned const header = longForm ? 14 : 12;
  unsigned const lenField = payload + (ext ? 8 : 0);
  Bytes b(header + lenField);
  Put32(b, 0, stream);
  Put32(b, 4, seq);
  Put32(b, 8, lenField);  // the short form's type and flag overwrite bytes 10-11
  b[header - 2] = type;
  b[header - 1] = flag;
  if (ext)
    Put32(b, header + 4, stamp);
  for (unsigned i = 0; i < payload; ++i)
    b[header + (ext ? 8 : 0) + i] = PayloadByte(i);
  return b;
}

std::vector<Bytes> Drain(MediaFrag &mf) {
  std::vector<Bytes> out;
  Bytes buf(4096);
  unsigned n = 0;
  while (mf.GetData(buf.data(), static_cast<unsigned>(buf.size()), &n) == 1)
    out.emplace_back(buf.begin(), buf.begin() + n);
  return out;
}

// One fragment: header fields, and payload = the packet payload slice at offset.
void ExpectFragment(Bytes const &f, unsigned header, unsigned payload, std::uint32_t fragSeq, unsigned offset,
                    Bytes const &pkt, unsigned pktHeader) {
  ASSERT_EQ(header + payload, f.size());
  EXPECT_EQ(Le(pkt, 0, 4), Le(f, 0, 4));
  EXPECT_EQ(fragSeq, Le(f, 4, 4));
  EXPECT_EQ(header + payload - 12, Le(f, 8, 2));
  EXPECT_EQ(pkt[pktHeader - 2], f[10]);
  EXPECT_EQ(pkt[pktHeader - 1] | 0x20, f[11]);
  EXPECT_EQ(Le(pkt, 4, 4), Le(f, 12, 4));
  for (unsigned i = 0; i < payload; ++i)
    ASSERT_EQ(PayloadByte(offset + i), f[header + i]) << "fragment " << fragSeq << " byte " << i;
}

TEST(MediaFrag, FragmentLayoutsByTypeAndAudioFlag) {
  shared::platform::ManualClock clock(1700000000, 424242);
  shared::platform::ScopedClockSource installed(clock);
  MediaFrag mf(MediaFrag::kFragOn, 16384, 0, 0);
  ASSERT_TRUE(mf.IsOk());

  Bytes const plain = Packet(false, 0xA1B2C3D4, 77, 3000, 1, 0);
  ASSERT_EQ(1, mf.SaveData(plain.data(), 3012));
  auto frags = Drain(mf);
  ASSERT_EQ(3u, frags.size());
  for (unsigned i = 0; i < 3; ++i) {
    ExpectFragment(frags[i], 21, i < 2 ? 1400 : 200, i + 1, i * 1400, plain, 12);
    EXPECT_EQ(3, frags[i][20]);                  // 8-bit count
    EXPECT_EQ(424242u, Le(frags[i], 16, 4));    // tick count without an extension
  }
  EXPECT_EQ(1409u, Le(frags[0], 8, 2));
  EXPECT_EQ(209u, Le(frags[2], 8, 2));

  // Type 23 takes a 32-bit count, audio bit or not; the sequence runs on.
  Bytes const wide = Packet(false, 9, 1, 3000, 23, 0x10);
  ASSERT_EQ(1, mf.SaveData(wide.data(), 3012));
  frags = Drain(mf);
  ASSERT_EQ(3u, frags.size());
  for (unsigned i = 0; i < 3; ++i) {
    ExpectFragment(frags[i], 24, i < 2 ? 1400 : 200, i + 4, i * 1400, wide, 12);
    EXPECT_EQ(3u, Le(frags[i], 20, 4));
  }
  EXPECT_EQ(1412u, Le(frags[0], 8, 2));
  EXPECT_EQ(212u, Le(frags[2], 8, 2));

  // Audio: one fragment, no count, cut to the first (len mod 1400) bytes, or
  // 1400 for a multiple of 1400. Non-audio multiples give full fragments;
  // an empty packet still gives one fragment.
  Bytes const audio = Packet(false, 3, 10, 1500, 4, 0x10);
  Bytes const audio2800 = Packet(false, 3, 11, 2800, 4, 0x10);
  Bytes const video2800 = Packet(false, 3, 12, 2800, 2, 0);
  Bytes const empty = Packet(false, 3, 13, 0, 2, 0);
  for (Bytes const *p : {&audio, &audio2800, &video2800, &empty})
    ASSERT_EQ(1, mf.SaveData(p->data(), static_cast<unsigned>(p->size())));
  frags = Drain(mf);
  ASSERT_EQ(5u, frags.size());
  ExpectFragment(frags[0], 20, 100, 7, 0, audio, 12);
  ExpectFragment(frags[1], 20, 1400, 8, 0, audio2800, 12);
  ExpectFragment(frags[2], 21, 1400, 9, 0, video2800, 12);
  ExpectFragment(frags[3], 21, 1400, 10, 1400, video2800, 12);
  ExpectFragment(frags[4], 21, 0, 11, 0, empty, 12);
  EXPECT_EQ(1, frags[4][20]);
}

TEST(MediaFrag, ExtensionSuppliesTheTimestampAndIsNotPayload) {
  MediaFrag shortExt(MediaFrag::kFragOn | MediaFrag::kPktExt, 16384, 0, 0);
  Bytes const s = Packet(false, 1, 2, 1500, 1, 0, true, 0xCAFEBABE);
  ASSERT_EQ(1, shortExt.SaveData(s.data(), 1520));
  auto frags = Drain(shortExt);
  ASSERT_EQ(2u, frags.size());
  ExpectFragment(frags[1], 21, 100, 2, 1400, s, 12);
  EXPECT_EQ(0xCAFEBABEu, Le(frags[1], 16, 4));

  MediaFrag longExt(MediaFrag::kFragOn | MediaFrag::kPktExt | MediaFrag::kLongHeader, 16384, 0, 0);
  Bytes const l = Packet(true, 8, 9, 300, 7, 0, true, 0x01020304);
  ASSERT_EQ(1, longExt.SaveData(l.data(), 322));
  frags = Drain(longExt);
  ASSERT_EQ(1u, frags.size());
  ExpectFragment(frags[0], 21, 300, 1, 0, l, 14);
  EXPECT_EQ(0x01020304u, Le(frags[0], 16, 4));

  // A length too short to hold the extension is refused, not wrapped.
  Bytes bad = Packet(false, 1, 3, 0, 1, 0, true);
  bad[8] = 4;
  EXPECT_EQ(0, shortExt.SaveData(bad.data(), 16));
}

TEST(MediaFrag, WholePacketsAndPacketChecks) {
  MediaFrag mf(0, 1024, 0, 0);
  Bytes const pkt = Packet(false, 1, 1, 20, 1, 0);
  unsigned size = 99;
  EXPECT_EQ(1, mf.IsPktOk(pkt.data(), 40, &size));  // trailing bytes allowed
  EXPECT_EQ(32u, size);
  EXPECT_EQ(0, mf.IsPktOk(pkt.data(), 31, &size));
  EXPECT_EQ(0u, size);
  ASSERT_EQ(1, mf.SaveData(pkt.data(), 32));
  EXPECT_EQ(std::vector<Bytes>{pkt}, Drain(mf));

  // Long-form packets pass whole and stay framed one after another; one that
  // does not fit drops everything queued before it.
  MediaFrag lf(MediaFrag::kLongHeader, 1024, 0, 0);
  Bytes const lp = Packet(true, 1, 1, 20, 1, 0);
  Bytes const huge = Packet(true, 1, 2, 70000, 1, 0);
  ASSERT_EQ(1, lf.SaveData(lp.data(), 34));
  ASSERT_EQ(0, lf.SaveData(huge.data(), 70014));
  ASSERT_EQ(1, lf.SaveData(lp.data(), 34));
  ASSERT_EQ(1, lf.SaveData(lp.data(), 34));
  EXPECT_EQ((std::vector<Bytes>{lp, lp}), Drain(lf));

  // A packet larger than the reader's buffer is discarded; *outLen is only
  // meaningful on success.
  ASSERT_EQ(1, mf.SaveData(Packet(false, 1, 1, 100, 1, 0).data(), 112));
  ASSERT_EQ(1, mf.SaveData(pkt.data(), 32));
  char buf[64];
  unsigned n = 0;
  EXPECT_EQ(0, mf.GetData(buf, sizeof buf, &n));
  EXPECT_EQ(1, mf.GetData(buf, sizeof buf, &n));
  EXPECT_EQ(32u, n);
  EXPECT_EQ(0, MediaFrag(0, 0, 0, 0).IsOk());
}

TEST(FragQueue, OverflowDropsEverythingUnlessGrowable) {
  Bytes const pkt = Packet(false, 1, 1, 38, 1, 0);  // 50 bytes
  FragQueue fixed(120, 0, 0, 0);
  EXPECT_EQ(1, fixed.Write(pkt.data(), 50));
  EXPECT_EQ(1, fixed.Write(pkt.data(), 50));
  EXPECT_EQ(0, fixed.Write(pkt.data(), 50));
  EXPECT_EQ(0u, fixed.GetUsed());
  FragQueue growable(60, 0, 1, 0);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(1, growable.Write(pkt.data(), 50));
  EXPECT_EQ(150u, growable.GetUsed());
  EXPECT_GE(growable.GetSize(), 150u);

  // Through MediaFrag the receiver sees the gap in fragment numbers.
  MediaFrag mf(MediaFrag::kFragOn, 2000, 0, 0);
  EXPECT_EQ(0, mf.SaveData(Packet(false, 1, 1, 3000, 1, 0).data(), 3012));
  ASSERT_EQ(1, mf.SaveData(Packet(false, 1, 2, 10, 1, 0).data(), 22));
  auto frags = Drain(mf);
  ASSERT_EQ(1u, frags.size());
  EXPECT_EQ(3u, Le(frags[0], 4, 4));

  // Half a packet is not a packet yet.
  FragQueue q(1024, 0, 0, 0);
  ASSERT_EQ(1, q.Write(pkt.data(), 30));
  EXPECT_EQ(0u, q.NextPktSize());
  ASSERT_EQ(1, q.Write(pkt.data() + 30, 20));
  EXPECT_EQ(50u, q.NextPktSize());

  // A null buffer has no room whatever the capacity claims: the packet is
  // dropped without mayAllocate, and allocated for with it.
  ASSERT_EQ(1, q.Write(pkt.data(), 50));
  char *none = nullptr;
  unsigned cap = 4096;
  EXPECT_EQ(0, q.Read(&none, &cap, 0));
  EXPECT_EQ(nullptr, none);
  EXPECT_EQ(50u, q.NextPktSize());
  cap = 4096;
  ASSERT_EQ(1, q.Read(&none, &cap, 1));
  EXPECT_EQ(50u, cap);
  EXPECT_EQ(0, std::memcmp(none, pkt.data(), 50));
  std::free(none);
}

TEST(FragQueue, AClaimedLengthAboveTheLargestPacketIsRefused) {
  FragQueue q(64, 1, 1, 0);  // long framing, growable
  Bytes const ok = Packet(true, 1, 1, 86, 1, 0);  // 100 bytes
  ASSERT_EQ(1, q.Write(ok.data(), 100));
  Bytes huge = Packet(true, 1, 2, 16, 1, 0);
  Put32(huge, 8, 0xFFFFFFF0u);  // raw bytes claiming almost 4 GB
  EXPECT_EQ(1, q.Write(huge.data(), static_cast<unsigned>(huge.size())));  // behind a whole packet: not yet judged
  Bytes buf(200);
  char *p = reinterpret_cast<char *>(buf.data());
  unsigned cap = 200;
  ASSERT_EQ(1, q.Read(&p, &cap, 0));
  EXPECT_EQ(FragQueue::kTooLarge, q.Write(huge.data(), 4));  // now at the front
  EXPECT_EQ(0u, q.GetUsed());
  EXPECT_LT(q.GetSize(), 4096u);

  q.SetMaxPacketSize(99);
  EXPECT_EQ(FragQueue::kTooLarge, q.Write(ok.data(), 100));
  q.SetMaxPacketSize(0);  // back to the default
  EXPECT_EQ(1, q.Write(ok.data(), 100));
  // A whole packet too large for MediaFrag's queue fails SaveData.
  MediaFrag mf(MediaFrag::kLongHeader, 64, 1, 0);
  mf.GetQueue()->SetMaxPacketSize(50);
  EXPECT_EQ(0, mf.SaveData(ok.data(), 100));
}

TEST(FragQueue, InterleavedWritesAndReadsKeepEveryPacketWhole) {
  for (int growable : {0, 1}) {
    FragQueue q(growable ? 64 : 5000, 0, growable, 0);
    std::deque<Bytes> model;
    std::mt19937 rng(growable + 3);
    Bytes buf(2000);
    std::uint32_t seq = 0;
    for (int step = 0; step < 4000; ++step) {
      if (rng() % 3 != 0 && (growable || q.GetUsed() + 1200 <= 5000)) {
        Bytes pkt = Packet(false, 1, ++seq, rng() % 1000, 1, 0);
        ASSERT_EQ(1, q.Write(pkt.data(), static_cast<unsigned>(pkt.size())));
        model.push_back(std::move(pkt));
      } else {
        char *p = reinterpret_cast<char *>(buf.data());
        unsigned cap = static_cast<unsigned>(buf.size());
        int const got = q.Read(&p, &cap, 0);
        ASSERT_EQ(model.empty() ? 0 : 1, got);
        if (got) {
          ASSERT_EQ(model.front(), Bytes(buf.begin(), buf.begin() + cap)) << "packet " << Le(buf, 4, 4);
          model.pop_front();
        }
      }
    }
  }
}

TEST(FragQueue, AWakeUpBeforeTheReaderWaitsIsNotLost) {
  FragQueue q(1024, 0, 0, 1);
  q.WakeReader();  // no reader yet
  char *buf = nullptr;
  unsigned cap = 0;
  EXPECT_EQ(0, q.Read(&buf, &cap, 1));  // returns instead of waiting
  Bytes const pkt = Packet(false, 1, 1, 4, 1, 0);
  ASSERT_EQ(1, q.Write(pkt.data(), 16));
  EXPECT_EQ(1, q.Read(&buf, &cap, 1));  // spent: the next read is served
  std::free(buf);
}

TEST(FragQueue, ASecondCloseReturnsOnlyWhenTheFirstIsDone) {
  for (int round = 0; round < 100; ++round) {
    auto *q = new FragQueue(1024, 0, 0, 1);
    testutil::Latch reading;
    std::jthread reader([&] {
      char *buf = nullptr;
      unsigned cap = 0;
      reading.Open();
      q->Read(&buf, &cap, 1);
    });
    ASSERT_TRUE(reading.Wait());
    std::jthread first([q] { q->Close(); });
    // Once writes are refused the first Close is under way (one byte is no
    // whole packet, so an earlier accepted write wakes nobody).
    char const byte = 0;
    ASSERT_TRUE(testutil::Eventually([&] { return q->Write(&byte, 1) == 0; }));
    q->Close();
    EXPECT_EQ(0u, q->GetSize());  // the first one has freed the storage
    reader.join();
    delete q;  // safe once this thread's Close returned, whatever the first does
  }
}

TEST(FragQueue, StreamFilterDropsOtherStreamsAndCountsGaps) {
  FragQueue q(4096, 0, 0, 0);
  q.SetFilter(7);
  for (std::uint32_t seq : {1u, 2u, 5u, 3u, 9u}) {
    ASSERT_EQ(1, q.Write(Packet(false, 8, seq + 100, 4, 1, 0).data(), 16));
    ASSERT_EQ(1, q.Write(Packet(false, 7, seq, 4, 1, 0).data(), 16));
  }
  std::vector<std::uint32_t> seen;
  Bytes storage(64);
  char *buf = reinterpret_cast<char *>(storage.data());
  for (unsigned cap = 64; q.Read(&buf, &cap, 0) == 1; cap = 64)
    seen.push_back(Le(storage, 4, 4));
  EXPECT_EQ((std::vector<std::uint32_t>{1, 2, 5, 3, 9}), seen);
  // 2 -> 5 loses two, 3 -> 9 five more; going back counts nothing.
  EXPECT_EQ(7u, q.GetnPacketsLost());
}

TEST(FragQueue, BlockingReadWaitsForAWholePacketAndCloseReleasesIt) {
  MediaFrag mf(0, 4096, 0, 1);
  Bytes const pkt = Packet(false, 1, 1, 30, 1, 0);
  std::atomic<int> result{-1};
  std::atomic<unsigned> size{0};
  std::thread reader([&] {
    char buf[256];
    unsigned n = 0;
    result = mf.GetData(buf, sizeof buf, &n);
    size = n;
  });
  // In two halves: the reader must not return on the first.
  ASSERT_EQ(1, mf.GetQueue()->Write(pkt.data(), 20));
  ASSERT_EQ(1, mf.GetQueue()->Write(pkt.data() + 20, 22));
  reader.join();
  EXPECT_EQ(1, result);
  EXPECT_EQ(42u, size);

  std::atomic<bool> entered{false};
  std::thread blocked([&] {
    char buf[64];
    unsigned n = 0;
    entered = true;
    result = mf.GetData(buf, sizeof buf, &n);
  });
  ASSERT_TRUE(testutil::Eventually([&] { return entered.load(); }));
  mf.GetQueue()->Close();  // before or during the read: it returns empty-handed
  blocked.join();
  EXPECT_EQ(0, result);
  EXPECT_EQ(0, mf.SaveData(pkt.data(), 42));
}

}  // namespace
