// POSIX implementation of the socket wrappers (see platform/SocketApi.h).
#include "platform/SocketApi.h"

#include "platform/PlatformConfig.h"
#include "platform/Readiness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace shared::platform {

int const SockErrors::kWouldBlock = EAGAIN;
int const SockErrors::kInProgress = EINPROGRESS;
int const SockErrors::kNoBufs = ENOBUFS;
int const SockErrors::kBadHandle = EBADF;
int const SockErrors::kInvalid = EINVAL;
int const SockErrors::kMsgSize = EMSGSIZE;
int const SockErrors::kProcFiles = EMFILE;
int const SockErrors::kSysFiles = ENFILE;

namespace {

thread_local int tLastError = 0;

// Saves errno as the last socket error and returns r (the failure value).
template <typename T>
T Fail(T r) {
  tLastError = errno;
  return r;
}

int BadHandle() {
  tLastError = EBADF;
  return -1;
}

int Fd(SOCKET s) { return static_cast<int>(s); }

#if SHAREDLIB_HAVE_MSG_NOSIGNAL
constexpr int kNoSignal = MSG_NOSIGNAL;
#else
constexpr int kNoSignal = 0;
#endif

// sockaddr_in and sockaddr share their layout by the socket API's design.
sockaddr const *AsSa(sockaddr_in const *a) { return reinterpret_cast<sockaddr const *>(a); }
sockaddr *AsSa(sockaddr_in *a) { return reinterpret_cast<sockaddr *>(a); }

bool OptLevelName(SockOpt opt, int *level, int *name) {
  switch (opt) {
  case SockOpt::kReuseAddr: *level = SOL_SOCKET; *name = SO_REUSEADDR; return true;
  case SockOpt::kRcvBuf: *level = SOL_SOCKET; *name = SO_RCVBUF; return true;
  case SockOpt::kSndBuf: *level = SOL_SOCKET; *name = SO_SNDBUF; return true;
  case SockOpt::kTcpNoDelay: *level = IPPROTO_TCP; *name = TCP_NODELAY; return true;
  case SockOpt::kMulticastTtl: *level = IPPROTO_IP; *name = IP_MULTICAST_TTL; return true;
  case SockOpt::kType: *level = SOL_SOCKET; *name = SO_TYPE; return true;
  case SockOpt::kError: *level = SOL_SOCKET; *name = SO_ERROR; return true;
  }
  tLastError = EINVAL;
  return false;
}

}  // namespace

int SockLastError() { return tLastError; }
void SockSetLastError(int err) { tLastError = err; }

SOCKET SockOpen(int kind, int protocol) {
  int type = kind == kSockDatagram ? SOCK_DGRAM : SOCK_STREAM;
  int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, protocol);
  if (fd < 0)
    return Fail(INVALID_SOCKET);
  return static_cast<SOCKET>(fd);
}

int SockClose(SOCKET s) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  // EINTR is not retried: Linux has released the descriptor already, and a
  // second close could hit a descriptor another thread has just opened.
  if (::close(Fd(s)) != 0 && errno != EINTR)
    return Fail(-1);
  return 0;
}

int SockShutdown(SOCKET s, int how) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  int h = how == 0 ? SHUT_RD : how == 1 ? SHUT_WR : SHUT_RDWR;
  return ::shutdown(Fd(s), h) == 0 ? 0 : Fail(-1);
}

int SockBind(SOCKET s, sockaddr_in const *addr) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  return ::bind(Fd(s), AsSa(addr), sizeof(sockaddr_in)) == 0 ? 0 : Fail(-1);
}

int SockListen(SOCKET s, int backlog) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  return ::listen(Fd(s), backlog) == 0 ? 0 : Fail(-1);
}

int SockConnect(SOCKET s, sockaddr_in const *addr) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  if (::connect(Fd(s), AsSa(addr), sizeof(sockaddr_in)) == 0)
    return 0;
  if (errno != EINTR)
    return Fail(-1);
  // An interrupted connect goes on in the background; calling connect again
  // would fail with EALREADY. Wait for the outcome instead. A non-blocking
  // socket reports it as in progress, like any non-blocking connect.
  int flags = ::fcntl(Fd(s), F_GETFL);
  if (flags >= 0 && (flags & O_NONBLOCK)) {
    tLastError = EINPROGRESS;
    return -1;
  }
  std::uint32_t one = s;
  if (WaitSockets(&one, 1, 2u, -1, nullptr) < 0)
    return Fail(-1);
  int err = 0;
  if (SockGetOptInt(s, SockOpt::kError, &err) != 0)
    return -1;
  if (err != 0) {
    tLastError = err;
    return -1;
  }
  return 0;
}

