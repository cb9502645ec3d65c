// The flat socket functions on real loopback sockets and socket pairs.
#include "socket/SocketPrimitives.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A connected stream pair; the test writes into `peer` and reads `s`.
struct StreamPair {
  SOCKET s = INVALID_SOCKET;
  int peer = -1;
  StreamPair() {
    int fds[2];
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    s = static_cast<SOCKET>(fds[0]);
    peer = fds[1];
  }
  ~StreamPair() {
    if (s != INVALID_SOCKET)
      ::close(static_cast<int>(s));
    if (peer >= 0)
      ::close(peer);
  }
  void Send(std::string const &bytes) const {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::send(peer, bytes.data(), bytes.size(), 0));
  }
  void ClosePeer() {
    ::close(peer);
    peer = -1;
  }
};

std::string ReadLine(SOCKET s, unsigned size, int *result) {
  char buf[600];
  std::memset(buf, 'X', sizeof(buf));
  *result = so_readLine(buf, size, s);
  return buf;
}

SOCKET UdpSocket() {
  int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)));
  return static_cast<SOCKET>(fd);
}

TEST(SoReadLine, LineEndsLfCrAndCrLfEachEndOneLine) {
  StreamPair p;
  p.Send("ab\r\ncd\nef\rgh\n\n");
  int r = 0;
  EXPECT_EQ("ab", ReadLine(p.s, 100, &r));
  EXPECT_EQ(1, r);
  EXPECT_EQ("cd", ReadLine(p.s, 100, &r));
  EXPECT_EQ(1, r);
  // A lone CR ends the line and leaves the next byte in the socket.
  EXPECT_EQ("ef", ReadLine(p.s, 100, &r));
  EXPECT_EQ(1, r);
  EXPECT_EQ("gh", ReadLine(p.s, 100, &r));
  EXPECT_EQ("", ReadLine(p.s, 100, &r));
  EXPECT_EQ(1, r);
}

TEST(SoReadLine, LongLineIsCutAndTheRestComesNext) {
  StreamPair p;
  p.Send("abcdef\n");
  int r = 0;
  EXPECT_EQ("abc", ReadLine(p.s, 4, &r));
  EXPECT_EQ(1, r);
  EXPECT_EQ("def", ReadLine(p.s, 4, &r));
  EXPECT_EQ(1, r);
}

// The line is read in blocks, yet every byte after it stays in the socket
// for whoever reads next, whichever end the line has.
TEST(SoReadLine, BytesAfterTheLineStayInTheSocket) {
  StreamPair p;
  int r = 0;
  for (std::string end : {"\n", "\r\n", "\r"}) {
    p.Send("head" + end + "rest");
    EXPECT_EQ("head", ReadLine(p.s, 100, &r));
    EXPECT_EQ(1, r);
    char rest[16] = {};
    EXPECT_EQ(4, ::recv(static_cast<int>(p.s), rest, sizeof(rest), MSG_DONTWAIT)) << "after " << end.size();
    EXPECT_STREQ("rest", rest);
  }
  // A line close to the buffer size comes whole, its successor next.
  std::string const longLine(550, 'L');
  p.Send(longLine + "\nnext\n");
  EXPECT_EQ(longLine, ReadLine(p.s, 600, &r));
  EXPECT_EQ("next", ReadLine(p.s, 600, &r));
}

TEST(SoReadLine, PeerClosingMidLineKeepsTheBytesAndReturnsZero) {
  StreamPair p;
  p.Send(std::string("x\0y", 3));
  p.ClosePeer();
  char buf[16];
  EXPECT_EQ(0, so_readLine(buf, sizeof(buf), p.s));
  EXPECT_EQ(0, std::memcmp(buf, "x\0y\0", 4));  // a zero byte is stored like any other
  // Bad arguments leave the buffer untouched.
  buf[0] = 'Q';
  EXPECT_EQ(0, so_readLine(buf, 0, p.s));
  EXPECT_EQ(0, so_readLine(buf, 5, INVALID_SOCKET));
  EXPECT_EQ('Q', buf[0]);
}

