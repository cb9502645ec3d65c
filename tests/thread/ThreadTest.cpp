#include "thread/Thread.h"

#include "platform/ThreadApi.h"
#include "text/DebugOutput.h"
#include "thread/ThreadRegistry.h"
#include "ThreadTestUtil.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
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
  EXPECT_TRUE(t->IsThreadOk());
  // A suspended thread can never end: the bounded wait must time out.
  EXPECT_EQ(IThread::kWaitTimeout, t->WaitForMe(20));
  EXPECT_EQ(0, p.runs.load());
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
}

TEST(Thread, StartedThreadRunsAtOnceAndFailuresGiveNull) {
  Probe p;
  p.release.Open();
  IThread *t = CreateIThread(ProbeBody, &p, 1, "started");
  ASSERT_NE(nullptr, t);
  EXPECT_EQ(IThread::kWaitEnded, t->WaitForMe(IThread::kInfinite));
  EXPECT_EQ(1, p.runs.load());
  delete t;

  EXPECT_EQ(nullptr, CreateIThread(nullptr, &p, 1, "no body"));
}

TEST(Thread, NeverResumedThreadIsReleasedWithoutRunningItsBody) {
  Probe p;
  IThread *t = CreateIThread(ProbeBody, &p, 0, "never");
  ASSERT_NE(nullptr, t);
  delete t;  // joins the parked thread: nothing leaks, nothing runs
  EXPECT_EQ(0, p.runs.load());
}

TEST(ThreadRegistry, EntryAddedAtCreationAndRemovedOnceAtDestruction) {
  Probe p;
  IThread *t = CreateIThread(ProbeBody, &p, 1, "  registry probe  ");
  ASSERT_NE(nullptr, t);
  ASSERT_TRUE(p.entered.Wait());
  std::string const text = EntryText(p.tid, "  registry probe");  // leading blanks kept, trailing trimmed
  EXPECT_EQ(1, CountRegistry(text));
  // The OS gets the name cut to what it keeps.
  EXPECT_STREQ("  registry prob", p.osName);
  p.release.Open();
  EXPECT_EQ(IThread::kWaitEnded, t->WaitForMe(IThread::kInfinite));
  EXPECT_EQ(1, CountRegistry(text));  // ended but its handle lives: still listed
  delete t;
  EXPECT_EQ(0, CountRegistry(text));
}

TEST(ThreadRegistry, LongAndBlankNames) {
  std::string const longName(80, 'n');
  Probe a, b;
  a.release.Open();
  b.release.Open();
  IThread *ta = CreateIThread(ProbeBody, &a, 1, longName.c_str());
  IThread *tb = CreateIThread(ProbeBody, &b, 1, "   ");
  ASSERT_NE(nullptr, ta);
  ASSERT_NE(nullptr, tb);
  ASSERT_TRUE(a.entered.Wait());
  ASSERT_TRUE(b.entered.Wait());
  // The whole text is cut to 63 characters.
  std::string const aText = EntryText(a.tid, longName);
  EXPECT_EQ(63u, aText.size());
  EXPECT_EQ(1, CountRegistry(aText));
  // A blank name leaves the text ending in the space after the parenthesis.
  EXPECT_EQ(1, CountRegistry(EntryText(b.tid, "")));
  EXPECT_EQ(')', EntryText(b.tid, "").end()[-2]);
  ta->WaitForMe(IThread::kInfinite);
  tb->WaitForMe(IThread::kInfinite);
  delete ta;
  delete tb;
  EXPECT_EQ(0, CountRegistry(aText));
}

TEST(ThreadRegistry, MainThreadIsListedFirst) {
  // The test runner's main thread loaded the library.
  char const *first = nullptr;
  ASSERT_EQ(1, ThreadMgr_ListFirst(&first));
  unsigned long id = shared::platform::CurrentThreadId();
  EXPECT_EQ(EntryText(id, "Main Thread"), first);
}

TEST(ThreadRegistry, DisplayGoesToTheDebugChannel) {
  char dir[] = "/tmp/sharedlib-registry-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(dir));
  ThreadMgr_DisplayThreads();  // channel off: nothing, no harm
  SetDebugPath(dir);
  SetDebugFile("threads.log");
  SetErrorLevel(0);
  SetDebugSink(kDebugSinkFile);
  ThreadMgr_DisplayThreads();
  SetDebugSink(kDebugSinkNone);
  SetErrorLevel(-1);

  std::string const path = std::string(dir) + "/threads.log";
  std::ifstream in(path);
  std::string line;
  ASSERT_TRUE(std::getline(in, line));
  unsigned long id = shared::platform::CurrentThreadId();
  EXPECT_EQ("ThreadMgr: " + EntryText(id, "Main Thread"), line);
  in.close();
  std::remove(path.c_str());
  rmdir(dir);
}

TEST(ThreadRegistry, WalkSurvivesRemovalOfTheCurrentEntry) {
  Probe p;
  p.release.Open();
  IThread *t = CreateIThread(ProbeBody, &p, 1, "walked");
  ASSERT_NE(nullptr, t);
  ASSERT_TRUE(p.entered.Wait());
  std::string const text = EntryText(p.tid, "walked");
  char const *cur = nullptr;
  int more = ThreadMgr_ListFirst(&cur);
  while (more && text != cur)
    more = ThreadMgr_ListNext(&cur);
  ASSERT_EQ(1, more);
  t->WaitForMe(IThread::kInfinite);
  delete t;  // removes the entry the walk stands on
  // The walk goes on with whatever followed it, without touching freed text.
  while (ThreadMgr_ListNext(&cur))
    EXPECT_NE(text, cur);
}

struct Exiter {
  std::atomic<bool> destructorRan{false};
  std::atomic<bool> pastExit{false};
  IThread *self = nullptr;
};

struct SetOnDestroy {
  std::atomic<bool> &flag;
  ~SetOnDestroy() { flag = true; }
};

int ExitingBody(IThread *t, void *arg) {
  auto *e = static_cast<Exiter *>(arg);
  EXPECT_EQ(-1, t->WaitForMe(IThread::kInfinite));  // on itself: refused
  SetOnDestroy guard{e->destructorRan};
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

int SelfDeletingBody(IThread *t, void *arg) {
  delete t;  // allowed: the body goes on without its handle
  static_cast<Latch *>(arg)->Open();
  return 0;
}

TEST(Thread, BodyMayDeleteItsOwnHandle) {
  Latch done;
  IThread *t = CreateIThread(SelfDeletingBody, &done, 1, "self deleting");
  ASSERT_NE(nullptr, t);
  EXPECT_TRUE(done.Wait());
}

}  // namespace
