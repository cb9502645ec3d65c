// SocketCtrlInternal.h (internal to the controller's .cpp files): what they
// share and nothing else includes.
//
// The controller's code is split by concern: SocketCtrl.cpp (construction,
// registration, making, marking and closing sockets), SocketCtrlPass.cpp
// (the dispatch pass and reads), SocketCtrlWrite.cpp (writes and the hand-off
// to the send queue), SocketCtrlOptions.cpp (send options, rate state and
// socket options).
#pragma once

#include "socket/SocketCtrl.h"

#include <mutex>

namespace shared::socket::detail {

inline constexpr SOCKET kNone = SocketCtrl::kNoSocket;
inline constexpr unsigned kMaxLine = 65535;  // bytes of one text line, without its end

// Waits up to ms for s to be ready for kinds (1 read, 2 write); the ready
// mask (4 for error), 0 on time-out, -1 on failure.
int WaitOne(SOCKET s, unsigned kinds, long ms);

}  // namespace shared::socket::detail

// Holds the pass mutex for one pass. A pass started from a callback of a
// pass of the same controller (same thread) is refused instead of
// deadlocking or corrupting the outer walk.
class SocketCtrl::PassGuard {
public:
  explicit PassGuard(SocketCtrl &c) : c_(c) {
    c_.passMutex_.lock();
    nested_ = c_.passDepth_ > 0;
    ++c_.passDepth_;
  }
  ~PassGuard() {
    --c_.passDepth_;
    c_.passMutex_.unlock();
  }
  bool Nested() const { return nested_; }
  PassGuard(PassGuard const &) = delete;
  PassGuard &operator=(PassGuard const &) = delete;

private:
  SocketCtrl &c_;
  bool nested_ = false;
};
