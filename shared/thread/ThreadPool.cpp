#include "thread/ThreadPool.h"

#include "text/TextRoutines.h"
#include "thread/Semaphore.h"
#include "thread/Thread.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

namespace {

constexpr unsigned long kForever = static_cast<unsigned long>(-1);

// The job whose body runs on this thread, so that a job stopping itself is
// recognised (joining its own thread would never return).
thread_local IThreadObj *t_currentJob = nullptr;
// Set when the pool was destroyed from inside this thread's job: nobody is
// left to reap the job, so its own thread deletes it once the body returns.
thread_local bool t_jobOrphaned = false;

}  // namespace

// --- IThreadObj -------------------------------------------------------------

IThreadObj::IThreadObj() : IThreadObj(nullptr) {}

IThreadObj::IThreadObj(char const *name) : exit_(0), name_{}, thread_(nullptr), pool_(nullptr) {
  SetName(name);
}

IThreadObj::~IThreadObj() = default;

int IThreadObj::ThreadFunc() { return -1; }

void IThreadObj::SetName(char const *name) { ajusta_str(name, name_, 63); }

// --- ThreadPool -------------------------------------------------------------

ThreadPool::ThreadPool(unsigned maxThreads)
    : SVectorT<IThreadObj *, IThread *>(1, 100),
      ok_(0),
      exit_(0),
      maxThreads_(kUnlimited),
      lock_(new (std::nothrow) _SEMAPHORE(3, 1, 0, kForever, -1)),
      endSignal_(new (std::nothrow) _SEMAPHORE(1, 0x7FFFFFFF, 0, kForever, 0)),
      reapLock_(new (std::nothrow) _SEMAPHORE(3, 1, 0, kForever, -1)),
      reaping_(nullptr),
      reaper_(nullptr),
      closing_(false) {
  if (!lock_ || !lock_->IsOk() || !endSignal_ || !endSignal_->IsOk() || !reapLock_ ||
      !reapLock_->IsOk())
    return;
  // Woken by NotifyEndThread rather than polling once a second: a finished
  // job is joined at once, a burst of short jobs does not pile up threads,
  // and nothing here waits on time.
  IThread *reaper = CreateIThread(&ThreadPool::DoKillThreads, this, 0, "ThreadPool::KillThreads");
  if (!reaper)
    return;
  reaper_ = reaper;
  ok_ = 1;
  maxThreads_.store(maxThreads, std::memory_order_release);
  reaper_->Resume();
}

ThreadPool::~ThreadPool() {
  if (reaper_) {
    exit_.store(1, std::memory_order_release);
    endSignal_->Signal("~ThreadPool");
    reaper_->WaitForMe(IThread::kInfinite);
    delete reaper_;
    reaper_ = nullptr;
  }

  // Take the table out under the lock, then stop the jobs outside it: a job
  // whose body has just returned needs the lock to report its end.
  std::vector<std::pair<IThreadObj *, IThread *>> jobs;
  if (lock_ && lock_->IsOk()) {
    shared::SemGuard guard(*lock_, "~ThreadPool : ThreadVector::kill");
    closing_ = true;
    IThreadObj *job = nullptr;
    IThread *thread = nullptr;
    for (unsigned pos = 1; get_item(pos, &job, &thread); ++pos)
      jobs.emplace_back(job, thread);  // may throw only for lack of memory at teardown
    clear();
    ending_.clear();
  }
  // Ask every job first, then wait for each in table order.
  for (auto const &entry : jobs)
    if (entry.first)
      entry.first->EndThread();
  for (auto const &entry : jobs) {
    if (entry.first != nullptr && entry.first == t_currentJob) {
      // Destroyed from inside this job's body: its thread cannot be joined
      // from itself. The handle is let go (the OS thread detached) and the
      // thread deletes the job once the body returns.
      entry.first->SetIThread(nullptr);
      entry.first->SetThreadPool(nullptr);
      delete entry.second;
      t_jobOrphaned = true;
      continue;
    }
    kill_elem(entry.first, entry.second);
  }

  delete reapLock_;
  delete endSignal_;
  delete lock_;
}

void ThreadPool::Wait(char const *tag) {
  if (lock_)
    lock_->Wait(1, tag);
}

void ThreadPool::Signal(char const *tag) {
  if (lock_)
    lock_->Signal(tag);
}

int ThreadPool::StartThread(IThreadObj *job) {
  if (!ok_ || !job)
    return 0;
  shared::SemGuard guard(*lock_, "ThreadPool::StartThread");
  unsigned const max = GetNMaxThreads();
  // Counted under the lock, so that concurrent starts cannot pass the maximum.
  if (closing_ || (max != kUnlimited && get_nitens() >= max))
    return 0;
  job->SetThreadPool(this);
  // Created suspended and resumed only once it is in the table: a body that
  // ends at once must find its job there when it reports its end.
  IThread *thread = CreateIThread(&ThreadPool::DoThreadMain, job, 0, job->GetName());
  if (!thread) {
    job->EndThread();
    return 0;
  }
  job->SetIThread(thread);
  if (insert(job, thread) == 0) {
    job->EndThread();
    job->SetIThread(nullptr);
    delete thread;  // never resumed: released without running the body
    return 0;
  }
  thread->Resume();
  return 1;
}

