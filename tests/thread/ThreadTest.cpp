#include "thread/Thread.h"
#include "thread/PosixThread.h"

#include "platform/ThreadApi.h"
#include "text/DebugOutput.h"
#include "thread/ThreadRegistry.h"
#include "ThreadTestUtil.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <string>

namespace {

using testutil::CountRegistry;
using testutil::Latch;

std::string EntryText(unsigned long id, std::string const &name) {
  char buf[128];
  std::snprintf(buf, sizeof buf, "%lx(%lu) %s", id, id, name.c_str());
  return std::string(buf).substr(0, 63);
}

struct Probe {
  std::atomic<int> runs{0};
  std::atomic<unsigned long> tid{0};
  char osName[32] = {};
  Latch entered;
  Latch release;
};

int ProbeBody(IThread *, void *arg) {
  auto *p = static_cast<Probe *>(arg);
  p->tid = shared::platform::CurrentThreadId();
  pthread_getname_np(pthread_self(), p->osName, sizeof p->osName);
  ++p->runs;
  p->entered.Open();
  p->release.Wait();
  return 7;
}

TEST(Thread, CreatedSuspendedRunsOnlyAfterResume) {
  Probe p;
  IThread *t = CreateIThread(ProbeBody, &p, 0, "suspended");
  ASSERT_NE(nullptr, t);
  // A suspended thread can never end: the bounded wait must time out.
  EXPECT_EQ(IThread::kWaitTimeout, t->WaitForMe(20));
  // Suspend counts nest until the body starts.
  EXPECT_EQ(1, t->Suspend());
  EXPECT_EQ(2, t->Resume());
  EXPECT_EQ(0, p.runs.load());
  EXPECT_EQ(1, t->Resume());
  ASSERT_TRUE(p.entered.Wait());
  // Running: cannot be suspended here, and resuming changes nothing.
  EXPECT_EQ(-1, t->Suspend());
  EXPECT_EQ(0, t->Resume());
  p.release.Open();
  EXPECT_EQ(IThread::kWaitEnded, t->WaitForMe(IThread::kInfinite));
  EXPECT_EQ(IThread::kWaitEnded, t->WaitForMe(0));  // ended stays ended
  EXPECT_EQ(1, p.runs.load());
  delete t;

  // Never resumed: released on deletion without running its body.
  Probe never;
  delete CreateIThread(ProbeBody, &never, 0, "never");
  EXPECT_EQ(0, never.runs.load());
  EXPECT_EQ(nullptr, CreateIThread(nullptr, &never, 1, "no body"));
}

TEST(ThreadRegistry, EntriesAreAddedAtCreationAndRemovedOnce) {
  std::string const longName(80, 'n');
  Probe a, b, c;
  IThread *ta = CreateIThread(ProbeBody, &a, 1, "  registry probe  ");
  IThread *tb = CreateIThread(ProbeBody, &b, 1, longName.c_str());
  IThread *tc = CreateIThread(ProbeBody, &c, 1, "   ");
  ASSERT_TRUE(ta && tb && tc);
  ASSERT_TRUE(a.entered.Wait() && b.entered.Wait() && c.entered.Wait());

  std::string const aText = EntryText(a.tid, "  registry probe");  // leading blanks kept
  std::string const bText = EntryText(b.tid, longName);
  std::string const cText = EntryText(c.tid, "");
  EXPECT_EQ(1, CountRegistry(aText));
  EXPECT_EQ(63u, bText.size());  // the whole text is cut to 63
  EXPECT_EQ(1, CountRegistry(bText));
  EXPECT_EQ(1, CountRegistry(cText));  // ends in the space after ')'
  EXPECT_STREQ("  registry prob", a.osName);  // the OS keeps 15 characters

  a.release.Open();
  b.release.Open();
  c.release.Open();
  for (IThread *t : {ta, tb, tc})  // the probes must outlive the bodies
    EXPECT_EQ(IThread::kWaitEnded, t->WaitForMe(IThread::kInfinite));
  EXPECT_EQ(1, CountRegistry(aText));  // ended, but its handle lives
  delete ta;
  delete tb;
  delete tc;
  EXPECT_EQ(0, CountRegistry(aText));
  EXPECT_EQ(0, CountRegistry(bText));
  EXPECT_EQ(0, CountRegistry(cText));
}

TEST(ThreadRegistry, EntriesSharingARecycledKernelIdAreRemovedByTheirOwn) {
  // An ended thread whose handle lives on, and a newer thread the kernel
  // gave the same id: destroying the newer handle must not unlist the older.
  unsigned long const id = 0x7FFFFFF1;
  unsigned long const older = shared::detail::ThreadRegistryAdd("recycled older", id);
  unsigned long const newer = shared::detail::ThreadRegistryAdd("recycled newer", id);
  ASSERT_NE(older, newer);
  shared::detail::ThreadRegistryRemove(newer);
  EXPECT_EQ(1, CountRegistry("recycled older"));
  EXPECT_EQ(0, CountRegistry("recycled newer"));
  shared::detail::ThreadRegistryRemove(older);
  EXPECT_EQ(0, CountRegistry("recycled older"));
}

TEST(ThreadRegistry, MainThreadIsListedFirstAndDisplayedThroughTheDebugChannel) {
  // The test runner's main thread loaded the library.
  std::string const main = EntryText(shared::platform::CurrentThreadId(), "Main Thread");
  char const *first = nullptr;
  ASSERT_EQ(1, ThreadMgr_ListFirst(&first));
  EXPECT_EQ(main, first);

  testing::internal::CaptureStderr();
  ThreadMgr_DisplayThreads();  // channel off: nothing
  SetErrorLevel(0);
  SetDebugSink(kDebugSinkStderr);
  ThreadMgr_DisplayThreads();
  SetDebugSink(kDebugSinkNone);
  SetErrorLevel(-1);
  EXPECT_EQ(0u, testing::internal::GetCapturedStderr().find("ThreadMgr: " + main + "\n"));
}

struct Exiter {
  std::atomic<bool> destructorRan{false};
  std::atomic<bool> pastExit{false};
};

int ExitingBody(IThread *t, void *arg) {
  auto *e = static_cast<Exiter *>(arg);
  EXPECT_EQ(-1, t->WaitForMe(IThread::kInfinite));  // on itself: refused
  struct SetOnDestroy {
    std::atomic<bool> &flag;
    ~SetOnDestroy() { flag = true; }
  } guard{e->destructorRan};
  t->Exit(3);
  e->pastExit = true;
  return 0;
}

TEST(Thread, ExitEndsOnlyTheCallingThreadAndUnwinds) {
  Exiter e;
  IThread *t = CreateIThread(ExitingBody, &e, 0, "exiter");
  ASSERT_NE(nullptr, t);
  t->Exit(1);  // not the thread itself: nothing happens here
  ASSERT_EQ(1, t->Resume());
  EXPECT_EQ(IThread::kWaitEnded, t->WaitForMe(IThread::kInfinite));
  EXPECT_TRUE(e.destructorRan);
  EXPECT_FALSE(e.pastExit);
  delete t;
}

}  // namespace
