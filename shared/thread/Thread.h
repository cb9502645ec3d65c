// Thread.h: the library's worker threads.
//
//   IThread         abstract handle of one OS thread. Every worker thread of
//                   the library is an IThread made by CreateIThread.
//   CreateIThread   the factory: starts a thread that waits (suspended) until
//                   Resume(), or runs at once when asked.
//   XThread         base of objects that own one worker thread running the
//                   virtual Run() body, with a start/stop/wait protocol.
//   XSleep          sleeps the calling thread (through the clock seam).
//
// The process-wide registry of live threads is in ThreadRegistry.h.
//
// Lifetime: an IThread is owned by whoever created it. Destroying it neither
// stops nor waits for a thread that runs; it only forgets it (and removes its
// registry entry). A thread that was never resumed is released instead: its
// body never runs. Any thread may call any member unless said otherwise.
#pragma once

#include "platform/Export.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

class _SEMAPHORE;

class SHAREDLIB_API IThread {
public:
  // Result of WaitForMe when the thread ended, and when the time ran out.
  static constexpr int kWaitEnded = 0;
  static constexpr int kWaitTimeout = 0x102;
  static constexpr unsigned kInfinite = 0xFFFFFFFFu;

  virtual ~IThread();
  // The thread was created.
  virtual bool IsThreadOk() = 0;
  // Lowers the suspend count; the body starts when it reaches 0. Returns the
  // previous count (0: it was already running), -1 when there is no thread.
  virtual int Resume() = 0;
  // Raises the suspend count of a thread whose body has not started yet and
  // returns the previous count. A running thread cannot be stopped safely at
  // an arbitrary point on this platform: -1.
  virtual int Suspend() = 0;
  // Called by a thread body on its own thread once it starts.
  virtual void Register() = 0;
  // Ends the calling thread when it is this thread (destructors of the frames
  // left still run); does nothing when called from any other thread.
  virtual void Exit(unsigned code) = 0;
  // Waits up to timeoutMs (kInfinite: for ever) for the thread to end.
  // kWaitEnded, kWaitTimeout, or -1 when there is no thread or when called
  // on the thread itself (which would wait for ever).
  virtual int WaitForMe(unsigned timeoutMs) = 0;
};

using IThreadFunc = int (*)(IThread *, void *);

// Starts fn(thread, arg) on a new thread named name (blanks trimmed, at most
// 63 characters; the OS gets as much of it as it keeps). The thread exists
// and is in the registry when this returns. start 0: the body waits until
// Resume(); otherwise it runs at once. Null when the thread could not be
// made.
//
// A caller that stores the handle where the body (or whoever the body tells
// that it ended) will read it must pass start 0, store it, then Resume():
// with start non-zero the body may already have ended before the caller sees
// the handle.
SHAREDLIB_API IThread *CreateIThread(IThreadFunc fn, void *arg, int start, char const *name);

SHAREDLIB_BEGIN_C
// Sleeps the calling thread for about ms milliseconds (the clock seam's
// SleepMs, so a test clock may make it return at once).
SHAREDLIB_API void XSleep(unsigned ms);
SHAREDLIB_END_C

// Base of an object that owns one worker thread running Run().
//
//   idle --StartThread--> running (run lock held by the worker)
//        <--Run() returns (by itself or after seeing EndRequested())--
//
// The worker destroys its own IThread when the body ends, so StartThread may
// be called again afterwards. StopThread(false) only asks; StopThread(true)
// and the destructor ask and wait; nothing kills a thread.
//
// A derived class must call StopThread(true) in its own destructor: by the
// time ~XThread runs, the derived part that Run() uses is already gone.
class SHAREDLIB_API XThread {
public:
  XThread();
  virtual ~XThread();
  XThread(XThread const &) = delete;
  XThread &operator=(XThread const &) = delete;

  // The body, run on the worker thread; returns the thread's exit value.
  virtual int Run() = 0;

  // Keeps the pointer, not a copy: the text must outlive StartThread.
  void SetThreadName(char *name);
  // False when a thread already exists or none could be made. Returns once
  // the worker holds the run lock (or skipped its body because a stop came
  // first), so a StopThread(true) right after it always waits for the body.
  bool StartThread();
  // Asks the body to end; with wait, then WaitThread().
  void StopThread(bool wait);
  // Returns when no body is running. From within Run() it returns at once.
  void WaitThread();
  bool IsRunning() const { return running_.load(std::memory_order_acquire); }
  // False without a thread; otherwise true when the thread's Suspend() /
  // Resume() returned 0 or less. A running worker cannot be suspended here
  // (Suspend() gives -1, see IThread).
  bool SuspendThread();
  bool ResumeThread();
  // Ends the calling thread when called from Run() itself: the body is left
  // (its destructors run) and the worker cleans up as if Run() had returned 0.
  void TerminateThread();

protected:
  bool KeepRunning() const { return !EndRequested(); }
  bool EndRequested() const { return endRequested_.load(std::memory_order_acquire); }

private:
  static int Entry(IThread *thread, void *arg);
  void FinishBody();

  IThread *thread_;          // guarded by threadMutex_; owned
  char const *name_;         // not owned
  _SEMAPHORE *runLock_;      // held by the worker while its body runs; owned
  std::atomic<bool> endRequested_;
  std::atomic<bool> running_;
  std::mutex threadMutex_;
  std::condition_variable bodyEntered_;  // with threadMutex_
  unsigned long startCount_;             // guarded by threadMutex_: bodies that took the run lock
};