SOCKET SockAccept(SOCKET s, sockaddr_in *peer) {
  if (s == INVALID_SOCKET) {
    BadHandle();
    return INVALID_SOCKET;
  }
  sockaddr_in local{};
  socklen_t len = sizeof(local);
  int fd;
  do {
#if SHAREDLIB_HAVE_ACCEPT4
    fd = ::accept4(Fd(s), AsSa(&local), &len, SOCK_CLOEXEC);
#else
    fd = ::accept(Fd(s), AsSa(&local), &len);
    if (fd >= 0)
      ::fcntl(fd, F_SETFD, FD_CLOEXEC);
#endif
  } while (fd < 0 && errno == EINTR);
  if (fd < 0)
    return Fail(INVALID_SOCKET);
  if (peer)
    *peer = local;
  return static_cast<SOCKET>(fd);
}

int SockRecv(SOCKET s, void *buf, unsigned len, bool peek, bool dontWait) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  int flags = (peek ? MSG_PEEK : 0) | (dontWait ? MSG_DONTWAIT : 0);
  ssize_t r;
  do {
    r = ::recv(Fd(s), buf, len, flags);
  } while (r < 0 && errno == EINTR);
  return r < 0 ? Fail(-1) : static_cast<int>(r);
}

int SockRecvFrom(SOCKET s, void *buf, unsigned len, sockaddr_in *from, bool dontWait) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  ssize_t r;
  sockaddr_in src{};
  iovec iov{buf, len};
  msghdr msg{};
  do {
    msg = msghdr{};
    msg.msg_name = &src;
    msg.msg_namelen = sizeof(src);
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    r = ::recvmsg(Fd(s), &msg, dontWait ? MSG_DONTWAIT : 0);
  } while (r < 0 && errno == EINTR);
  if (r < 0)
    return Fail(-1);
  if (from)
    *from = src;
  if (msg.msg_flags & MSG_TRUNC) {
    tLastError = EMSGSIZE;  // the rest of the datagram is gone: never pass it off as whole
    return -1;
  }
  return static_cast<int>(r);
}

int SockSend(SOCKET s, void const *buf, unsigned len, bool dontWait) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  int const flags = kNoSignal | (dontWait ? MSG_DONTWAIT : 0);
  ssize_t r;
  do {
    r = ::send(Fd(s), buf, len, flags);
  } while (r < 0 && errno == EINTR);
  return r < 0 ? Fail(-1) : static_cast<int>(r);
}

int SockSendPieces(SOCKET s, SockPiece const *pieces, unsigned count, bool dontWait, unsigned chunk) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  count = count > kMaxSendPieces ? kMaxSendPieces : count;
  chunk = chunk == 0 ? 0xFFFFFFFFu : chunk;
  int const flags = kNoSignal | (dontWait ? MSG_DONTWAIT : 0);
  iovec iov[kMaxSendPieces];
  unsigned at = 0;      // the piece to go on from
  unsigned offset = 0;  // bytes of it already sent
  std::size_t total = 0;
  while (at < count) {
    unsigned used = 0;
    unsigned room = chunk;
    for (unsigned i = at; i < count && room > 0; ++i, ++used) {
      unsigned const skip = i == at ? offset : 0;
      unsigned const len = std::min(pieces[i].len - skip, room);
      iov[used] = iovec{const_cast<char *>(static_cast<char const *>(pieces[i].data)) + skip, len};
      room -= len;
    }
    std::size_t const asked = chunk - room;
    if (asked == 0)
      break;  // only empty pieces are left
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = used;
    ssize_t r;
    do {
      r = ::sendmsg(Fd(s), &msg, flags);
    } while (r < 0 && errno == EINTR);
    if (r < 0)
      return total > 0 ? static_cast<int>(total) : Fail(-1);
    total += static_cast<std::size_t>(r);
    if (static_cast<std::size_t>(r) < asked)
      break;  // the buffer is full: the caller waits for room
    for (std::size_t n = static_cast<std::size_t>(r); n > 0 && at < count;) {
      std::size_t const left = pieces[at].len - offset;
      if (n < left) {
        offset += static_cast<unsigned>(n);
        n = 0;
      } else {
        n -= left;
        ++at;
        offset = 0;
      }
    }
    while (at < count && pieces[at].len == offset) {  // skip empty pieces
      ++at;
      offset = 0;
    }
  }
  return static_cast<int>(total);
}

