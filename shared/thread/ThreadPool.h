// ThreadPool.h: runs jobs on a thread each, up to a maximum at once, and
// reaps them when they end.
//
//   IThreadObj   base of a job: the pool runs ThreadFunc() on a new thread
//                named after the job; the body polls DoExit() to learn that
//                it must stop.
//   ThreadPool   keeps the running jobs in a table sorted by address
//                (SVectorT<IThreadObj *, IThread *>). When a body returns,
//                its thread puts the job on the ending list and wakes the
//                reaper thread "ThreadPool::KillThreads", which joins the
//                thread and deletes the job. The pool owns every job it
//                accepted; a job never deletes itself.
//
// Threads: StartThread/StopThread from any thread; one thread per job; the
// reaper. The pool lock (recursive) guards the table and the ending list, and
// is never held while a job's thread is joined: a job whose body has just
// returned needs that lock to report its end, so joining under it could wait
// for ever. StopThread and the destructor take the job out of the table under
// the lock, then stop and join it outside. A job may StopThread itself: that
// only asks it to end (it is reaped once its body returns). The reaper holds
// a second lock while it stops a job it took (taken after the pool lock), so
// that a StopThread of that job waits until it is deleted.
//
// Destruction asks every running job to end and waits for each, without
// limit: a job that never looks at DoExit() keeps the destructor waiting.
// A job may destroy its own pool: its thread is then not joined (it cannot
// join itself) but let go, and deletes the job when the body returns.
//
// The table's own members (insert, erase, kill, ...) are inherited for
// reading and for the pool itself; callers go through StartThread and
// StopThread, which take the lock.
#pragma once

#include "platform/Export.h"
#include "thread/SVectorT.h"

#include <atomic>
#include <list>

class IThread;
class ThreadPool;
class _SEMAPHORE;

class SHAREDLIB_API IThreadObj {
public:
  IThreadObj();
  explicit IThreadObj(char const *name);
  virtual ~IThreadObj();
  IThreadObj(IThreadObj const &) = delete;
  IThreadObj &operator=(IThreadObj const &) = delete;

  // The job's body, run on its own thread. The base version returns -1.
  virtual int ThreadFunc();

  // Blanks trimmed, at most 63 characters; also the thread's name.
  void SetName(char const *name);
  char const *GetName() const { return name_; }
  // Asks the body to end (any thread).
  void EndThread() { exit_.store(1, std::memory_order_release); }
  // Non-zero once the job must end; the body polls it.
  int DoExit() const { return exit_.load(std::memory_order_acquire); }

  void SetIThread(IThread *thread) { thread_ = thread; }
  IThread *GetIThread() const { return thread_; }
  void SetThreadPool(ThreadPool *pool) { pool_ = pool; }
  ThreadPool *GetThreadPool() const { return pool_; }

private:
  std::atomic<int> exit_;
  char name_[64];
  IThread *thread_;   // set by the pool before the thread runs
  ThreadPool *pool_;  // set by the pool before the thread runs
};

class SHAREDLIB_API ThreadPool : public SVectorT<IThreadObj *, IThread *> {
public:
  static constexpr unsigned kUnlimited = 0xFFFFFFFFu;

  explicit ThreadPool(unsigned maxThreads = kUnlimited);
  ~ThreadPool() override;

  // Starts job on a new thread: non-zero on success (the pool then owns
  // job). 0 when the pool is not ok or closing, job is null, or the maximum
  // is reached; the caller keeps job then (its exit flag is set when its
  // thread could not be made).
  int StartThread(IThreadObj *job);
  // Takes job out of the table, asks it to end, waits for its thread and
  // deletes both. Nothing when job is not in the table; when the reaper has
  // just taken it, waits until the reaper has deleted it. Called by the
  // job's own body, it only asks the job to end.
  void StopThread(IThreadObj *job);
  // Called by a job's thread when its body has returned: puts the job on the
  // ending list (once) and wakes the reaper.
  void NotifyEndThread(IThreadObj *job);
  // Takes the oldest job off the ending list; null when none or not ok. The
  // job stays in the table: pass it to StopThread to reap it (the reaper
  // does both steps under one lock, so it never races a user's StopThread).
  IThreadObj *GetFirstEndingThread();

  // The pool lock (recursive); tag names the caller.
  void Wait(char const *tag);
  void Signal(char const *tag);

  int IsOk() const { return ok_; }
  int DoExit() const { return exit_.load(std::memory_order_acquire); }
  unsigned GetNMaxThreads() const { return maxThreads_.load(std::memory_order_acquire); }
  void SetNMaxThreads(unsigned n) { maxThreads_.store(n, std::memory_order_release); }

  // Asks job to end, waits for its thread without limit, deletes both.
  void kill_elem(IThreadObj *job, IThread *thread) override;

private:
  static int DoThreadMain(IThread *thread, void *job);
  static int DoKillThreads(IThread *thread, void *pool);
  // Under the lock: takes the oldest ended job and its thread out of the
  // ending list and the table, and takes reapLock_ for the reaper (released
  // by EndReaping once the job is deleted). False when there is none.
  bool TakeEndedJob(IThreadObj **job, IThread **thread);
  void EndReaping();
  void RemoveFromEnding(IThreadObj *job);  // caller holds the lock

  int ok_;
  std::atomic<int> exit_;
  std::atomic<unsigned> maxThreads_;
  _SEMAPHORE *lock_;        // kind 3; guards the table, ending_ and closing_
  _SEMAPHORE *endSignal_;   // kind 1: one count per NotifyEndThread, wakes the reaper
  _SEMAPHORE *reapLock_;    // kind 3: held by the reaper while it stops a job; after lock_
  std::atomic<IThreadObj *> reaping_;  // the job reapLock_ is held for, else null
  IThread *reaper_;
  std::list<IThreadObj *> ending_;  // guarded by lock_: bodies returned, oldest first
  bool closing_;                    // guarded by lock_: destruction has taken the table
};
