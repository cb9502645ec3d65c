// The read offset of SockBuf_reg: reads only advance it, the live bytes move
// to the front when a save would run off the buffer, and none of that may
// show through sizes, packet order, the drop policy or a blocked reader.
#include "sockbuf/SockBuf_reg.h"

#include "PktTestUtil.h"
#include "thread/ThreadTestUtil.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <thread>

namespace {

using namespace pkttest;

int Save(SockBuf_reg& reg, unsigned char const* p, unsigned n) {
  return reg.SaveData(const_cast<unsigned char*>(p), n);
}
int Save(SockBuf_reg& reg, Bytes const& b) { return Save(reg, b.data(), Len(b)); }

Bytes Take(SockBuf_reg& reg) {
  Bytes out(70000);
  unsigned len = Len(out);
  if (!reg.GetData(out.data(), &len))
    return {};
  out.resize(len);
  return out;
}

SockBuf_reg& Open(SockBuf_reg& reg) {
  reg.SetBlock(0);
  reg.OpenUrl();
  return reg;
}

// What the register must look like from outside: whole packets in order,
// and a save that does not fit the window empties it.
class Model {
 public:
  explicit Model(unsigned capacity) : capacity_(capacity) {}
  bool Save(Bytes const& p) {
    if (used_ + p.size() > capacity_) {
      packets_.clear();
      used_ = 0;
      return false;
    }
    packets_.push_back(p);
    used_ += p.size();
    return true;
  }
  Bytes Take() {
    if (packets_.empty())
      return {};
    Bytes p = packets_.front();
    packets_.pop_front();
    used_ -= p.size();
    return p;
  }
  unsigned Used() const { return static_cast<unsigned>(used_); }

