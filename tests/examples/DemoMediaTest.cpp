// The demo's own parts: the synthetic frames and their check, and the
// sender's loss and reorder stage.
#include "DemoMedia.h"
#include "LossStage.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using demo::Bytes;

// A fragment as the fragmenter makes it: media at 0, its sequence at 4, the
// frame number at 12.
Bytes Fragment(std::uint32_t media, std::uint32_t seq, std::uint32_t frame) {
  Bytes b(20, 0);
  for (int i = 0; i < 4; ++i) {
    b[static_cast<unsigned>(i)] = static_cast<unsigned char>(media >> (8 * i));
    b[4 + static_cast<unsigned>(i)] = static_cast<unsigned char>(seq >> (8 * i));
    b[12 + static_cast<unsigned>(i)] = static_cast<unsigned char>(frame >> (8 * i));
  }
  return b;
}

struct Recorder final : demo::IFragmentSink {
  std::vector<std::pair<std::uint32_t, std::uint32_t>> got;  // media, seq
  bool refuse = false;
  bool Send(Bytes const &f) override {
    got.emplace_back(demo::Le32(f.data()), demo::Le32(f.data() + 4));
    return !refuse;
  }
};

TEST(DemoMedia, FramesCarryHeaderTimeStampAndACheckablePattern) {
  Bytes const v = demo::MakeFrame(demo::kVideoId, 9, 900);
  unsigned const n = demo::FrameBytes(demo::kVideoId, 9);
  EXPECT_GT(n, 1400u);  // always more than one fragment
  ASSERT_EQ(v.size(), 12 + demo::kExtBytes + n);
  EXPECT_EQ(demo::Le32(v.data()), demo::kVideoId);
  EXPECT_EQ(demo::Le32(v.data() + 4), 9u);
  EXPECT_EQ(demo::Le16(v.data() + 8), demo::kExtBytes + n);
  EXPECT_EQ(demo::Le32(v.data() + 16), 900u);
  unsigned char const *data = v.data() + 20;
  EXPECT_TRUE(demo::FrameIntact(demo::kVideoId, 9, data, n));
  // Another frame, another media, a short or a changed copy: all refused.
  EXPECT_FALSE(demo::FrameIntact(demo::kVideoId, 17, data, n));
  EXPECT_FALSE(demo::FrameIntact(demo::kAudioId, 9, data, n));
  EXPECT_FALSE(demo::FrameIntact(demo::kVideoId, 9, data, n - 1));
  Bytes changed(data, data + n);
  changed[n / 2] ^= 1;
  EXPECT_FALSE(demo::FrameIntact(demo::kVideoId, 9, changed.data(), n));

  Bytes const a = demo::MakeFrame(demo::kAudioId, 3, 60);
  EXPECT_EQ(a[11], demo::kAudioFlag);
  EXPECT_EQ(a.size(), 20u + demo::kAudioBytes);
}

TEST(LossStage, WithoutRatesEverythingPassesInOrder) {
  Recorder out;
  demo::LossStage stage(out, 0, 0, 1);
  for (std::uint32_t s = 1; s <= 50; ++s)
    stage.Push(Fragment(1, s, s / 4));
  ASSERT_EQ(out.got.size(), 50u);
  for (std::uint32_t s = 1; s <= 50; ++s)
    EXPECT_EQ(out.got[s - 1].second, s);
  EXPECT_EQ(stage.Dropped() + stage.Reordered(), 0u);
}

TEST(LossStage, ReorderSwapsNeighboursOfOneMediaAndFlushReleasesTheHeldOne) {
  Recorder out;
  demo::LossStage stage(out, 0, 1.0, 1);  // every free fragment is held
  stage.Push(Fragment(1, 1, 0));
  stage.Push(Fragment(2, 1, 0));  // another media does not release media 1's
  EXPECT_TRUE(out.got.empty());
  stage.Push(Fragment(1, 2, 0));
  stage.Push(Fragment(2, 2, 0));
  stage.Push(Fragment(1, 3, 0));  // held again
  std::vector<std::pair<std::uint32_t, std::uint32_t>> const swapped = {{1, 2}, {1, 1}, {2, 2}, {2, 1}};
  EXPECT_EQ(out.got, swapped);
  stage.Flush();
  ASSERT_EQ(out.got.size(), 5u);
  EXPECT_EQ(out.got.back(), std::make_pair(1u, 3u));
  EXPECT_EQ(stage.Reordered(), 3u);
  EXPECT_EQ(stage.Dropped(), 0u);
}

TEST(LossStage, DropsMarkTheirFramesDamagedAndTheSeedRepeatsTheRun) {
  auto run = [](std::uint32_t seed, Recorder &out) {
    demo::LossStage stage(out, 0.3, 0, seed);
    for (std::uint32_t s = 1; s <= 200; ++s)
      stage.Push(Fragment(7, s, s / 4));
    unsigned damaged = 0;
    for (std::uint32_t f = 0; f <= 50; ++f)
      damaged += stage.Damaged(7, f) ? 1 : 0;
    // Every frame missing a fragment is marked, and only those.
    std::vector<unsigned> passed(51, 0);
    for (auto const &g : out.got)
      ++passed[g.second / 4];
    for (std::uint32_t f = 1; f < 50; ++f)
      EXPECT_EQ(stage.Damaged(7, f), passed[f] != 4) << f;
    EXPECT_FALSE(stage.Damaged(8, 1));
    EXPECT_EQ(out.got.size() + stage.Dropped(), 200u);
    return damaged;
  };
  Recorder a, b, c;
  unsigned const damaged = run(5, a);
  EXPECT_GT(damaged, 0u);
  EXPECT_EQ(run(5, b), damaged);
  EXPECT_EQ(a.got, b.got);
  run(6, c);
  EXPECT_NE(a.got, c.got);
}

TEST(LossStage, BypassFlushesAndThenPassesEverythingCountingRefusals) {
  Recorder out;
  demo::LossStage stage(out, 1.0, 0, 1);
  stage.Push(Fragment(1, 1, 0));
  EXPECT_EQ(stage.Dropped(), 1u);
  stage.Bypass();
  out.refuse = true;
  stage.Push(Fragment(1, 2, 0));
  stage.Push(Fragment(1, 3, 0));
  EXPECT_EQ(out.got.size(), 2u);
  EXPECT_EQ(stage.Dropped(), 1u);
  EXPECT_EQ(stage.SendFailures(), 2u);
}

}  // namespace
