// A controller's queued sends on a real loopback TCP socket: bytes the socket
// would hold back to coalesce (Nagle's rule, a cork) go out with each send,
// and the owner's options stay as they were.
#include "socket/SendQueue.h"
#include "socket/SocketCtrl.h"

#include "platform/SocketApi.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

namespace sp = shared::platform;

int IntOption(int fd, int name) {
  int v = -1;
  socklen_t len = sizeof v;
  EXPECT_EQ(0, ::getsockopt(fd, IPPROTO_TCP, name, &v, &len));
  return v;
}

// Bytes written to the socket and not yet sent.
int NotSent(int fd) {
  int n = -1;
  EXPECT_EQ(0, ::ioctl(fd, SIOCOUTQNSD, &n));
  return n;
}

// A queued send leaves nothing held back: with a cork (which holds a short
// segment for up to 200 ms) the bytes are on their way when the send
// returns, and the cork and Nagle's rule are still the owner's.
TEST(QueuedSend, LeavesNothingHeldBackAndTheOwnersOptionsAsTheyWere) {
  int l = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ASSERT_EQ(0, ::bind(l, reinterpret_cast<sockaddr *>(&a), sizeof a));
  ASSERT_EQ(0, ::listen(l, 1));
  ASSERT_EQ(0, ::getsockname(l, reinterpret_cast<sockaddr *>(&a), &len));
  int const receiver = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(0, ::connect(receiver, reinterpret_cast<sockaddr *>(&a), sizeof a));
  int const sender = ::accept(l, nullptr, nullptr);
  ::close(l);

  SendQueue queue(4096, 4, 4);
  SocketCtrl ctrl(&queue, 0, 0, 0, 1, "push");
  ASSERT_EQ(1, ctrl.AddActiveSock(static_cast<SOCKET>(sender)));  // the controller closes it
  int const on = 1;
  ASSERT_EQ(0, ::setsockopt(sender, IPPROTO_TCP, TCP_CORK, &on, sizeof on));

  char const bytes[100] = {};
  sp::SockPiece const piece{bytes, sizeof bytes};
  ISendSink &sink = ctrl;
  EXPECT_EQ(100u, sink.SendQueued(static_cast<unsigned>(sender), &piece, 1));
  EXPECT_EQ(0, NotSent(sender));
  EXPECT_EQ(0, IntOption(sender, TCP_NODELAY));
  EXPECT_NE(0, IntOption(sender, TCP_CORK));
  char got[200];
  EXPECT_EQ(100, ::recv(receiver, got, 100, MSG_WAITALL));

  // An owner that turned coalescing off keeps it off.
  int const off = 0;
  ASSERT_EQ(0, ::setsockopt(sender, IPPROTO_TCP, TCP_CORK, &off, sizeof off));
  ASSERT_EQ(0, ::setsockopt(sender, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
  EXPECT_EQ(100u, sink.SendQueued(static_cast<unsigned>(sender), &piece, 1));
  EXPECT_NE(0, IntOption(sender, TCP_NODELAY));
  EXPECT_EQ(100, ::recv(receiver, got, 100, MSG_WAITALL));
  ::close(receiver);
}

}  // namespace
