#include "thread/Semaphore.h"

#include "platform/Clock.h"

#include <chrono>
#include <thread>

namespace {

// unsigned long is 64-bit on LP64 systems: a -1 passed for "for ever" must
// still mean for ever.
std::uint32_t ClampMs(unsigned long ms) {
  return ms >= _SEMAPHORE::kInfinite ? _SEMAPHORE::kInfinite : static_cast<std::uint32_t>(ms);
}

}  // namespace

_SEMAPHORE::_SEMAPHORE() : _SEMAPHORE(1, 1, 0, static_cast<unsigned long>(-1), -1) {}

_SEMAPHORE::_SEMAPHORE(int type, int maxCount, unsigned long waitTime, unsigned long timeout, int initial)
    : type_(type),
      debugLevel_(1),
      count_(0),
      maxCount_(maxCount < 1 ? 1 : maxCount),
      ok_(0),
      waitTime_(ClampMs(waitTime)),
      timeout_(ClampMs(timeout)) {
  if (initial == -1)
    count_ = (type_ == 2) ? 0 : maxCount_;
  else if (initial >= 0)
    count_ = initial > maxCount_ ? maxCount_ : initial;
  else
    count_ = 0;

  switch (type_) {
    case 1:
    case 2:
      ok_ = 1;
      break;
    case 3:
      count_ = 1;
      maxCount_ = 1;
      ok_ = 1;
      break;
    default:
      break;
  }
}

_SEMAPHORE::~_SEMAPHORE() = default;

void _SEMAPHORE::SetWaitTime(unsigned long ms) { waitTime_ = ClampMs(ms); }

void _SEMAPHORE::SetTimeout(unsigned long ms) { timeout_ = ClampMs(ms); }

int _SEMAPHORE::GetCount() {
  if (type_ == 3)
    return count_;
  std::lock_guard<std::mutex> guard(mutex_);
  return count_;
}

int _SEMAPHORE::Wait(int block, char const *) {
  if (!ok_)
    return 0;
  switch (type_) {
    case 1:
      return WaitCounting(block);
    case 2:
      return WaitPending(block);
    case 3:
      lock_.lock();
      --count_;
      return 1;
    default:
      return 0;
  }
}

int _SEMAPHORE::WaitCounting(int block) {
  // A non-blocking wait still honours a finite time-out; with an infinite one
  // it is a try.
  std::uint32_t limit = timeout_;
  if (!block && limit == kInfinite)
    limit = 0;
  std::unique_lock<std::mutex> guard(mutex_);
  auto available = [this] { return count_ > 0; };
  if (limit == kInfinite)
    released_.wait(guard, available);
  else if (!released_.wait_for(guard, std::chrono::milliseconds(limit), available))
    return 0;
  --count_;
  return 1;
}

int _SEMAPHORE::WaitPending(int block) {
  bool const finite = timeout_ != kInfinite;
  std::uint32_t const start = finite ? shared::platform::TickCount() : 0;
  for (;;) {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      if (count_ < 1)
        return 1;
    }
    if (!block)
      return 0;
    if (!finite && waitTime_ == 0) {
      std::this_thread::yield();
      continue;
    }
    if (finite) {
      // Unsigned subtraction carries across the 2^32 wrap of the tick count.
      std::uint32_t elapsed = shared::platform::TickCount() - start;
      if (elapsed >= timeout_)
        return 0;
    }
    if (waitTime_ != 0)
      shared::platform::SleepMs(waitTime_);
    else
      std::this_thread::yield();
  }
}

int _SEMAPHORE::Signal(char const *) {
  if (!ok_)
    return 0;
  switch (type_) {
    case 1: {
      // Notify while holding the mutex: a waiter woken by this signal may
      // destroy the semaphore as soon as it returns.
      std::lock_guard<std::mutex> guard(mutex_);
      if (count_ >= maxCount_)
        return 0;
      ++count_;
      released_.notify_one();
      return 1;
    }
    case 2: {
      std::lock_guard<std::mutex> guard(mutex_);
      if (count_ == 0)
        return 0;
      --count_;
      return 1;
    }
    case 3:
      ++count_;
      lock_.unlock();
      return 1;
    default:
      return 0;
  }
}

void _SEMAPHORE::AddPend() {
  if (!ok_ || type_ != 2)
    return;
  std::lock_guard<std::mutex> guard(mutex_);
  ++count_;
}

XObj::~XObj() = default;

unsigned XObj::GetId() { return 0; }

char const *XObj::GetDesc(char *buf, unsigned size) {
  if (buf && size != 0)
    buf[0] = '\0';
  return buf;
}
