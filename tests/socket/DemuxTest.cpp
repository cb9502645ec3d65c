// One suite run against every working demultiplexer: select, poll, epoll.
#include "DemuxTestSupport.h"

#include "platform/Clock.h"
#include "socket/EPollWrapper.h"
#include "socket/PollWrapper.h"
#include "socket/SelectWrapper.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

using namespace demux_test;

namespace {

using Clock = std::chrono::steady_clock;

long ElapsedMs(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

class DemuxTest : public ::testing::TestWithParam<unsigned char> {
protected:
  void SetUp() override {
    sew_.reset(InitSockEventsWrapper(GetParam(), &owner_, "demux test"));
    ASSERT_NE(sew_, nullptr);
    ASSERT_EQ(sew_->GetMode(), GetParam());
  }
  bool IsSelect() const { return GetParam() == kSewModeSelect; }

  // Registers p with the wrapper and the owner, as a controller does.
  void Add(Pair const &p) {
    ASSERT_TRUE(p.ok());
    ASSERT_EQ(sew_->set(p.sock(), const_cast<Pair *>(&p), 0), 1);
    owner_.active.set(p.sock());
  }
  void Remove(Pair const &p) {
    sew_->clr(p.sock());
    owner_.active.clr(p.sock());
  }
  // Every socket of one walk with its mask; fails on a socket seen twice.
  std::map<unsigned int, unsigned long> Walk() {
    std::map<unsigned int, unsigned long> seen;
    unsigned long ev = 0;
    unsigned int pos = 0;
    for (unsigned int fd = sew_->firstEvent(&ev, &pos, nullptr); fd != kNone; fd = sew_->nextEvent(&ev, &pos, nullptr)) {
      EXPECT_NE(pos, 0u);
      EXPECT_TRUE(seen.emplace(fd, ev).second) << "socket " << fd << " reported twice";
    }
    EXPECT_EQ(pos, 0u);
    EXPECT_EQ(ev, 0u);
    return seen;
  }
  // A time-out long enough for a ready socket on every backend (select
  // counts whole seconds only).
  static constexpr long kReadyWaitMs = 5000;

  Owner owner_;
  std::unique_ptr<SockEventsWrapper> sew_;
};

TEST_P(DemuxTest, RegistrationCountsCallsButWatchesEachSocketOnce) {
  Pair p, q;
  EXPECT_EQ(sew_->set(kNone, nullptr, 0), 0);
  Add(p);
  ASSERT_EQ(sew_->set(p.sock(), nullptr, 0), 1);
  EXPECT_EQ(sew_->getnfds(), 2);

  // One clr stops watching p although one registration remains counted.
  sew_->clr(p.sock());
  EXPECT_EQ(sew_->getnfds(), 1);
  Add(q);
  p.Poke();
  q.Poke();
  ASSERT_EQ(sew_->EventHandler(kSewRead, kReadyWaitMs, 2048), 1);
  auto seen = Walk();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen.begin()->first, q.sock());

  // clr of a socket never set still undoes one registration; at 0 it stops.
  sew_->clr(12345);
  EXPECT_EQ(sew_->getnfds(), 1);
  sew_->clr(q.sock());
  EXPECT_EQ(sew_->getnfds(), 0);
  sew_->clr(q.sock());
  EXPECT_EQ(sew_->getnfds(), 0);

  Add(p);
  sew_->zero();
  EXPECT_EQ(sew_->getnfds(), 0);
  EXPECT_EQ(sew_->firstEvent(nullptr, nullptr, nullptr), kNone);
}

TEST_P(DemuxTest, ReportsOnlyTheReadableSocketsWithTheirMasks) {
  Pair p[4];
  for (Pair &x : p) Add(x);
  p[1].Poke();
  p[3].Poke();
  ASSERT_EQ(sew_->EventHandler(kSewRead, kReadyWaitMs, 2048), 2);
  auto seen = Walk();
  EXPECT_EQ(seen, (std::map<unsigned int, unsigned long>{{p[1].sock(), kSewRead}, {p[3].sock(), kSewRead}}));

  // The walk can be run again over the same results.
  EXPECT_EQ(Walk(), seen);

  // A peer that hung up makes its socket readable (the read then sees the end).
  Remove(p[0]);
  p[0].Close();
  Pair fresh;
  Add(fresh);
  ::close(fresh.b);
  fresh.b = -1;
  ASSERT_GE(sew_->EventHandler(kSewRead, kReadyWaitMs, 2048), 3);
  seen = Walk();
  EXPECT_EQ(seen.count(fresh.sock()), 1u);
}

TEST_P(DemuxTest, WriteReadinessFollowsTheSendBuffer) {
  Pair idle, full;
  Add(idle);
  Add(full);
  full.FillSendBuffer();
  ASSERT_EQ(sew_->EventHandler(kSewWrite, kReadyWaitMs, 2048), 1);
  auto seen = Walk();
  EXPECT_EQ(seen, (std::map<unsigned int, unsigned long>{{idle.sock(), kSewWrite}}));

  // Asking for both kinds reports both bits of one socket in one entry.
  idle.Poke();
  ASSERT_GE(sew_->EventHandler(kSewRead | kSewWrite, kReadyWaitMs, 2048), 1);
  seen = Walk();
  EXPECT_EQ(seen[idle.sock()], kSewRead | kSewWrite);
  EXPECT_EQ(seen.count(full.sock()), 0u);
}

TEST_P(DemuxTest, ContextComesBackWhereTheBackendKeepsIt) {
  Pair p;
  Add(p);
  p.Poke();
  ASSERT_EQ(sew_->EventHandler(kSewRead, kReadyWaitMs, 2048), 1);
  void *ctx = reinterpret_cast<void *>(1);
  EXPECT_EQ(sew_->firstEvent(nullptr, nullptr, &ctx), p.sock());
  EXPECT_EQ(ctx, IsSelect() ? nullptr : static_cast<void *>(&p));
}

TEST_P(DemuxTest, IdleWaitWithNothingRegisteredSleepsOnTheLibraryClock) {
  shared::platform::ManualClock clock;
  shared::platform::ScopedClockSource scoped(clock);
  std::uint32_t const before = clock.TickCount();
  EXPECT_EQ(sew_->EventHandler(kSewRead, -1, 2048), 0);
  EXPECT_EQ(clock.TickCount() - before, 100u);
  EXPECT_EQ(sew_->EventHandler(kSewRead, 1500, 2048), 0);
  EXPECT_EQ(clock.TickCount() - before, 1600u);

  // Registered, but no kind asked for: nothing to wait on either.
  Pair p;
  Add(p);
  p.Poke();
  EXPECT_EQ(sew_->EventHandler(0, 250, 2048), 0);
  EXPECT_EQ(clock.TickCount() - before, 1850u);
}

TEST_P(DemuxTest, TimeOutsFollowTheBackendsUnit) {
  Pair p;
  Add(p);
  // Slop: a wait may end up to 20 ms early by clock granularity, and is
  // allowed to overrun by seconds on a loaded machine.
  auto start = Clock::now();
  if (IsSelect()) {
    // Whole seconds: under 1000 ms polls at once, 2500 ms waits 2 s.
    EXPECT_EQ(sew_->EventHandler(kSewRead, 900, 2048), 0);
    EXPECT_LT(ElapsedMs(start), 800);
    start = Clock::now();
    EXPECT_EQ(sew_->EventHandler(kSewRead, 2500, 2048), 0);
    long const waited = ElapsedMs(start);
    EXPECT_GE(waited, 2000 - 20);
    EXPECT_LT(waited, 2450);
    // No time value exists for -1: the wait fails at once.
    start = Clock::now();
    EXPECT_EQ(sew_->EventHandler(kSewRead, -1, 2048), -1);
    EXPECT_LT(ElapsedMs(start), 800);
  } else {
    // Milliseconds, honoured exactly.
    EXPECT_EQ(sew_->EventHandler(kSewRead, 300, 2048), 0);
    long const waited = ElapsedMs(start);
    EXPECT_GE(waited, 300 - 20);
    EXPECT_LT(waited, 5000);
    // -1 is "no limit": it returns as soon as a socket is ready.
    p.Poke();
    EXPECT_EQ(sew_->EventHandler(kSewRead, -1, 2048), 1);
  }
}

TEST_P(DemuxTest, RemovalDuringTheWalkInvalidatesInsteadOfErasing) {
  Pair p[5];
  for (Pair &x : p) {
    Add(x);
    x.Poke();
  }
  ASSERT_EQ(sew_->EventHandler(kSewRead, kReadyWaitMs, 2048), 5);
  unsigned long ev = 0;
  unsigned int first = sew_->firstEvent(&ev, nullptr, nullptr);
  ASSERT_NE(first, kNone);

  // From inside the pass: drop the current socket and one still to come,
  // close the latter and let a new socket take its number.
  Pair *current = nullptr;
  Pair *victim = nullptr;
  for (Pair &x : p) {
    if (x.sock() == first) current = &x;
  }
  ASSERT_NE(current, nullptr);
  for (Pair &x : p) {
    if (&x != current && victim == nullptr) victim = &x;
  }
  // For select the walk follows the owner's order, so pick a later one.
  if (IsSelect()) victim = &p[4] == current ? &p[3] : &p[4];
  unsigned int const victimFd = victim->sock();
  Remove(*current);
  Remove(*victim);
  victim->Close();
  Pair reuse;
  ASSERT_TRUE(reuse.ok());
  if (reuse.sock() == victimFd) Add(reuse);  // same number, new socket, not readable

  std::set<unsigned int> rest;
  for (unsigned int fd = sew_->nextEvent(&ev, nullptr, nullptr); fd != kNone; fd = sew_->nextEvent(&ev, nullptr, nullptr)) {
    EXPECT_TRUE(rest.insert(fd).second);
  }
  EXPECT_EQ(rest.count(victimFd), 0u) << "a removed socket (or its number's new owner) was reported";
  EXPECT_EQ(rest.count(first), 0u);
  EXPECT_EQ(rest.size(), 3u);

  // The next wait no longer sees the removed sockets.
  ASSERT_EQ(sew_->EventHandler(kSewRead, kReadyWaitMs, 2048), 3);
  EXPECT_EQ(Walk().size(), 3u);
}

TEST_P(DemuxTest, DescriptorsAboveTheFdSetLimitWork) {
  constexpr int kPairs = 1100;  // 2200 descriptors, well past 1023
  if (!RaiseFdLimit(kPairs * 2 + 64)) GTEST_SKIP() << "descriptor limit too low";
  std::vector<std::unique_ptr<Pair>> pairs;
  for (int i = 0; i < kPairs; ++i) {
    pairs.push_back(std::make_unique<Pair>());
    ASSERT_TRUE(pairs.back()->ok());
    Add(*pairs.back());
  }
  ASSERT_GT(pairs.back()->a, 1023);
  std::map<unsigned int, unsigned long> expected;
  for (int i : {0, 700, kPairs - 2, kPairs - 1}) {
    pairs[static_cast<std::size_t>(i)]->Poke();
    expected[pairs[static_cast<std::size_t>(i)]->sock()] = kSewRead;
  }
  ASSERT_EQ(sew_->EventHandler(kSewRead, kReadyWaitMs, 2048), 4);
  EXPECT_EQ(Walk(), expected);

  // Both ends make 2200 distinct sockets: past select's 2048 registrations,
  // which only poll and epoll accept.
  int accepted = 0;
  for (auto &pair : pairs) accepted += sew_->set(static_cast<unsigned int>(pair->b), nullptr, 0);
  EXPECT_EQ(accepted, IsSelect() ? 2048 - kPairs : kPairs);
}

INSTANTIATE_TEST_SUITE_P(Backends, DemuxTest, kWorkingBackends, BackendName);

// --- select specifics ---------------------------------------------------------

TEST(SelectWrapperTest, RefusesThe2049thRegistration) {
  SelectWrapper sew("limit");
  Pair p;
  for (unsigned i = 0; i < kSewSelectMaxSockets; ++i) ASSERT_EQ(sew.set(p.sock(), nullptr, 0), 1);
  EXPECT_EQ(sew.set(p.sock() + 1, nullptr, 0), 0);
  EXPECT_EQ(sew.getnfds(), 2048);
  sew.clr(p.sock());
  EXPECT_EQ(sew.set(p.sock(), nullptr, 0), 1);
}

TEST(SelectWrapperTest, KindsNotAskedForKeepTheirEarlierResult) {
  Owner owner;
  SelectWrapper sew("stale");
  sew.SetIterator(&owner);
  Pair p;
  ASSERT_EQ(sew.set(p.sock(), nullptr, 0), 1);
  owner.active.set(p.sock());
  p.Poke();
  ASSERT_EQ(sew.EventHandler(kSewRead | kSewWrite, 1000, 2048), 2);
  // Drain the data: the socket is no longer readable, and a read-only wait
  // times out, yet the walk still shows the write result of the first wait.
  char c;
  ASSERT_EQ(::read(p.a, &c, 1), 1);
  EXPECT_EQ(sew.EventHandler(kSewRead, 0, 2048), 0);
  unsigned long ev = 0;
  EXPECT_EQ(sew.firstEvent(&ev, nullptr, nullptr), p.sock());
  EXPECT_EQ(ev, kSewWrite);
}

TEST(SelectWrapperTest, WalkFollowsTheOwnersOrderAndNeedsAnIterator) {
  Owner owner;
  SelectWrapper sew("order");
  Pair p[3];
  for (int i : {2, 0, 1}) {
    ASSERT_EQ(sew.set(p[i].sock(), nullptr, 0), 1);
    p[i].Poke();
  }
  for (int i : {1, 2, 0}) owner.active.set(p[i].sock());
  ASSERT_EQ(sew.EventHandler(kSewRead, 1000, 2048), 3);
  EXPECT_EQ(sew.firstEvent(nullptr, nullptr, nullptr), kNone);  // no iterator yet
  sew.SetIterator(&owner);
  unsigned int pos = 0;
  EXPECT_EQ(sew.firstEvent(nullptr, &pos, nullptr), p[1].sock());
  EXPECT_EQ(pos, 1u);
  EXPECT_EQ(sew.nextEvent(nullptr, &pos, nullptr), p[2].sock());
  EXPECT_EQ(pos, 2u);
  EXPECT_EQ(sew.nextEvent(nullptr, &pos, nullptr), p[0].sock());
  EXPECT_EQ(pos, 3u);
}

TEST(SelectWrapperTest, ADescriptorThatIsNotOpenFailsTheWait) {
  SelectWrapper sew("closed");
  int sv[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  ::close(sv[0]);
  ::close(sv[1]);
  ASSERT_EQ(sew.set(static_cast<unsigned int>(sv[0]), nullptr, 0), 1);
  EXPECT_EQ(sew.EventHandler(kSewRead, 0, 2048), -1);
}

// --- factory ------------------------------------------------------------------

TEST(InitSockEventsWrapperTest, PicksTheFirstMatchingModeInTheFixedOrder) {
  Owner owner;
  struct Case {
    unsigned char modes;
    unsigned long mode;  // 0: no wrapper
  } const cases[] = {{1, kSewModeSelect}, {9, kSewModeLinux}, {2, kSewModePoll},  {3, kSewModePoll},
                     {11, kSewModeLinux}, {4, 0},             {5, 0},             {0, 0},
                     {16, 0},             {0x13, kSewModePoll}};
  for (Case const &c : cases) {
    std::unique_ptr<SockEventsWrapper> sew(InitSockEventsWrapper(c.modes, &owner, "x"));
    if (c.mode == 0) {
      EXPECT_EQ(sew, nullptr) << int(c.modes);
    } else {
      ASSERT_NE(sew, nullptr) << int(c.modes);
      EXPECT_EQ(sew->GetMode(), c.mode);
      EXPECT_EQ(sew->GetIterator(), &owner);
    }
  }
  std::string const longName(100, 'n');
  std::unique_ptr<SockEventsWrapper> named(InitSockEventsWrapper(1, nullptr, longName.c_str()));
  EXPECT_EQ(std::string(named->GetName()), longName.substr(0, 63));
  std::unique_ptr<SockEventsWrapper> unnamed(InitSockEventsWrapper(1, nullptr, nullptr));
  EXPECT_STREQ(unnamed->GetName(), "");
}

}  // namespace
