#include "thread/PosixThread.h"

#include "platform/Compat.h"
#include "text/TextRoutines.h"
#include "thread/ThreadRegistry.h"

#include <chrono>
#include <condition_variable>
#include <new>

namespace shared::detail {

// Shared by the handle and the OS thread; the last of the two frees it.
struct ThreadControl {
  IThread *handle = nullptr;  // the body's first argument; the thread never uses it itself
  IThreadFunc fn = nullptr;
  void *arg = nullptr;
  char name[64] = {};

  std::mutex mutex;
  std::condition_variable changed;
  unsigned long threadId = 0;  // guarded by mutex: set when the thread exists
  bool exists = false;         // guarded by mutex
  int suspendCount = 1;        // guarded by mutex: the body waits until 0
  bool bodyStarted = false;    // guarded by mutex
  bool cancelled = false;      // guarded by mutex: handle destroyed before any Resume
  bool ended = false;          // guarded by mutex
};

namespace {

// Marks the thread ended however its body is left: by returning, or by
// IThread::Exit, which unwinds the stack.
class EndMark {
public:
  explicit EndMark(ThreadControl &control) : control_(control) {}
  ~EndMark() {
    std::lock_guard<std::mutex> lock(control_.mutex);
    control_.ended = true;
    control_.changed.notify_all();
  }
  EndMark(EndMark const &) = delete;
  EndMark &operator=(EndMark const &) = delete;

private:
  ThreadControl &control_;
};

}  // namespace

void PosixThread::Main(void *raw) {
  // Takes over the reference the creator made for this thread.
  std::shared_ptr<ThreadControl> control(std::move(*static_cast<std::shared_ptr<ThreadControl> *>(raw)));
  delete static_cast<std::shared_ptr<ThreadControl> *>(raw);
  ThreadControl &c = *control;

  platform::SetCurrentThreadName(c.name);
  EndMark endMark(c);
  {
    std::unique_lock<std::mutex> lock(c.mutex);
    c.threadId = platform::CurrentThreadId();
    c.exists = true;
    c.changed.notify_all();
    c.changed.wait(lock, [&c] { return c.suspendCount == 0 || c.cancelled; });
    if (c.suspendCount != 0)
      return;  // never resumed: the handle was destroyed
    c.bodyStarted = true;
  }
  // The body may destroy the handle (and so c.handle) at any time from here.
  // Its result, like an Exit code, has no reader on this interface.
  c.fn(c.handle, c.arg);
}

PosixThread::PosixThread(IThreadFunc fn, void *arg, char const *name)
    : native_(0), threadId_(0), name_{}, released_(false) {
  if (!comp_branco(name))
    ajusta_str(name, name_, 63);
  if (!fn)
    return;

  auto control = std::shared_ptr<ThreadControl>(new (std::nothrow) ThreadControl);
  if (!control)
    return;
  control->handle = this;
  control->fn = fn;
  control->arg = arg;
  CopyString(control->name, name_, 63);

  auto *forThread = new (std::nothrow) std::shared_ptr<ThreadControl>(control);
  if (!forThread)
    return;
  if (!platform::ThreadStart(&PosixThread::Main, forThread, &native_)) {
    delete forThread;
    return;
  }
  // Return only once the thread exists and knows its kernel id, so the
  // registry entry below is complete.
  {
    std::unique_lock<std::mutex> lock(control->mutex);
    control->changed.wait(lock, [&] { return control->exists; });
    threadId_ = control->threadId;
  }
  control_ = std::move(control);

  char text[64];
  _snprintf(text, sizeof text, "%lx(%lu) %s", threadId_, threadId_, name_);
  registryToken_ = ThreadRegistryAdd(text, threadId_);
}

PosixThread::~PosixThread() {
  if (registryToken_ != 0)
    ThreadRegistryRemove(registryToken_);
  if (!control_)
    return;
  bool neverRan = false;
  {
    std::lock_guard<std::mutex> lock(control_->mutex);
    if (control_->suspendCount > 0) {
      // Nobody will ever resume it: let it leave without running the body.
      control_->cancelled = true;
      control_->changed.notify_all();
      neverRan = true;
    }
  }
  std::lock_guard<std::mutex> lock(joinMutex_);
  if (released_)
    return;
  released_ = true;
  if (neverRan)
    platform::ThreadJoin(native_);  // it only has to leave its gate
  else
    platform::ThreadDetach(native_);  // the body goes on; it may be this very thread
}

bool PosixThread::IsThreadOk() { return control_ != nullptr; }

int PosixThread::Resume() {
  if (!control_)
    return -1;
  std::lock_guard<std::mutex> lock(control_->mutex);
  int previous = control_->suspendCount;
  if (previous > 0 && --control_->suspendCount == 0)
    control_->changed.notify_all();
  return previous;
}

int PosixThread::Suspend() {
  if (!control_)
    return -1;
  std::lock_guard<std::mutex> lock(control_->mutex);
  if (control_->suspendCount == 0)
    return -1;  // running or ended: see the class comment
  return control_->suspendCount++;
}

void PosixThread::Register() {}

void PosixThread::Exit(unsigned) {
  if (!control_ || !platform::ThreadIsCurrent(native_))
    return;
  platform::ThreadExitCurrent();
}

int PosixThread::WaitForMe(unsigned timeoutMs) {
  if (!control_ || platform::ThreadIsCurrent(native_))
    return -1;
  {
    // Waiting for another thread, not for time to pass: the real clock.
    std::unique_lock<std::mutex> lock(control_->mutex);
    auto ended = [this] { return control_->ended; };
    if (timeoutMs == kInfinite)
      control_->changed.wait(lock, ended);
    else if (!control_->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), ended))
      return kWaitTimeout;
  }
  // The body has ended; the OS thread is leaving. Join it once so its
  // resources go back at once.
  std::lock_guard<std::mutex> lock(joinMutex_);
  if (!released_) {
    released_ = true;
    platform::ThreadJoin(native_);
  }
  return kWaitEnded;
}

}  // namespace shared::detail
