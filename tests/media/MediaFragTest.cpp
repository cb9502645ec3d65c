#include "media/MediaFrag.h"

#include "platform/Clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

std::uint32_t Le16(Bytes const &b, std::size_t at) { return b[at] | (b[at + 1] << 8); }
std::uint32_t Le32(Bytes const &b, std::size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (std::uint32_t{b[at + 3]} << 24);
}
void Put32(Bytes &b, std::size_t at, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    b[at + i] = static_cast<unsigned char>(v >> (8 * i));
}

// A media packet whose payload byte i is (i * 7) & 0xFF, so fragment
// contents can be checked against their offset in the payload.
Bytes Packet(bool longForm, std::uint32_t stream, std::uint32_t seq, unsigned payload, unsigned char type,
             unsigned char flag, bool ext = false, std::uint32_t stamp = 0) {
  unsigned const header = longForm ? 14 : 12;
  unsigned const lenField = payload + (ext ? 8 : 0);
  Bytes b(header + lenField);
  Put32(b, 0, stream);
  Put32(b, 4, seq);
  if (longForm) {
    Put32(b, 8, lenField);
    b[12] = type;
    b[13] = flag;
  } else {
    b[8] = static_cast<unsigned char>(lenField);
    b[9] = static_cast<unsigned char>(lenField >> 8);
    b[10] = type;
    b[11] = flag;
  }
  unsigned at = header;
  if (ext) {
    Put32(b, at, 0xEEEEEEEE);
    Put32(b, at + 4, stamp);
    at += 8;
  }
  for (unsigned i = 0; i < payload; ++i)
    b[at + i] = static_cast<unsigned char>(i * 7);
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

// Checks one fragment's header and that its payload is the slice of the
// packet payload starting at payloadOffset.
void ExpectFragment(Bytes const &f, unsigned header, unsigned payload, std::uint32_t fragSeq, unsigned payloadOffset,
                    std::uint32_t stream, std::uint32_t pktSeq, unsigned char type, unsigned char flag) {
  ASSERT_EQ(header + payload, f.size());
  EXPECT_EQ(stream, Le32(f, 0));
  EXPECT_EQ(fragSeq, Le32(f, 4));
  EXPECT_EQ(header + payload - 12, Le16(f, 8));
  EXPECT_EQ(type, f[10]);
  EXPECT_EQ(flag | 0x20, f[11]);
  EXPECT_EQ(pktSeq, Le32(f, 12));
  for (unsigned i = 0; i < payload; ++i) {
    if (f[header + i] != static_cast<unsigned char>((payloadOffset + i) * 7)) {
      ADD_FAILURE() << "payload byte " << i << " of fragment " << fragSeq;
      return;
    }
  }
}

TEST(MediaFrag, SplitsIntoFragmentsWithEightBitCount) {
  shared::platform::ManualClock clock(1700000000, 424242);
  shared::platform::ScopedClockSource installed(clock);
  MediaFrag mf(MediaFrag::kFragOn, 16384, 0, 0);
  ASSERT_TRUE(mf.IsOk());
  ASSERT_EQ(1, mf.SaveData(Packet(false, 0xA1B2C3D4, 77, 3000, 1, 0).data(), 3012));
  auto frags = Drain(mf);
  ASSERT_EQ(3u, frags.size());
  unsigned const sizes[] = {1400, 1400, 200};
  unsigned offset = 0;
  for (unsigned i = 0; i < 3; ++i) {
    ExpectFragment(frags[i], 21, sizes[i], i + 1, offset, 0xA1B2C3D4, 77, 1, 0);
    EXPECT_EQ(3, frags[i][20]);
    EXPECT_EQ(424242u, Le32(frags[i], 16));  // tick count without an extension
    offset += sizes[i];
  }
  EXPECT_EQ(1409u, Le16(frags[0], 8));
  EXPECT_EQ(209u, Le16(frags[2], 8));

  // The fragment sequence keeps running across packets; an exact multiple
  // of 1400 gives full fragments only.
  ASSERT_EQ(1, mf.SaveData(Packet(false, 5, 78, 2800, 2, 0).data(), 2812));
  frags = Drain(mf);
  ASSERT_EQ(2u, frags.size());
  ExpectFragment(frags[0], 21, 1400, 4, 0, 5, 78, 2, 0);
  ExpectFragment(frags[1], 21, 1400, 5, 1400, 5, 78, 2, 0);
  EXPECT_EQ(2, frags[1][20]);

  // An empty packet still yields one fragment, with no payload.
  ASSERT_EQ(1, mf.SaveData(Packet(false, 5, 79, 0, 2, 0).data(), 12));
  frags = Drain(mf);
  ASSERT_EQ(1u, frags.size());
  ExpectFragment(frags[0], 21, 0, 6, 0, 5, 79, 2, 0);
  EXPECT_EQ(9u, Le16(frags[0], 8));
  EXPECT_EQ(1, frags[0][20]);
}

TEST(MediaFrag, TypeTwentyThreeCarriesAThirtyTwoBitCountEvenForAudio) {
  MediaFrag mf(MediaFrag::kFragOn, 16384, 0, 0);
  // The audio bit does not shorten a type-23 packet.
  ASSERT_EQ(1, mf.SaveData(Packet(false, 9, 1, 3000, 23, 0x10).data(), 3012));
  auto frags = Drain(mf);
  ASSERT_EQ(3u, frags.size());
  unsigned const sizes[] = {1400, 1400, 200};
  unsigned offset = 0;
  for (unsigned i = 0; i < 3; ++i) {
    ExpectFragment(frags[i], 24, sizes[i], i + 1, offset, 9, 1, 23, 0x10);
    EXPECT_EQ(3u, Le32(frags[i], 20));
    offset += sizes[i];
  }
  EXPECT_EQ(1412u, Le16(frags[0], 8));
  EXPECT_EQ(212u, Le16(frags[2], 8));
}

TEST(MediaFrag, AudioGoesInOneFragmentCutToTheRemainder) {
  MediaFrag mf(MediaFrag::kFragOn, 16384, 0, 0);
  ASSERT_EQ(1, mf.SaveData(Packet(false, 3, 10, 1500, 4, 0x10).data(), 1512));
  ASSERT_EQ(1, mf.SaveData(Packet(false, 3, 11, 2800, 4, 0x10).data(), 2812));
  auto frags = Drain(mf);
  ASSERT_EQ(2u, frags.size());
  // The first 1500 mod 1400 = 100 bytes; for a multiple of 1400, 1400 bytes.
  ExpectFragment(frags[0], 20, 100, 1, 0, 3, 10, 4, 0x10);
  ExpectFragment(frags[1], 20, 1400, 2, 0, 3, 11, 4, 0x10);
}

TEST(MediaFrag, ExtensionSuppliesTheTimestampAndIsNotPayload) {
  MediaFrag shortExt(MediaFrag::kFragOn | MediaFrag::kPktExt, 16384, 0, 0);
  ASSERT_EQ(1, shortExt.SaveData(Packet(false, 1, 2, 1500, 1, 0, true, 0xCAFEBABE).data(), 1520));
  auto frags = Drain(shortExt);
  ASSERT_EQ(2u, frags.size());
  ExpectFragment(frags[0], 21, 1400, 1, 0, 1, 2, 1, 0);
  ExpectFragment(frags[1], 21, 100, 2, 1400, 1, 2, 1, 0);
  EXPECT_EQ(0xCAFEBABEu, Le32(frags[1], 16));

  MediaFrag longExt(MediaFrag::kFragOn | MediaFrag::kPktExt | MediaFrag::kLongHeader, 16384, 0, 0);
  EXPECT_TRUE(longExt.IsDefragLMediaPkt());
  ASSERT_EQ(1, longExt.SaveData(Packet(true, 8, 9, 300, 7, 0, true, 0x01020304).data(), 322));
  frags = Drain(longExt);
  ASSERT_EQ(1u, frags.size());
  ExpectFragment(frags[0], 21, 300, 1, 0, 8, 9, 7, 0);
  EXPECT_EQ(0x01020304u, Le32(frags[0], 16));

  // A length too short to hold the extension is refused, not wrapped.
  Bytes bad = Packet(false, 1, 3, 0, 1, 0);
  bad.resize(16);
  bad[8] = 4;
  EXPECT_EQ(0, shortExt.SaveData(bad.data(), 16));
}

TEST(MediaFrag, PacketChecksAndWholePacketMode) {
  MediaFrag mf(0, 1024, 0, 0);
  Bytes pkt = Packet(false, 1, 1, 20, 1, 0);
  unsigned size = 99;
  EXPECT_EQ(1, mf.IsPktOk(pkt.data(), 40, &size));  // extra bytes after the packet are allowed
  EXPECT_EQ(32u, size);
  EXPECT_EQ(0, mf.IsPktOk(pkt.data(), 31, &size));
  EXPECT_EQ(0u, size);
  EXPECT_EQ(0, mf.IsPktOk(pkt.data(), 11, nullptr));
  EXPECT_EQ(0, mf.IsPktOk(nullptr, 32, nullptr));

  MediaFrag longForm(MediaFrag::kLongHeader, 1024, 0, 0);
  Bytes lp = Packet(true, 1, 1, 20, 1, 0);
  EXPECT_EQ(1, longForm.IsPktOk(lp.data(), 34, &size));
  EXPECT_EQ(34u, size);
  EXPECT_EQ(0, longForm.IsPktOk(lp.data(), 13, &size));
  // Whole long-form packets come back whole and stay framed one after another.
  Bytes lp2 = Packet(true, 1, 2, 70000, 1, 0);
  ASSERT_EQ(1, longForm.SaveData(lp.data(), 34));
  ASSERT_EQ(0, longForm.SaveData(lp2.data(), 70014));  // beyond the 1024-byte queue
  ASSERT_EQ(1, longForm.SaveData(lp.data(), 34));
  ASSERT_EQ(1, longForm.SaveData(lp.data(), 34));
  auto longGot = Drain(longForm);
  ASSERT_EQ(2u, longGot.size());
  EXPECT_EQ(lp, longGot[1]);

  // Fragmentation off: the packet goes through untouched.
  ASSERT_EQ(1, mf.SaveData(pkt.data(), 32));
  auto got = Drain(mf);
  ASSERT_EQ(1u, got.size());
  EXPECT_EQ(pkt, got[0]);
  EXPECT_EQ(0, mf.SaveData(pkt.data(), 31));

  EXPECT_EQ(0, MediaFrag(0, 0, 0, 0).IsOk());
}

TEST(MediaFrag, GetDataReportsTheSizeOnlyOnSuccess) {
  MediaFrag mf(0, 1024, 0, 0);
  char buf[64];
  unsigned n = 5;
  EXPECT_EQ(0, mf.GetData(buf, sizeof buf, &n));
  EXPECT_EQ(sizeof buf, n);  // the queue was consulted: back to len
  EXPECT_EQ(0, mf.GetData(nullptr, sizeof buf, &n));
  EXPECT_EQ(0u, n);

  // A packet larger than the reader's buffer is discarded.
  ASSERT_EQ(1, mf.SaveData(Packet(false, 1, 1, 100, 1, 0).data(), 112));
  ASSERT_EQ(1, mf.SaveData(Packet(false, 1, 2, 10, 1, 0).data(), 22));
  EXPECT_EQ(0, mf.GetData(buf, sizeof buf, &n));
  EXPECT_EQ(1, mf.GetData(buf, sizeof buf, &n));
  EXPECT_EQ(22u, n);
}

TEST(FragQueue, OverflowDropsEverythingUnlessGrowable) {
  Bytes pkt = Packet(false, 1, 1, 38, 1, 0);  // 50 bytes
  FragQueue fixed(120, 0, 0, 0);
  EXPECT_EQ(1, fixed.Write(pkt.data(), 50));
  EXPECT_EQ(1, fixed.Write(pkt.data(), 50));
  EXPECT_EQ(0, fixed.Write(pkt.data(), 50));
  EXPECT_EQ(0u, fixed.GetUsed());
  EXPECT_EQ(1, fixed.Write(pkt.data(), 50));

  FragQueue growable(60, 0, 1, 0);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(1, growable.Write(pkt.data(), 50));
  EXPECT_EQ(150u, growable.GetSize());

  // Through MediaFrag: a packet whose fragments do not all fit leaves the
  // queue empty, and the sequence numbers jump.
  MediaFrag mf(MediaFrag::kFragOn, 2000, 0, 0);
  EXPECT_EQ(0, mf.SaveData(Packet(false, 1, 1, 3000, 1, 0).data(), 3012));
  EXPECT_EQ(0u, mf.GetQueue()->GetUsed());
  ASSERT_EQ(1, mf.SaveData(Packet(false, 1, 2, 10, 1, 0).data(), 22));
  auto frags = Drain(mf);
  ASSERT_EQ(1u, frags.size());
  EXPECT_EQ(3u, Le32(frags[0], 4));
}

TEST(FragQueue, ReadVariantsAndPartialPackets) {
  FragQueue q(1024, 0, 0, 0);
  Bytes a = Packet(false, 1, 1, 100, 1, 0);
  Bytes b = Packet(false, 1, 2, 10, 1, 0);
  char *buf = nullptr;
  unsigned cap = 0;

  // Half a packet is not a packet yet.
  ASSERT_EQ(1, q.Write(a.data(), 50));
  EXPECT_EQ(0u, q.NextPktSize());
  EXPECT_EQ(0, q.Read(&buf, &cap, 1));
  ASSERT_EQ(1, q.Write(a.data() + 50, 62));
  EXPECT_EQ(112u, q.NextPktSize());

  // mayAllocate grows the reader's buffer to fit.
  EXPECT_EQ(1, q.Read(&buf, &cap, 1));
  EXPECT_EQ(112u, cap);
  EXPECT_EQ(0, std::memcmp(buf, a.data(), 112));

  // A null buffer asks for the size and drops the packet.
  ASSERT_EQ(1, q.Write(b.data(), 22));
  ASSERT_EQ(1, q.Write(a.data(), 112));
  EXPECT_EQ(0, q.Read(nullptr, &cap, 0));
  EXPECT_EQ(22u, cap);
  EXPECT_EQ(112u, q.GetUsed());
  std::free(buf);

  // Long-form sizes come from the 32-bit length.
  FragQueue lq(1024, 1, 0, 0);
  Bytes l = Packet(true, 1, 1, 300, 1, 0);
  ASSERT_EQ(1, lq.Write(l.data(), static_cast<unsigned>(l.size())));
  EXPECT_EQ(314u, lq.NextPktSize());
}

TEST(FragQueue, StreamFilterDropsOtherStreamsAndCountsGaps) {
  FragQueue q(4096, 0, 0, 0);
  q.SetFilter(7);
  for (std::uint32_t seq : {1u, 2u, 5u, 3u, 9u}) {
    Bytes mine = Packet(false, 7, seq, 4, 1, 0);
    Bytes other = Packet(false, 8, seq + 100, 4, 1, 0);
    ASSERT_EQ(1, q.Write(other.data(), 16));
    ASSERT_EQ(1, q.Write(mine.data(), 16));
  }
  std::vector<std::uint32_t> seen;
  char storage[64];
  char *buf = storage;
  unsigned cap = sizeof storage;
  while (q.Read(&buf, &cap, 0) == 1) {
    seen.push_back(Le32(Bytes(storage, storage + 16), 4));
    cap = sizeof storage;
  }
  EXPECT_EQ((std::vector<std::uint32_t>{1, 2, 5, 3, 9}), seen);
  // 2 -> 5 loses 3 and 4; 3 -> 9 loses five more; going back counts nothing.
  EXPECT_EQ(7u, q.GetnPacketsLost());
  q.SetFilter(0);
  EXPECT_EQ(0u, q.GetnPacketsLost());
}

// Polls a condition for up to ten seconds.
template <typename F>
bool Eventually(F f) {
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!f()) {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    std::this_thread::yield();
  }
  return true;
}

