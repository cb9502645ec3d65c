// PassWaker.h (internal): ends a dispatch pass that is waiting for sockets.
//
// A loopback connection whose receiving end is an active socket of the
// controller: Wake() writes one line end on the other end, so the pass
// returns at once instead of after its time-out. The server uses it to stop
// its thread without waiting out a pass, to have closes requested from other
// threads done at once, and to let a test clock's jump take effect.
//
// TODO: use the controller's own wake-up once it has one; this costs two
// descriptors per server.
//
// Wake() may be called from any thread; the rest by the owner.
#pragma once

#include <cstdint>

class SocketCtrl;

namespace shared::server::detail {

class PassWaker {
public:
  PassWaker() = default;
  ~PassWaker();  // closes the sending end; the controller owns the other
  PassWaker(PassWaker const &) = delete;
  PassWaker &operator=(PassWaker const &) = delete;

  // Makes the connection and hands its receiving end to ctrl. False (and
  // nothing held) on failure.
  bool Attach(SocketCtrl *ctrl);
  void Wake();
  // The receiving end, whose lines are wake-ups, not user data.
  std::uint32_t Socket() const { return recv_; }

private:
  std::uint32_t send_ = 0xFFFFFFFFu;
  std::uint32_t recv_ = 0xFFFFFFFFu;
};

}  // namespace shared::server::detail