TEST(SoRead, AllOrNothingAndSingleCall) {
  StreamPair p;
  char buf[8] = {};
  p.Send("abcde");
  // Without readAll one call returns what is there.
  EXPECT_EQ(2, so_read(buf, 2, nullptr, p.s, 0));
  // With readAll the record completes across sends...
  p.Send("fgh");
  EXPECT_EQ(6, so_read(buf, 6, nullptr, p.s, 1));
  EXPECT_EQ(0, std::memcmp(buf, "cdefgh", 6));
  // ...or the stream's end is reported and the partial bytes not counted.
  p.Send("xyz");
  p.ClosePeer();
  EXPECT_EQ(0, so_read(buf, 8, nullptr, p.s, 1));
  EXPECT_EQ(0, std::memcmp(buf, "xyz", 3));
  EXPECT_EQ(-1, so_read(nullptr, 8, nullptr, p.s, 1));
  EXPECT_EQ(-1, so_read(buf, 0, nullptr, p.s, 1));
  EXPECT_EQ(-1, so_read(buf, 8, nullptr, INVALID_SOCKET, 1));
}

TEST(SoReadInt, NumbersTextAndClosedStreams) {
  StreamPair p;
  p.Send("42\nabc\n");
  EXPECT_EQ(42, so_readInt(p.s));
  EXPECT_EQ(0, so_readInt(p.s));
  p.ClosePeer();
  EXPECT_EQ(-1, so_readInt(p.s));
  EXPECT_EQ(-1, so_readInt(INVALID_SOCKET));
}

TEST(SocketErrors, WouldBlockCodesAndLastError) {
  EXPECT_EQ(0, SocketWouldBlock(0));
  for (int code : {11, 10035, 10036, 10055, EINPROGRESS, ENOBUFS})
    EXPECT_EQ(1, SocketWouldBlock(code)) << code;
  EXPECT_EQ(0, SocketWouldBlock(ECONNRESET));

  StreamPair p;
  ASSERT_EQ(1, set_non_blocking(p.s));
  char c;
  EXPECT_EQ(-1, so_read(&c, 1, nullptr, p.s, 0));
  EXPECT_EQ(EAGAIN, GetLastSocketError());
  EXPECT_EQ(1, SocketWouldBlock(SOCKET_ERROR));
  // A failure that is not a would-block replaces the last error.
  EXPECT_EQ(-1, so_read(&c, 1, nullptr, static_cast<SOCKET>(1000000), 0));
  EXPECT_EQ(0, SocketWouldBlock(-1));
}

TEST(Addresses, TextAndIntegerFormsAndTheirResults) {
  EXPECT_EQ(0xFFFFFFFFu, IPStrToLong("   "));
  EXPECT_EQ(0xFFFFFFFFu, IPStrToLong(nullptr));
  EXPECT_EQ(0xFFFFFFFFu, IPStrToLong("255.255.255.255"));
  EXPECT_EQ(0xFFFFFFFFu, IPStrToLong("host.example"));
  unsigned lo = IPStrToLong("127.0.0.1");
  EXPECT_EQ(htonl(INADDR_LOOPBACK), lo);
  EXPECT_STREQ("127.0.0.1", IPLongToStr(lo));

  sockaddr_in sin;
  std::memset(&sin, 0xAB, sizeof(sin));
  sockaddr_in const before = sin;
  EXPECT_EQ(0, _SetSockAddrIn(&sin, lo, 0));
  EXPECT_EQ(0, _SetSockAddrIn(&sin, 0xFFFFFFFFu, 80));
  EXPECT_EQ(0, std::memcmp(&sin, &before, sizeof(sin)));
  EXPECT_EQ(1, _SetSockAddrIn(&sin, lo, 8080));
  EXPECT_EQ(AF_INET, sin.sin_family);
  EXPECT_EQ(8080u, GetSinPort(&sin));
  EXPECT_EQ(0, sin.sin_zero[0] | sin.sin_zero[7]);

  // The text form returns the address itself.
  EXPECT_EQ(lo, SetSockAddrIn(&sin, "127.0.0.1", 99));
  EXPECT_EQ(0xFFFFFFFFu, SetSockAddrIn(&sin, "", 99));
  EXPECT_EQ(0xFFFFFFFFu, SetSockAddrIn(&sin, "127.0.0.1", 0));
  EXPECT_EQ(0xFFFFFFFFu, SetSockAddrIn(&sin, "nonsense", 99));

  char buf[16] = "junk";
  EXPECT_EQ(0xFFFFFFFFu, GetSinIP(nullptr, buf, 15));
  EXPECT_STREQ("", buf);
  EXPECT_EQ(lo, GetSinIP(&sin, buf, 15));
  EXPECT_STREQ("127.0.0.1", buf);
  EXPECT_EQ(0u, GetSinPort(nullptr));
}