TEST(FragQueue, BlockingReadWaitsForAWholePacket) {
  MediaFrag mf(0, 4096, 0, 1);
  std::atomic<int> result{-1};
  std::atomic<unsigned> size{0};
  std::thread reader([&] {
    char buf[256];
    unsigned n = 0;
    result = mf.GetData(buf, sizeof buf, &n);
    size = n;
  });
  Bytes pkt = Packet(false, 1, 1, 30, 1, 0);
  // Feed the packet in two halves: the reader must not return on the first.
  ASSERT_EQ(1, mf.GetQueue()->Write(pkt.data(), 20));
  ASSERT_EQ(1, mf.GetQueue()->Write(pkt.data() + 20, 22));
  reader.join();
  EXPECT_EQ(1, result);
  EXPECT_EQ(42u, size);
}

TEST(FragQueue, CloseReleasesABlockedReader) {
  MediaFrag mf(0, 4096, 0, 1);
  std::atomic<int> entered{0};
  std::atomic<int> result{-1};
  std::thread reader([&] {
    char buf[64];
    unsigned n = 0;
    entered = 1;
    result = mf.GetData(buf, sizeof buf, &n);
  });
  ASSERT_TRUE(Eventually([&] { return entered.load() == 1; }));
  // Whether Close lands before or during the read, the reader comes back
  // with nothing, and the queue stays closed.
  mf.GetQueue()->Close();
  reader.join();
  EXPECT_EQ(0, result);
  Bytes pkt = Packet(false, 1, 1, 4, 1, 0);
  EXPECT_EQ(0, mf.SaveData(pkt.data(), 16));
  EXPECT_EQ(0, mf.GetQueue()->IsOk());
}

TEST(FragQueue, OneWriterOneReaderKeepEveryFragmentInOrder) {
  constexpr std::uint32_t kPackets = 300;
  MediaFrag mf(MediaFrag::kFragOn, 1 << 16, 1, 1);
  std::vector<std::uint32_t> fragSeqs;
  std::thread reader([&] {
    char buf[2048];
    unsigned n = 0;
    while (fragSeqs.size() < kPackets * 2 && mf.GetData(buf, sizeof buf, &n) == 1)
      fragSeqs.push_back(Le32(Bytes(buf, buf + 8), 4));
  });
  for (std::uint32_t i = 1; i <= kPackets; ++i) {
    if (mf.SaveData(Packet(false, 1, i, 1500, 1, 0).data(), 1512) != 1) {
      ADD_FAILURE() << "SaveData failed at packet " << i;
      mf.GetQueue()->Close();  // let the reader go
      break;
    }
  }
  reader.join();
  ASSERT_EQ(kPackets * 2, fragSeqs.size());
  for (std::uint32_t i = 0; i < kPackets * 2; ++i)
    ASSERT_EQ(i + 1, fragSeqs[i]);
}

}  // namespace
