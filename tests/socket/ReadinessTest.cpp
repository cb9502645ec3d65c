// The platform's readiness wrappers (used by the send queue as well).
#include "DemuxTestSupport.h"

#include "platform/Readiness.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using namespace demux_test;
namespace pf = shared::platform;

namespace {

TEST(WaitSocketsTest, ReportsEachSocketsKindsAboveTheFdSetLimit) {
  if (!RaiseFdLimit(2200)) GTEST_SKIP() << "descriptor limit too low";
  std::vector<std::unique_ptr<Pair>> pairs;
  for (int i = 0; i < 600; ++i) pairs.push_back(std::make_unique<Pair>());
  ASSERT_TRUE(pairs.back()->ok());
  ASSERT_GT(pairs.back()->a, 1023);
  Pair &high = *pairs.back();
  Pair &full = *pairs[pairs.size() - 2];
  full.FillSendBuffer();

  std::uint32_t socks[] = {full.sock(), high.sock(), kNone};
  unsigned char ready[3] = {9, 9, 9};
  EXPECT_EQ(pf::WaitSockets(socks, 3, 2, 5000, ready), 1);
  EXPECT_EQ(ready[0], 0);
  EXPECT_EQ(ready[1], 2);
  EXPECT_EQ(ready[2], 0);  // "no socket" is skipped

  // Nothing readable: the wait ends by time-out, not before (20 ms slop).
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(pf::WaitSockets(socks, 2, 1, 200, ready), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(180));

  // A hung-up peer reports the kinds asked for plus the error bit.
  ::close(high.b);
  high.b = -1;
  EXPECT_EQ(pf::WaitSockets(socks, 2, 1, 5000, ready), 1);
  EXPECT_EQ(ready[1], 1 | 4);
  EXPECT_EQ(pf::WaitSockets(nullptr, 2, 1, 0, nullptr), -1);
}

TEST(EpollSetTest, RefusesWhatIsNotOpen) {
  if (!pf::HaveEpoll()) GTEST_SKIP();
  pf::EpollSet set;
  EXPECT_EQ(set.Add(0, pf::kPollIn, 0), -1);  // not open yet
  ASSERT_TRUE(set.Open());
  Pair p;
  EXPECT_EQ(set.Add(p.a, pf::kPollIn, 42), 0);
  EXPECT_EQ(set.Add(p.a, pf::kPollIn, 42), -1);  // already there
  EXPECT_EQ(set.Add(100000, pf::kPollIn, 0), -1);
  p.Poke();
  ASSERT_EQ(set.Wait(4, 5000), 1);
  EXPECT_EQ(set.EventData(0), 42u);
  EXPECT_NE(set.EventMask(0) & static_cast<unsigned>(pf::kPollIn), 0u);
  EXPECT_EQ(set.Remove(p.a), 0);
  EXPECT_EQ(set.Wait(4, 0), 0);
}

}  // namespace