TEST(Addresses, SocketNamesPeersAndClientHost) {
  int lfd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, ::bind(lfd, reinterpret_cast<sockaddr *>(&a), sizeof(a)));
  ASSERT_EQ(0, ::listen(lfd, 4));
  char buf[16] = "old";
  unsigned port = 0;
  ASSERT_EQ(1, GetSockName(static_cast<SOCKET>(lfd), buf, 15, &port));
  EXPECT_STREQ("127.0.0.1", buf);
  EXPECT_NE(0u, port);

  int cfd = ::socket(AF_INET, SOCK_STREAM, 0);
  a.sin_port = htons(static_cast<uint16_t>(port));
  ASSERT_EQ(0, ::connect(cfd, reinterpret_cast<sockaddr *>(&a), sizeof(a)));
  unsigned peerPort = 0;
  EXPECT_EQ(htonl(INADDR_LOOPBACK), GetPeerName(static_cast<SOCKET>(cfd), buf, 15, &peerPort));
  EXPECT_EQ(port, peerPort);
  // A listening socket has no peer: -1 and an emptied buffer.
  std::strcpy(buf, "old");
  EXPECT_EQ(0xFFFFFFFFu, GetPeerName(static_cast<SOCKET>(lfd), buf, 15, nullptr));
  EXPECT_STREQ("", buf);
  std::strcpy(buf, "old");
  EXPECT_EQ(0, GetSockName(INVALID_SOCKET, buf, 15, nullptr));
  EXPECT_STREQ("old", buf);

  EXPECT_EQ(htonl(INADDR_LOOPBACK), GetIP(static_cast<SOCKET>(cfd), nullptr, buf, 15));
  EXPECT_EQ(0xFFFFFFFFu, GetIP(INVALID_SOCKET, nullptr, buf, 15));
  EXPECT_EQ(htonl(INADDR_LOOPBACK), GetIP(INVALID_SOCKET, &a, buf, 15));

  // A blank buffer is refused before any look-up; the odd look-up itself
  // may or may not find a name, but must not crash whatever size says.
  char host[300] = "";
  EXPECT_EQ(0, GetClientHost(static_cast<SOCKET>(cfd), host, 255));
  std::strcpy(host, "x");
  EXPECT_EQ(0, GetClientHost(static_cast<SOCKET>(cfd), host, 0));
  for (int size : {4, 16, 255}) {
    std::strcpy(host, "x");
    int r = GetClientHost(static_cast<SOCKET>(cfd), host, size);
    EXPECT_TRUE(r == 0 || r == 1);
  }
  EXPECT_EQ(0, GetClientHost(INVALID_SOCKET, host, 15));

  char name[256];
  EXPECT_EQ(1, GetMyHostName(name, sizeof(name)));
  EXPECT_EQ(0, GetMyHostName(nullptr, 10));
  ::close(cfd);
  ::close(lfd);
}