// Linux reports twice the size asked for (the rest is its bookkeeping).
unsigned SockSendBufferBytes(SOCKET s) {
  int value = 0;
  socklen_t len = sizeof value;
  if (s == INVALID_SOCKET || ::getsockopt(Fd(s), SOL_SOCKET, SO_SNDBUF, &value, &len) != 0 || value <= 0)
    return 0;
  return static_cast<unsigned>(value) / 2;
}

// Turning TCP_NODELAY on sends the pending segments at once; it is turned
// off again at once, so coalescing goes on as the owner set it. Sockets
// without Nagle's rule, or not TCP, have nothing held back.
void SockPushPending(SOCKET s) {
  if (s == INVALID_SOCKET)
    return;
  int const saved = errno;
  int noDelay = 0;
  socklen_t len = sizeof noDelay;
  if (::getsockopt(Fd(s), IPPROTO_TCP, TCP_NODELAY, &noDelay, &len) == 0 && noDelay == 0) {
    int const on = 1;
    if (::setsockopt(Fd(s), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0)
      ::setsockopt(Fd(s), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
  }
  errno = saved;
}

bool SockIsOpen(SOCKET s) { return s != INVALID_SOCKET && ::fcntl(Fd(s), F_GETFD) != -1; }

int SockSendTo(SOCKET s, void const *buf, unsigned len, sockaddr_in const *to) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  ssize_t r;
  do {
    r = ::sendto(Fd(s), buf, len, kNoSignal, AsSa(to), to ? sizeof(sockaddr_in) : 0);
  } while (r < 0 && errno == EINTR);
  return r < 0 ? Fail(-1) : static_cast<int>(r);
}

int SockGetName(SOCKET s, sockaddr_in *out) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  socklen_t len = sizeof(sockaddr_in);
  return ::getsockname(Fd(s), AsSa(out), &len) == 0 ? 0 : Fail(-1);
}

int SockGetPeer(SOCKET s, sockaddr_in *out) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  socklen_t len = sizeof(sockaddr_in);
  return ::getpeername(Fd(s), AsSa(out), &len) == 0 ? 0 : Fail(-1);
}

int SockSetNonBlocking(SOCKET s) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  int flags = ::fcntl(Fd(s), F_GETFL);
  if (flags < 0 || ::fcntl(Fd(s), F_SETFL, flags | O_NONBLOCK) != 0)
    return Fail(-1);
  return 0;
}

int SockSetOptInt(SOCKET s, SockOpt opt, int value) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  int level = 0, name = 0;
  if (!OptLevelName(opt, &level, &name))
    return -1;
  return ::setsockopt(Fd(s), level, name, &value, sizeof(value)) == 0 ? 0 : Fail(-1);
}

int SockGetOptInt(SOCKET s, SockOpt opt, int *value) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  int level = 0, name = 0;
  if (!OptLevelName(opt, &level, &name))
    return -1;
  int v = 0;
  socklen_t len = sizeof(v);
  if (::getsockopt(Fd(s), level, name, &v, &len) != 0)
    return Fail(-1);
  if (opt == SockOpt::kType)
    v = v == SOCK_DGRAM ? kSockDatagram : v == SOCK_STREAM ? kSockStream : 0;
  if (value)
    *value = v;
  return 0;
}

int SockSetLinger(SOCKET s, int on, int seconds) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  linger l{};
  l.l_onoff = on;
  l.l_linger = seconds;
  return ::setsockopt(Fd(s), SOL_SOCKET, SO_LINGER, &l, sizeof(l)) == 0 ? 0 : Fail(-1);
}

