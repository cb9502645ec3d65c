// A socket closed by one thread while another waits on the demultiplexer.
#include "DemuxTestSupport.h"

#include "socket/SockEventsWrapper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

using namespace demux_test;

namespace {

class DemuxWaitTest : public ::testing::TestWithParam<unsigned char> {};

// The closing thread unwatches and closes the socket, and a new socket takes
// its number; the waiting thread then forgets the old registration. The
// flag between them is relaxed on purpose: nothing orders the new socket's
// creation before the forget, as between a controller's caller and its pass
// thread, so forget must leave the system's view of that number alone
// (ThreadSanitizer reports it otherwise), and the number must be free for a
// registration of its new owner.
TEST_P(DemuxWaitTest, SocketClosedDuringAWaitLeavesItsNumberToTheNextOwner) {
  Owner owner;
  std::unique_ptr<SockEventsWrapper> sew(InitSockEventsWrapper(GetParam(), &owner, "wait test"));
  ASSERT_NE(sew, nullptr);
  Pair closing;
  Pair waker;
  ASSERT_TRUE(closing.ok() && waker.ok());
  for (Pair const *p : {&closing, &waker}) {
    ASSERT_EQ(sew->set(p->sock(), nullptr, 0), 1);
    owner.active.set(p->sock());
  }
  unsigned int const number = closing.sock();
  std::atomic<bool> reused{false};
  std::atomic<bool> forgotten{false};
  std::thread waiter([&] {
    (void)sew->EventHandler(kSewRead, 5000, 2048);  // a select or poll backend may see the closed socket fail
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!reused.load(std::memory_order_relaxed) && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    owner.active.clr(number);  // the owner's set belongs to the waiting thread
    sew->forget(number);
    forgotten.store(true, std::memory_order_relaxed);
  });
  sew->unwatch(number);
  closing.Close();
  Pair reuse;  // the lowest free number: the one just closed
  ASSERT_TRUE(reuse.ok());
  reused.store(true, std::memory_order_relaxed);
  waker.Poke();
  waiter.join();
  ASSERT_TRUE(forgotten.load());
  EXPECT_EQ(sew->getnfds(), 1);

  // The new owner of the number registers and is reported like any socket.
  ASSERT_EQ(sew->set(reuse.sock(), nullptr, 0), 1);
  owner.active.set(reuse.sock());
  reuse.Poke();
  ASSERT_EQ(sew->EventHandler(kSewRead, 5000, 2048), 2);
  unsigned int seen = 0;
  for (unsigned int fd = sew->firstEvent(nullptr, nullptr, nullptr); fd != kNone; fd = sew->nextEvent(nullptr, nullptr, nullptr)) {
    EXPECT_TRUE(fd == reuse.sock() || fd == waker.sock()) << fd;
    ++seen;
  }
  EXPECT_EQ(seen, 2u);
  EXPECT_EQ(reuse.sock(), number) << "the new socket did not take the closed number; the case was not exercised";
}

INSTANTIATE_TEST_SUITE_P(Backends, DemuxWaitTest, kWorkingBackends, BackendName);

}  // namespace