TEST(Options, RoundTripsAndInvalidHandles) {
  int tfd = ::socket(AF_INET, SOCK_STREAM, 0);
  SOCKET t = static_cast<SOCKET>(tfd);
  EXPECT_EQ(1, SetTCPNoDelay(1, t));
  int v = 0;
  socklen_t len = sizeof(v);
  ::getsockopt(tfd, IPPROTO_TCP, 1, &v, &len);
  EXPECT_NE(0, v);
  EXPECT_EQ(1, SetRcvBufSize(32768, t));
  EXPECT_GE(GetRcvBufSize(t), 32768);
  EXPECT_EQ(1, SetSndBufSize(32768, t));
  EXPECT_GE(GetSndBufSize(t), 32768);
  EXPECT_EQ(1, set_dont_linger(t));
  EXPECT_EQ(0, GetMaxMsgSize(t));
  SOCKET u = UdpSocket();
  EXPECT_EQ(65507, GetMaxMsgSize(u));

  SOCKET const bad = INVALID_SOCKET;
  EXPECT_EQ(0, SetTCPNoDelay(1, bad) + GetRcvBufSize(bad) + GetMaxMsgSize(bad) + set_non_blocking(bad) +
                   SetMulticast(1, nullptr, bad) + AddMembership("239.1.2.3", nullptr, bad));
  ::close(tfd);
  ::close(static_cast<int>(u));
}

TEST(Options, MulticastOnLoopback) {
  SOCKET u = UdpSocket();
  EXPECT_EQ(1, SetMulticast(1, "127.0.0.1", u));
  EXPECT_EQ(1, SetMulticast(1, "   ", u));  // blank: the default interface
  EXPECT_EQ(0, AddMembership("", nullptr, u));
  EXPECT_EQ(0, AddMembership("not.a.group", nullptr, u));
  // Joining needs a multicast route on some sandboxes; when the kernel
  // allows the join, the drop must succeed too.
  if (AddMembership("239.1.2.3", "127.0.0.1", u) == 1) {
    EXPECT_EQ(1, DropMembership("239.1.2.3", "127.0.0.1", u));
  }
  EXPECT_EQ(0, DropMembership("239.1.2.4", "127.0.0.1", u));  // never joined
  ::close(static_cast<int>(u));
}

TEST(Close, ShutsDownBeforeClosing) {
  StreamPair p;
  EXPECT_EQ(0, _closesocket(p.s));
  p.s = INVALID_SOCKET;
  char c;
  EXPECT_EQ(0, ::recv(p.peer, &c, 1, 0));  // the peer sees the end of stream
  EXPECT_EQ(-1, _closesocket(INVALID_SOCKET));
}

}  // namespace

// A negative length must be refused before it turns into a huge unsigned
// count that would send (and read) past the buffer.
TEST(SoWriteTo, NegativeLengthIsRefusedWithoutSending) {
  int rx = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, ::bind(rx, reinterpret_cast<sockaddr *>(&to), sizeof(to)));
  socklen_t len = sizeof(to);
  ASSERT_EQ(0, ::getsockname(rx, reinterpret_cast<sockaddr *>(&to), &len));
  int tx = ::socket(AF_INET, SOCK_DGRAM, 0);
  char const buf[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(-1, so_writeto(buf, -1, &to, static_cast<SOCKET>(tx)));
  EXPECT_EQ(-1, so_writeto(buf, -70000, &to, static_cast<SOCKET>(tx)));
  EXPECT_EQ(4, so_writeto(buf, 4, &to, static_cast<SOCKET>(tx)));
  char got[8];
  EXPECT_EQ(4, ::recv(rx, got, sizeof(got), 0));  // only the good one arrived
  EXPECT_EQ(-1, ::recv(rx, got, sizeof(got), MSG_DONTWAIT));
  ::close(tx);
  ::close(rx);
}