int SockSetMulticastIf(SOCKET s, std::uint32_t ifaceAddr) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  in_addr a{};
  a.s_addr = ifaceAddr;
  return ::setsockopt(Fd(s), IPPROTO_IP, IP_MULTICAST_IF, &a, sizeof(a)) == 0 ? 0 : Fail(-1);
}

int SockMembership(SOCKET s, bool add, std::uint32_t group, std::uint32_t ifaceAddr) {
  if (s == INVALID_SOCKET)
    return BadHandle();
  ip_mreq m{};
  m.imr_multiaddr.s_addr = group;
  m.imr_interface.s_addr = ifaceAddr;
  int name = add ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP;
  return ::setsockopt(Fd(s), IPPROTO_IP, name, &m, sizeof(m)) == 0 ? 0 : Fail(-1);
}

std::uint32_t SockInetAddr(char const *text) {
  if (text == nullptr)
    return 0xFFFFFFFFu;
  return ::inet_addr(text);
}

char const *SockInetNtoa(std::uint32_t addr) {
  thread_local char text[16];
  unsigned char const *b = reinterpret_cast<unsigned char const *>(&addr);
  std::snprintf(text, sizeof(text), "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
  return text;
}

std::uint16_t SockHtons(std::uint16_t v) { return htons(v); }
std::uint16_t SockNtohs(std::uint16_t v) { return ntohs(v); }

std::uint32_t SockResolveHost(char const *name) {
  if (name == nullptr || *name == '\0')
    return 0xFFFFFFFFu;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  addrinfo *res = nullptr;
  if (::getaddrinfo(name, nullptr, &hints, &res) != 0 || res == nullptr)
    return 0xFFFFFFFFu;
  std::uint32_t addr = 0xFFFFFFFFu;
  for (addrinfo *p = res; p; p = p->ai_next) {
    if (p->ai_family == AF_INET && p->ai_addrlen >= sizeof(sockaddr_in)) {
      sockaddr_in sin{};
      std::memcpy(&sin, p->ai_addr, sizeof(sin));
      addr = sin.sin_addr.s_addr;
      break;
    }
  }
  ::freeaddrinfo(res);
  return addr;
}

int SockProtocolByName(char const *name) {
  if (name == nullptr)
    return -1;
  protoent pe{};
  protoent *res = nullptr;
  char buf[1024];
  if (::getprotobyname_r(name, &pe, buf, sizeof(buf), &res) == 0 && res != nullptr)
    return res->p_proto;
  // Minimal systems may lack the protocols database; the two protocols the
  // library uses are known without it.
  if (::strcasecmp(name, "tcp") == 0)
    return IPPROTO_TCP;
  if (::strcasecmp(name, "udp") == 0)
    return IPPROTO_UDP;
  return -1;
}

std::uint16_t SockServicePort(char const *service, char const *proto) {
  if (service == nullptr || *service == '\0')
    return 0;
  servent se{};
  servent *res = nullptr;
  char buf[1024];
  if (::getservbyname_r(service, proto, &se, buf, sizeof(buf), &res) == 0 && res != nullptr)
    return static_cast<std::uint16_t>(res->s_port);
  return 0;
}

int SockHostByAddr(void const *addr, unsigned have, unsigned len, int family, char *name,
                   unsigned size) {
  if (addr == nullptr || name == nullptr || size == 0)
    return 0;
  // The look-up may read up to len bytes of the address; callers hand over
  // small buffers with a larger len, so the bytes are copied into a zeroed
  // area that covers len, and longer lengths are refused.
  unsigned char bytes[1024] = {};
  if (len > sizeof(bytes))
    return 0;
  std::memcpy(bytes, addr, have < len ? have : len);
  hostent he{};
  hostent *res = nullptr;
  char buf[4096];
  int herr = 0;
  if (::gethostbyaddr_r(bytes, len, family, &he, buf, sizeof(buf), &res, &herr) != 0 ||
      res == nullptr || res->h_name == nullptr)
    return 0;
  std::snprintf(name, size, "%s", res->h_name);
  return 1;
}

int SockHostName(char *name, unsigned len) {
  if (name == nullptr || len == 0)
    return -1;
  return ::gethostname(name, len) == 0 ? 0 : Fail(-1);
}

}  // namespace shared::platform
