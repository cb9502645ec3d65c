#include "socket/SockEventsWrapper.h"

#include "platform/Clock.h"
#include "platform/Readiness.h"
#include "text/TextRoutines.h"

#include <cstdint>

namespace pf = shared::platform;

ISEWIterator::~ISEWIterator() = default;

SockEventsWrapper::SockEventsWrapper(char const *name) { ajusta_str(name != nullptr ? name : "", name_, 63); }

SockEventsWrapper::~SockEventsWrapper() = default;

int SockEventsWrapper::init() { return 1; }

void SockEventsWrapper::reset() { nfds_ = 0; }

// Backends that rebuild their system set for every wait have nothing to tell
// the system early.
void SockEventsWrapper::unwatch(unsigned int) {}

void SockEventsWrapper::forget(unsigned int fd) { clr(fd); }

unsigned long SockEventsWrapper::ReadyMask(unsigned pollFlags, unsigned long asked) {
  unsigned long mask = 0;
  if (pollFlags & static_cast<unsigned>(pf::kPollErr | pf::kPollHup | pf::kPollNval)) mask = asked & 7u;
  if ((pollFlags & static_cast<unsigned>(pf::kPollIn)) && (asked & kSewRead)) mask |= kSewRead;
  if ((pollFlags & static_cast<unsigned>(pf::kPollOut)) && (asked & kSewWrite)) mask |= kSewWrite;
  if ((pollFlags & static_cast<unsigned>(pf::kPollPri)) && (asked & kSewError)) mask |= kSewError;
  return mask;
}

short SockEventsWrapper::InterestFlags(unsigned long asked) {
  short flags = 0;
  if (asked & kSewRead) flags |= pf::kPollIn;
  if (asked & kSewWrite) flags |= pf::kPollOut;
  if (asked & kSewError) flags |= pf::kPollPri;
  return flags;
}

int SockEventsWrapper::SystemTimeout(long timeoutMs) {
  if (timeoutMs < 0) return -1;
  return timeoutMs > 0x7FFFFFFFL ? 0x7FFFFFFF : static_cast<int>(timeoutMs);
}

unsigned int SockEventsWrapper::EndOfWalk(unsigned long *events, unsigned int *pos, void **ctx) {
  if (events != nullptr) *events = 0;
  if (pos != nullptr) *pos = 0;
  if (ctx != nullptr) *ctx = nullptr;
  return 0xFFFFFFFFu;
}

void SockEventsWrapper::IdleWait(long timeoutMs) {
  if (timeoutMs == -1) {
    pf::SleepMs(100);
  } else if (timeoutMs >= 0) {
    pf::SleepMs(static_cast<std::uint32_t>(timeoutMs > 0xFFFFFFFFL ? 0xFFFFFFFFL : timeoutMs));
  }
}