 private:
  std::size_t const capacity_;
  std::size_t used_ = 0;
  std::deque<Bytes> packets_;
};

TEST(SockBufRegOffset, InterleavedSavesAndReadsMatchTheModelOverManyCompactions) {
  for (unsigned const capacity : {64u, 200u, 1400u}) {
    SCOPED_TRACE(capacity);
    std::mt19937 rng(capacity);
    SockBuf_reg reg(capacity, 0);
    Open(reg);
    Model model(capacity);
    std::uint32_t seq = 0;
    for (int step = 0; step < 20000; ++step) {
      // Slightly more saves than reads: the register keeps running full.
      if (rng() % 100 < 55) {
        Bytes const p = Pkt(1, ++seq, rng() % 60);
        ASSERT_EQ(model.Save(p) ? 1 : 0, Save(reg, p)) << "step " << step;
      } else {
        ASSERT_EQ(model.Take(), Take(reg)) << "step " << step;
      }
      ASSERT_EQ(model.Used(), reg.GetBytesUsed());
      ASSERT_EQ(capacity - model.Used(), reg.GetBytesLeft());
    }
  }
}

// The input register of the reader receives arbitrary pieces of the byte
// stream; a packet may be half before and half after a compaction.
TEST(SockBufRegOffset, PacketsSplitAcrossSavesSurviveCompaction) {
  std::mt19937 rng(7);
  Bytes stream;
  std::vector<Bytes> sent;
  for (std::uint32_t seq = 1; seq <= 3000; ++seq) {
    sent.push_back(Pkt(2, seq, 1 + rng() % 40));
    stream.insert(stream.end(), sent.back().begin(), sent.back().end());
  }
  SockBuf_reg input(120, 0);
  Open(input);
  std::vector<Bytes> got;
  for (std::size_t at = 0; at < stream.size();) {
    unsigned const piece = static_cast<unsigned>(std::min<std::size_t>(1 + rng() % 50, stream.size() - at));
    if (input.GetBytesLeft() < piece) {  // the reader takes before it overflows
      Bytes p = Take(input);
      ASSERT_FALSE(p.empty());
      got.push_back(p);
      continue;
    }
    ASSERT_EQ(1, Save(input, stream.data() + at, piece));
    at += piece;
    // The pointer handed out is the oldest live byte: the pending header.
    if (input.GetBytesUsed() >= 8 && (rng() & 1) != 0) {
      auto const* front = static_cast<unsigned char const*>(input.GetBufPtr());
      ASSERT_EQ(static_cast<std::uint32_t>(got.size() + 1), Get32(front + 4));
    }
    if (rng() % 3 == 0)
      for (Bytes p = Take(input); !p.empty(); p = Take(input))
        got.push_back(p);
  }
  for (Bytes p = Take(input); !p.empty(); p = Take(input))
    got.push_back(p);
  EXPECT_EQ(sent, got);
}

TEST(SockBufRegOffset, ExactlyFullWindowAndEmptyingResetsTheOffset) {
  SockBuf_reg reg(32, 0);
  Open(reg);
  void* const start = reg.GetBufPtr();
  ASSERT_EQ(1, Save(reg, Pkt(1, 1)));
  ASSERT_EQ(1, Save(reg, Pkt(1, 2)));
  EXPECT_EQ(0u, reg.GetBytesLeft());  // exactly full still stores
  EXPECT_EQ(1u, Get32(Take(reg).data() + 4));
  EXPECT_EQ(16u, reg.GetBytesLeft());  // room counts the consumed prefix
  // Walk the offset to the end of the buffer and past it.
  for (std::uint32_t seq = 3; seq < 12; ++seq) {
    ASSERT_EQ(1, Save(reg, Pkt(1, seq))) << seq;
    EXPECT_EQ(0u, reg.GetBytesLeft());
    ASSERT_EQ(seq - 1, Get32(Take(reg).data() + 4));
  }
  EXPECT_EQ(0, Save(reg, Pkt(1, 12, 5)));  // one byte over: all dropped
  EXPECT_EQ(0u, reg.GetBytesUsed());
  EXPECT_EQ(start, reg.GetBufPtr());

  ASSERT_EQ(1, Save(reg, Pkt(1, 13)));
  Take(reg);
  EXPECT_EQ(start, reg.GetBufPtr());  // the read that empties rewinds
  EXPECT_EQ(32u, reg.GetBytesLeft());
}

TEST(SockBufRegOffset, GrowingKeepsUnreadPacketsInOrder) {
  SockBuf_reg reg(32, 1);
  Open(reg);
  Save(reg, Pkt(1, 1));
  Save(reg, Pkt(1, 2));
  Take(reg);
  ASSERT_EQ(1, Save(reg, Pkt(1, 3, 20)));  // 16 live + 32 > 32: grows to 48
  EXPECT_EQ(48u, reg.GetMaxBufLen());
  EXPECT_EQ(Pkt(1, 2), Take(reg));
  EXPECT_EQ(Pkt(1, 3, 20), Take(reg));
}

TEST(SockBufRegOffset, HeldWakeLeavesTheReaderAsleepUntilReleased) {
  SockBuf_reg reg(1024, 0);
  reg.OpenUrl();
  Bytes got;
  std::thread reader([&] { got = Take(reg); });
  struct Join {
    std::thread& t;
    SockBuf_reg& reg;
    ~Join() {
      reg.Abort();  // a failed assertion must not leave the reader blocked
      t.join();
    }
  } join{reader, reg};
  ASSERT_TRUE(testutil::Eventually([&] { return reg.IsWaitingForData() == 1; }));
  reg.HoldWake(1);
  ASSERT_EQ(1, Save(reg, Pkt(1, 1)));
  ASSERT_EQ(1, Save(reg, Pkt(1, 2)));
  EXPECT_EQ(1, reg.IsWaitingForData());
  reg.HoldWake(0);
  ASSERT_TRUE(testutil::Eventually([&] { return reg.GetBytesUsed() == 16; }));
  reader.join();
  EXPECT_EQ(Pkt(1, 1), got);

  reg.HoldWake(1);
  reg.reset();  // a reused register wakes its readers again
  reg.OpenUrl();
  std::thread second([&] { got = Take(reg); });
  join.t.swap(second);
  ASSERT_TRUE(testutil::Eventually([&] { return reg.IsWaitingForData() == 1; }));
  ASSERT_EQ(1, Save(reg, Pkt(1, 3)));
  ASSERT_TRUE(testutil::Eventually([&] { return reg.IsWaitingForData() == 0; }));
}

}  // namespace
