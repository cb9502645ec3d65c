// Semaphore.h: _SEMAPHORE, the library's one lock and signal primitive, and
// XObj, the root of objects that describe themselves.
//
// One class, three kinds chosen at construction:
//   1  counting semaphore with a maximum; timed and non-blocking waits.
//      With maximum 1 it is the library's wake-up signal.
//   2  polled pending counter: AddPend hands out a job, Signal marks one
//      done, Wait polls (sleeping the wait time between polls, through the
//      platform clock) until none is pending or the time-out passes.
//   3  recursive lock: Wait enters (blocking for ever, re-entrant on the
//      owning thread), Signal leaves. Classes guard their state with a
//      kind-3 semaphore behind their own Wait(tag)/Signal(tag) members.
// An object that could not be set up (an unknown kind) is never ok: every
// Wait and Signal then returns 0 and does nothing.
//
// Time-outs are milliseconds; 0xFFFFFFFF (or -1 passed through the unsigned
// long arguments, whatever their width) waits for ever.
//
// Any thread may call any member. The object is not copyable: it is the lock,
// and copying a lock in use has no meaning.
#pragma once

#include "platform/Export.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>

class SHAREDLIB_API _SEMAPHORE {
public:
  static constexpr std::uint32_t kInfinite = 0xFFFFFFFFu;

  _SEMAPHORE();  // kind 1, maximum 1, initially free, waits for ever
  _SEMAPHORE(int type, int maxCount, unsigned long waitTime, unsigned long timeout, int initial);
  ~_SEMAPHORE();
  _SEMAPHORE(_SEMAPHORE const &) = delete;
  _SEMAPHORE &operator=(_SEMAPHORE const &) = delete;

  // 1 when acquired, 0 on failure or time-out. who is a diagnostic tag.
  int Wait(int block = 1, char const *who = nullptr);
  // Non-zero on success; a kind-1 signal beyond the maximum fails with 0.
  int Signal(char const *who = nullptr);
  // Kind 2 only: one more pending job.
  void AddPend();
  int IsOk() const { return ok_; }

  void SetWaitTime(unsigned long ms);
  void SetTimeout(unsigned long ms);
  void SetDbgLevel(int level) { debugLevel_ = level; }

  int GetType() const { return type_; }
  int GetMaxCount() const { return maxCount_; }
  // Current count: kind 1 free units, kind 2 pending jobs, kind 3 1 when free.
  int GetCount();

private:
  int WaitCounting(int block);
  int WaitPending(int block);

  int const type_;
  int debugLevel_;
  int count_;          // kind 1/2: guarded by mutex_; kind 3: only while lock_ is held
  int maxCount_;
  int const reserved_ = 0;
  int ok_;
  std::uint32_t waitTime_;  // kind 2: ms between polls, 0 = spin
  std::uint32_t timeout_;   // ms, kInfinite = for ever

  std::mutex mutex_;                 // kinds 1 and 2
  std::condition_variable released_; // kind 1: signalled on each Signal
  std::recursive_mutex lock_;        // kind 3
};

// Root of objects that can describe themselves (queued statements, ...).
class SHAREDLIB_API XObj {
public:
  virtual ~XObj();
  virtual unsigned GetId();
  // Writes a description into buf (size bytes); "" here. Returns buf.
  virtual char const *GetDesc(char *buf, unsigned size);
};

namespace shared {

// Holds a semaphore for a scope: Wait on entry, Signal on exit when the wait
// succeeded. For the library's own kind-3 locks.
class SemGuard {
public:
  explicit SemGuard(_SEMAPHORE &sem, char const *who = nullptr)
      : sem_(sem), who_(who), held_(sem.Wait(1, who) != 0) {}
  ~SemGuard() {
    if (held_)
      sem_.Signal(who_);
  }
  bool Held() const { return held_; }
  SemGuard(SemGuard const &) = delete;
  SemGuard &operator=(SemGuard const &) = delete;

private:
  _SEMAPHORE &sem_;
  char const *who_;
  bool const held_;
};

}  // namespace shared
