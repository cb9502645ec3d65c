#include "thread/Thread.h"

#include "platform/Clock.h"
#include "thread/PosixThread.h"
#include "thread/Semaphore.h"

#include <new>

IThread::~IThread() = default;

IThread *CreateIThread(IThreadFunc fn, void *arg, int start, char const *name) {
  auto *thread = new (std::nothrow) shared::detail::PosixThread(fn, arg, name);
  if (!thread)
    return nullptr;
  if (!thread->IsThreadOk() || (start != 0 && thread->Resume() == -1)) {
    thread->WaitForMe(1000);
    delete thread;
    return nullptr;
  }
  return thread;
}

void XSleep(unsigned ms) { shared::platform::SleepMs(ms); }

// --- XThread ----------------------------------------------------------------

namespace {
constexpr unsigned long kForever = static_cast<unsigned long>(-1);
}

// The run lock is held by the worker for the whole body and taken briefly by
// waiters. A recursive lock (kind 3) serves: WaitThread called from the body
// itself returns instead of waiting on itself, and its release is finished
// once the lock is free (a kind-1 Signal still notifies after that, so an
// owner destroying the object at once could pull the semaphore from under it).
XThread::XThread()
    : thread_(nullptr),
      name_(nullptr),
      runLock_(new _SEMAPHORE(3, 1, 0, kForever, -1)),
      endRequested_(false),
      running_(false),
      startCount_(0) {}

XThread::~XThread() {
  StopThread(true);
  delete runLock_;
}

void XThread::SetThreadName(char *name) { name_ = name; }

bool XThread::StartThread() {
  std::unique_lock<std::mutex> lock(threadMutex_);
  if (thread_)
    return false;
  endRequested_.store(false, std::memory_order_release);
  // Created suspended and resumed only once stored: a body that ended at
  // once would otherwise clear thread_ before it was set, leaving a handle
  // to a thread that is gone.
  IThread *thread = CreateIThread(&XThread::Entry, this, 0, name_);
  if (!thread)
    return false;
  thread_ = thread;
  unsigned long const before = startCount_;
  thread->Resume();
  // Wait until the worker holds the run lock, so that WaitThread and
  // StopThread(true) from now on really wait for this body.
  bodyEntered_.wait(lock, [&] { return startCount_ != before; });
  return true;
}

void XThread::StopThread(bool wait) {
  endRequested_.store(true, std::memory_order_release);
  if (wait)
    WaitThread();
}

void XThread::WaitThread() {
  shared::SemGuard hold(*runLock_, "XThread::WaitThread");
}

bool XThread::SuspendThread() {
  std::lock_guard<std::mutex> lock(threadMutex_);
  return thread_ && thread_->Suspend() <= 0;
}

bool XThread::ResumeThread() {
  std::lock_guard<std::mutex> lock(threadMutex_);
  return thread_ && thread_->Resume() <= 0;
}

void XThread::TerminateThread() {
  // Held across Exit: on the worker, leaving the thread unwinds and releases
  // it; from any other thread Exit does nothing.
  std::lock_guard<std::mutex> lock(threadMutex_);
  if (thread_)
    thread_->Exit(0);
}

// Runs when the body is left, by return or by TerminateThread's unwinding.
void XThread::FinishBody() {
  running_.store(false, std::memory_order_release);
  IThread *thread = nullptr;
  {
    std::lock_guard<std::mutex> lock(threadMutex_);
    thread = thread_;
    thread_ = nullptr;
  }
  delete thread;  // this very thread's handle: detaches, does not wait
  // Last touch of *this: once released, the owner may destroy the object.
  runLock_->Signal("XThread::Entry");
}

int XThread::Entry(IThread *thread, void *arg) {
  if (!arg)
    return -1;
  auto *self = static_cast<XThread *>(arg);
  self->runLock_->Wait(1, "XThread::Entry");
  thread->Register();

  struct Finish {
    XThread *self;
    ~Finish() { self->FinishBody(); }
  } finish{self};

  {
    std::lock_guard<std::mutex> lock(self->threadMutex_);
    ++self->startCount_;
    self->bodyEntered_.notify_all();
  }
  if (self->EndRequested())
    return 0;
  self->running_.store(true, std::memory_order_release);
  return self->Run();
}
