// The demultiplexer factory: the one place that knows every backend.
#include "socket/SockEventsWrapper.h"

#include "platform/PlatformInfo.h"
#include "platform/Readiness.h"
#include "socket/EPollWrapper.h"
#include "socket/PollWrapper.h"
#include "socket/SelectWrapper.h"

#include <new>

namespace {

SockEventsWrapper *Build(unsigned long mode, char const *name) {
  switch (mode) {
    case kSewModeLinux:
      return new (std::nothrow) EPollWrapper(name);
    case kSewModePoll:
      return new (std::nothrow) PollWrapper(name);
    case kSewModeSelect:
      return new (std::nothrow) SelectWrapper(name);
    default:
      return nullptr;  // kqueue is not available here
  }
}

unsigned long Pick(unsigned char modes) {
  bool const onLinux = IsLinux() != 0;
  bool const apple = IsApple() != 0;
  // A Linux build without epoll has no Linux mode to offer.
  if ((modes & kSewModeLinux) && onLinux && shared::platform::HaveEpoll()) return kSewModeLinux;
  if ((modes & kSewModeKQueue) && (onLinux || apple)) return kSewModeKQueue;
  if ((modes & kSewModePoll) && (onLinux || apple || IsWindowsVistaOrHigher() != 0)) return kSewModePoll;
  if (modes & kSewModeSelect) return kSewModeSelect;
  return 0;
}

}  // namespace

SockEventsWrapper *InitSockEventsWrapper(unsigned char modes, ISEWIterator *iterator, char const *name) {
  SockEventsWrapper *wrapper = Build(Pick(modes), name != nullptr ? name : "");
  if (wrapper != nullptr) wrapper->SetIterator(iterator);
  return wrapper;
}