void ThreadPool::StopThread(IThreadObj *job) {
  if (!job || !lock_)
    return;
  if (job == t_currentJob) {
    // Joining our own thread would never return: only ask. The body ends,
    // reports it, and the reaper deletes the job.
    job->EndThread();
    return;
  }
  IThread *thread = nullptr;
  bool found = false;
  bool beingReaped = false;
  {
    shared::SemGuard guard(*lock_, "ThreadPool::StopThread");
    unsigned const pos = search(job, &thread);
    found = pos != 0;
    if (!found) {
      beingReaped = reaping_.load(std::memory_order_acquire) == job;
    } else {
      eraseIndex(pos, 0);
      RemoveFromEnding(job);
    }
  }
  if (found) {
    kill_elem(job, thread);
  } else if (beingReaped) {
    // The reaper took it first and is joining and deleting it: the caller
    // may rely on the job being gone once this returns.
    shared::SemGuard wait(*reapLock_, "ThreadPool::StopThread");
  }
}

void ThreadPool::NotifyEndThread(IThreadObj *job) {
  if (!job || !lock_)
    return;
  {
    shared::SemGuard guard(*lock_, "ThreadPool::NotifyEndThread");
    // A job no longer in the table is already being stopped by someone who
    // will delete it: listing it would leave a dangling entry.
    if (closing_ || search(job, nullptr) == 0)
      return;
    if (std::find(ending_.begin(), ending_.end(), job) != ending_.end())
      return;
    try {
      ending_.push_back(job);
    } catch (std::bad_alloc const &) {
      return;  // not reaped before destruction, which still stops it
    }
  }
  endSignal_->Signal("ThreadPool::NotifyEndThread");
}

IThreadObj *ThreadPool::GetFirstEndingThread() {
  if (!ok_)
    return nullptr;
  shared::SemGuard guard(*lock_, "ThreadPool::GetFirstEndingThread");
  if (ending_.empty())
    return nullptr;
  IThreadObj *job = ending_.front();
  ending_.pop_front();
  return job;
}

bool ThreadPool::TakeEndedJob(IThreadObj **job, IThread **thread) {
  shared::SemGuard guard(*lock_, "ThreadPool::GetFirstEndingThread");
  while (!ending_.empty()) {
    IThreadObj *candidate = ending_.front();
    ending_.pop_front();
    unsigned const pos = search(candidate, thread);
    if (pos != 0) {
      eraseIndex(pos, 0);
      *job = candidate;
      // Taken in the same step as the removal, so that a StopThread that no
      // longer finds the job in the table finds it here.
      reapLock_->Wait(1, "ThreadPool::KillThreads");
      reaping_.store(candidate, std::memory_order_release);
      return true;
    }
  }
  return false;
}

void ThreadPool::EndReaping() {
  reaping_.store(nullptr, std::memory_order_release);
  reapLock_->Signal("ThreadPool::KillThreads");
}

void ThreadPool::RemoveFromEnding(IThreadObj *job) { ending_.remove(job); }

void ThreadPool::kill_elem(IThreadObj *job, IThread *thread) {
  if (!job)
    return;
  job->EndThread();
  if (thread) {
    thread->WaitForMe(IThread::kInfinite);
    delete thread;
  }
  delete job;
}

int ThreadPool::DoThreadMain(IThread *thread, void *arg) {
  auto *job = static_cast<IThreadObj *>(arg);
  if (!job)
    return -1;
  thread->Register();
  t_currentJob = job;
  int const result = job->ThreadFunc();
  t_currentJob = nullptr;
  if (t_jobOrphaned) {
    t_jobOrphaned = false;
    delete job;  // its pool is gone
    return result;
  }
  // The job stays alive until its thread has been joined, which needs this
  // call to have returned.
  if (ThreadPool *pool = job->GetThreadPool())
    pool->NotifyEndThread(job);
  return result;
}

int ThreadPool::DoKillThreads(IThread *thread, void *arg) {
  auto *pool = static_cast<ThreadPool *>(arg);
  thread->Register();
  while (!pool->DoExit()) {
    pool->endSignal_->Wait(1, "ThreadPool::KillThreads");
    IThreadObj *job = nullptr;
    IThread *jobThread = nullptr;
    while (!pool->DoExit() && pool->TakeEndedJob(&job, &jobThread)) {
      pool->kill_elem(job, jobThread);
      pool->EndReaping();
    }
  }
  return 0;
}
