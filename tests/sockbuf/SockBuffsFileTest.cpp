// Recording, playback paced by time stamps (test clock), seeking through the
// index block, and a recording that runs out of room.
#include "sockbuf/SockBuffs.h"

#include "ReaderTestUtil.h"
#include "file/TempDir.h"
#include "platform/Clock.h"
#include "sockbuf/IndexStr.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>

#include <filesystem>

using namespace readertest;
namespace sp = shared::platform;

namespace {

constexpr unsigned kA = 0x77;
constexpr unsigned kPayload = 100;
constexpr unsigned kPktLen = kPayload + 12;

// Records one packet of kA per time stamp (sequence numbers from 1); a
// packet of an unbound identifier in between is not recorded.
void Record(std::string const& path, std::vector<unsigned> const& stamps, SockBuffs* reader = nullptr) {
  SockBuffs own(2, 1 << 20);
  SockBuffs& r = reader != nullptr ? *reader : own;
  r.DisableReadThread();
  ASSERT_EQ(r.Play(), 1);
  ASSERT_EQ(r.CreateWnd(1, 0, 0, 0, 0, kA, 0), 1);
  ASSERT_EQ(r.SetSaveFileName(path.c_str()), 1);
  unsigned seq = 0;
  for (unsigned ts : stamps) {
    Bytes p = MediaPkt(kA, ++seq, ts, kPayload);
    r.WriteData(p.data(), pkttest::Len(p));
    if (seq == 2) {
      Bytes stray = MediaPkt(kA + 1, 1, ts, kPayload);
      r.WriteData(stray.data(), pkttest::Len(stray));
    }
  }
  if (reader == nullptr) r.Stop();
}

std::vector<unsigned> Stamps(unsigned n, unsigned first, unsigned step) {
  std::vector<unsigned> s;
  for (unsigned i = 0; i < n; ++i) s.push_back(first + i * step);
  return s;
}

// Plays a recording with the test clock; returns the packets and how far the
// clock moved while the read thread paced them.
struct Playback {
  sp::ManualClock clock;
  sp::ScopedClockSource use{clock};
  Notifier notifier;
  SockBuffs r{2, 1 << 20};
  std::vector<Bytes> got;
  std::uint32_t elapsedMs = 0;

  Playback(std::string const& path, std::size_t expect, double seekPercent = -1,
           unsigned maxWaitMs = SockBuffs::kDefaultMaxWaitMs) {
    std::uint32_t const start = clock.TickCount();
    r.SetINotify(&notifier, 0, 0);
    r.SetMaxWaitTime(maxWaitMs);
    EXPECT_EQ(r.SetUrl(("file://" + path).c_str()), 1);
    if (seekPercent >= 0) r.SetReadOffset(seekPercent);
    EXPECT_EQ(r.CreateWnd(1, 0, 0, 0, 0, kA, 0), 1);  // opens the file
    r.SetWndBlock(1, 0);
    EXPECT_EQ(r.Play(), 1);
    got = ReadN(r.GetWndObj(1), expect);
    EXPECT_TRUE(WaitFor([&] { return notifier.Ends() == 1; }));
    elapsedMs = clock.TickCount() - start;
    r.Stop();
  }
};

TEST(SockBuffsFile, RecordingPlaysBackTheSamePacketsAtTheirPace) {
  testutil::TempDir dir;
  std::string const path = dir / "a.rec";
  Record(path, Stamps(200, 1000, 40));
  EXPECT_EQ(std::filesystem::file_size(path), IndexStr(1000).GetBlockSize() + 200u * kPktLen);
  Playback p(path, 200);
  ASSERT_EQ(p.got.size(), 200u);
  for (unsigned i = 0; i < 200; ++i) EXPECT_EQ(p.got[i], MediaPkt(kA, i + 1, 1000 + i * 40, kPayload));
  // 199 steps of 40 ms; slop for the clock steps of other sleepers.
  EXPECT_GE(p.elapsedMs, 199u * 40);
  EXPECT_LE(p.elapsedMs, 199u * 40 + 200);
}

// A jump of 60 s in the stamps waits the maximum only, then play goes on in
// real time from the packet after the jump.
TEST(SockBuffsFile, JumpInTimeStampsWaitsAtMostTheMaximum) {
  testutil::TempDir dir;
  std::string const path = dir / "jump.rec";
  Record(path, {1000, 1040, 61040, 61080, 61120});
  Playback p(path, 5, -1, 5000);
  EXPECT_EQ(Seqs(p.got), (std::vector<std::uint32_t>{1, 2, 3, 4, 5}));
  EXPECT_GE(p.elapsedMs, 40u + 5000 + 80);
  EXPECT_LE(p.elapsedMs, 40u + 5000 + 80 + 200);
}

TEST(SockBuffsFile, SeekToHalfLandsOnTheIndexedPacket) {
  testutil::TempDir dir;
  std::string const path = dir / "seek.rec";
  Record(path, Stamps(300, 1000, 40));
  IndexStr idx(1000);
  ASSERT_EQ(idx.CreateIndexes(path.c_str()), 1);
  ASSERT_GT(idx.GetnIndex(), 100u);
  unsigned const target = idx.GetIndex(idx.GetnIndex() / 2);  // an even count: no tie
  ASSERT_GT(target, idx.GetBlockSize());
  unsigned const firstSeq = (target - idx.GetBlockSize()) / kPktLen + 1;
  Playback p(path, 300 - firstSeq + 1, 50.0);
  ASSERT_FALSE(p.got.empty());
  EXPECT_EQ(SeqOf(p.got.front()), firstSeq);
  EXPECT_EQ(SeqOf(p.got.back()), 300u);
  EXPECT_EQ(p.got.size(), 300 - firstSeq + 1);
}

// The file size limit of the process stands in for a full disk: the write
// that crosses it comes back short and the recording ends, the stream not.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    ::getrlimit(RLIMIT_FSIZE, &saved_);
    oldHandler_ = std::signal(SIGXFSZ, SIG_IGN);
    rlimit lim = saved_;
    lim.rlim_cur = bytes;
    ok_ = ::setrlimit(RLIMIT_FSIZE, &lim) == 0;
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, oldHandler_);
  }
  bool ok() const { return ok_; }

 private:
  rlimit saved_{};
  void (*oldHandler_)(int) = nullptr;
  bool ok_ = false;
};

TEST(SockBuffsFile, RecordingOnAFullDiskEndsAndTheStreamGoesOn) {
  testutil::TempDir dir;
  std::string const path = dir / "full.rec";
  rlim_t const room = IndexStr(1000).GetBlockSize() + 10 * kPktLen + kPktLen / 2;
  SockBuffs r(2, 1 << 20);
  {
    FileSizeLimit limit(room);
    ASSERT_TRUE(limit.ok());
    Record(path, Stamps(40, 1000, 40), &r);
  }
  EXPECT_EQ(r.IsRecording(), 0);
  r.SetWndBlock(1, 0);
  EXPECT_EQ(Drain(r.GetWndObj(1)).size(), 40u);
  EXPECT_LE(std::filesystem::file_size(path), room);
  r.Stop();
}

}  // namespace
