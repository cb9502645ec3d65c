#include "server/detail/PassWaker.h"

#include "platform/SocketApi.h"
#include "socket/SocketCtrl.h"

namespace sp = shared::platform;

namespace shared::server::detail {

namespace {
constexpr std::uint32_t kNone = 0xFFFFFFFFu;
}

PassWaker::~PassWaker() {
  if (send_ != kNone)
    sp::SockClose(send_);
}

bool PassWaker::Attach(SocketCtrl *ctrl) {
  SOCKET listener = sp::SockOpen(sp::kSockStream, 0);
  if (listener == kNone)
    return false;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = sp::SockInetAddr("127.0.0.1");
  SOCKET out = kNone;
  SOCKET in = kNone;
  bool ok = sp::SockBind(listener, &addr) == 0 && sp::SockListen(listener, 1) == 0 &&
            sp::SockGetName(listener, &addr) == 0;
  if (ok) {
    out = sp::SockOpen(sp::kSockStream, 0);
    ok = out != kNone && sp::SockConnect(out, &addr) == 0;
  }
  if (ok) {
    in = sp::SockAccept(listener, nullptr);
    ok = in != kNone;
  }
  sp::SockClose(listener);
  // The sender never blocks: a full buffer already holds a pending wake-up.
  if (ok)
    ok = sp::SockSetNonBlocking(out) == 0 && sp::SockSetNonBlocking(in) == 0 && ctrl->AddActiveSock(in, 0) == 1;
  if (!ok) {
    if (out != kNone)
      sp::SockClose(out);
    if (in != kNone)
      sp::SockClose(in);
    return false;
  }
  send_ = out;
  recv_ = in;
  return true;
}

void PassWaker::Wake() {
  if (send_ != kNone)
    sp::SockSend(send_, "\n", 1);
}

}  // namespace shared::server::detail
