#include "socket/SocketPrimitives.h"

#include "platform/SocketApi.h"
#include "text/TextRoutines.h"

#include <cstring>

namespace sp = shared::platform;

namespace {

constexpr unsigned kNoAddr = 0xFFFFFFFFu;

// Winsock's would-block family, kept so codes carried over from a Windows
// peer or configuration still read the same.
constexpr int kWsaWouldBlock = 10035;
constexpr int kWsaInProgress = 10036;
constexpr int kWsaNoBufs = 10055;

void EmptyText(char *buf, int size) {
  if (buf && size > 0)
    buf[0] = '\0';
}

// Interface text of the multicast calls: blank or unparsable means 0, the
// default interface.
unsigned IfaceAddr(char const *iface) {
  unsigned a = IPStrToLong(iface);
  return a == kNoAddr ? 0u : a;
}

int Membership(bool add, char const *group, char const *iface, SOCKET s) {
  if (s == INVALID_SOCKET || group == nullptr || *group == '\0')
    return 0;
  unsigned g = IPStrToLong(group);
  if (g == kNoAddr)
    return 0;
  return sp::SockMembership(s, add, g, IfaceAddr(iface)) == 0 ? 1 : 0;
}

int IntOption(sp::SockOpt opt, SOCKET s) {
  if (s == INVALID_SOCKET)
    return 0;
  int v = 0;
  return sp::SockGetOptInt(s, opt, &v) == 0 ? v : 0;
}

int SetIntOption(sp::SockOpt opt, int value, SOCKET s) {
  if (s == INVALID_SOCKET)
    return 0;
  return sp::SockSetOptInt(s, opt, value) == 0 ? 1 : 0;
}

}  // namespace

SHAREDLIB_BEGIN_C

int GetLastSocketError(void) { return sp::SockLastError(); }

int SocketWouldBlock(int err) {
  if (err == 0)
    return 0;
  if (err == SOCKET_ERROR)
    err = GetLastSocketError();
  return (err == 11 || err == sp::SockErrors::kWouldBlock || err == sp::SockErrors::kInProgress ||
          err == sp::SockErrors::kNoBufs || err == kWsaWouldBlock || err == kWsaInProgress ||
          err == kWsaNoBufs)
             ? 1
             : 0;
}

int _closesocket(SOCKET s) {
  sp::SockShutdown(s, 2);
  return sp::SockClose(s);
}

int so_read(char *buf, unsigned len, sockaddr_in *from, SOCKET s, int readAll) {
  if (buf == nullptr || len == 0 || s == INVALID_SOCKET)
    return -1;
  unsigned total = 0;
  for (;;) {
    int r = from ? sp::SockRecvFrom(s, buf + total, len - total, from)
                 : sp::SockRecv(s, buf + total, len - total);
    if (r > 0)
      total += static_cast<unsigned>(r);
    if (!readAll)
      return r <= 0 ? r : static_cast<int>(total);
    // All or nothing: a record cut short by the end of the stream is not
    // counted, so the caller cannot mistake it for a whole one.
    if (r <= 0)
      return r;
    if (total >= len)
      return static_cast<int>(total);
  }
}

// Each step peeks what has arrived straight into the caller's buffer, then
// consumes exactly the part that belongs to the line, so a block read never
// takes a byte of the next line.
int so_readLineStep(char *dst, unsigned room, SOCKET s, bool dontWait, char *end) {
  *end = 0;
  int const got = sp::SockRecv(s, dst, room, true, dontWait);
  if (got <= 0)
    return got == 0 ? -2 : -1;
  unsigned const n = static_cast<unsigned>(got);
  unsigned i = 0;
  while (i < n && dst[i] != '\n' && dst[i] != '\r')
    ++i;
  int endLen = 0;
  if (i < n) {
    endLen = 1;
    *end = '\n';
    if (dst[i] == '\r' && i + 1 == n)
      *end = '\r';  // its LF, if any, has not arrived yet
    else if (dst[i] == '\r' && dst[i + 1] == '\n')
      endLen = 2;
  }
  // The line's bytes are already in place; taking them cannot block.
  char tail[2];
  if ((i > 0 && sp::SockRecv(s, dst, i, false, true) != static_cast<int>(i)) ||
      (endLen > 0 && sp::SockRecv(s, tail, static_cast<unsigned>(endLen), false, true) != endLen))
    return -1;
  return static_cast<int>(i);
}

void so_takePairedLf(SOCKET s, bool dontWait) {
  char next = 0;
  if (sp::SockRecv(s, &next, 1, true, dontWait) == 1 && next == '\n')
    sp::SockRecv(s, &next, 1, false, true);
}

int so_readLine(char *buf, unsigned size, SOCKET s) {
  if (buf == nullptr || size == 0 || s == INVALID_SOCKET)
    return 0;
  unsigned n = 0;
  while (n < size - 1) {  // a long line is cut here; its rest stays in the socket
    char end = 0;
    int const got = so_readLineStep(buf + n, size - 1 - n, s, false, &end);
    if (got < 0) {
      buf[n] = '\0';
      return 0;
    }
    n += static_cast<unsigned>(got);
    if (end == '\r')
      so_takePairedLf(s, false);
    if (end != 0)
      break;
  }
  buf[n] = '\0';
  return 1;
}

int so_readInt(SOCKET s) {
  if (s == INVALID_SOCKET)
    return -1;
  char line[513];
  if (!so_readLine(line, sizeof(line), s))
    return -1;
  return latoi(line);
}

int so_writeto(char const *buf, int len, sockaddr_in *to, SOCKET s) {
  // A negative length is refused before it could become a huge unsigned one.
  if (buf == nullptr || len <= 0 || s == INVALID_SOCKET || to == nullptr)
    return -1;
  return sp::SockSendTo(s, buf, static_cast<unsigned>(len), to);
}

unsigned IPStrToLong(char const *text) {
  if (comp_branco(text))
    return kNoAddr;
  return sp::SockInetAddr(text);
}

char const *IPLongToStr(unsigned addr) { return sp::SockInetNtoa(addr); }

int _SetSockAddrIn(sockaddr_in *sin, unsigned addr, unsigned port) {
  if (sin == nullptr || port == 0 || addr == kNoAddr)
    return 0;
  std::memset(sin, 0, sizeof(*sin));
  sin->sin_family = AF_INET;
  sin->sin_port = sp::SockHtons(static_cast<unsigned short>(port));
  sin->sin_addr.s_addr = addr;
  return 1;
}

unsigned SetSockAddrIn(sockaddr_in *sin, char const *ip, int port) {
  if (comp_branco(ip) || port == 0)
    return kNoAddr;
  unsigned addr = IPStrToLong(ip);
  if (addr == kNoAddr)
    return kNoAddr;
  _SetSockAddrIn(sin, addr, static_cast<unsigned>(port));
  return addr;
}

unsigned GetSinIP(sockaddr_in *sin, char *buf, int size) {
  EmptyText(buf, size);
  if (sin == nullptr)
    return kNoAddr;
  unsigned addr = sin->sin_addr.s_addr;
  if (buf && size > 0) {
    char const *text = sp::SockInetNtoa(addr);
    if (text)
      ajusta_str(text, buf, size);
  }
  return addr;
}

unsigned GetSinPort(sockaddr_in *sin) { return sin ? _Xntohs(sin->sin_port) : 0u; }

unsigned short _Xhtons(unsigned short v) { return sp::SockHtons(v); }
unsigned short _Xntohs(unsigned short v) { return sp::SockNtohs(v); }

int GetSockName(SOCKET s, char *buf, int size, unsigned *port) {
  if (s == INVALID_SOCKET)
    return 0;
  sockaddr_in sin{};
  if (sp::SockGetName(s, &sin) != 0)
    return 0;
  if (buf && size > 0)
    GetSinIP(&sin, buf, size);
  if (port)
    *port = GetSinPort(&sin);
  return 1;
}

unsigned GetPeerName(SOCKET s, char *buf, int size, unsigned *port) {
  EmptyText(buf, size);
  if (s == INVALID_SOCKET)
    return kNoAddr;
  sockaddr_in sin{};
  if (sp::SockGetPeer(s, &sin) != 0)
    return kNoAddr;
  if (buf && size > 0)
    GetSinIP(&sin, buf, size);
  if (port)
    *port = GetSinPort(&sin);
  return sin.sin_addr.s_addr;
}

unsigned GetIP(SOCKET s, sockaddr_in *sin, char *buf, int size) {
  EmptyText(buf, size);
  if (s != INVALID_SOCKET)
    return GetPeerName(s, buf, size, nullptr);
  if (sin == nullptr)
    return kNoAddr;
  return GetSinIP(sin, buf, size);
}

int GetClientHost(SOCKET s, char *host, int size) {
  if (comp_branco(host) || size <= 0)
    return 0;
  char local[16] = {};
  if (GetPeerName(s, local, 15, nullptr) == kNoAddr)
    return 0;
  // The arguments are kept as they always were: the dotted text stands
  // where the address bytes belong, size as its length, family 0.
  char name[1025];
  if (!sp::SockHostByAddr(local, sizeof(local), static_cast<unsigned>(size), 0, name,
                          sizeof(name)))
    return 0;
  ajusta_str(name, host, size);
  return 1;
}

int GetMyHostName(char *name, unsigned len) {
  if (name == nullptr || len == 0)
    return 0;
  if (sp::SockHostName(name, len) == 0)
    return 1;
  name[0] = '\0';
  return 0;
}

int set_non_blocking(SOCKET s) {
  if (s == INVALID_SOCKET)
    return 0;
  return sp::SockSetNonBlocking(s) == 0 ? 1 : 0;
}

int set_dont_linger(SOCKET s) {
  if (s == INVALID_SOCKET)
    return 0;
  return sp::SockSetLinger(s, 0, 0) == 0 ? 1 : 0;
}

int SetTCPNoDelay(int on, SOCKET s) { return SetIntOption(sp::SockOpt::kTcpNoDelay, on, s); }

int SetRcvBufSize(unsigned bytes, SOCKET s) {
  return SetIntOption(sp::SockOpt::kRcvBuf, static_cast<int>(bytes), s);
}

int SetSndBufSize(unsigned bytes, SOCKET s) {
  return SetIntOption(sp::SockOpt::kSndBuf, static_cast<int>(bytes), s);
}

int GetRcvBufSize(SOCKET s) { return IntOption(sp::SockOpt::kRcvBuf, s); }
int GetSndBufSize(SOCKET s) { return IntOption(sp::SockOpt::kSndBuf, s); }

int GetMaxMsgSize(SOCKET s) {
  // There is no protocol-information record here; the one protocol with a
  // message limit is UDP, whose limit is the largest IPv4 datagram payload.
  int type = IntOption(sp::SockOpt::kType, s);
  return type == sp::kSockDatagram ? static_cast<int>(sp::kMaxUdpPayload) : 0;
}

int SetMulticast(int ttl, char const *iface, SOCKET s) {
  if (s == INVALID_SOCKET)
    return 0;
  sp::SockSetOptInt(s, sp::SockOpt::kMulticastTtl, ttl);  // result ignored on purpose
  return sp::SockSetMulticastIf(s, IfaceAddr(iface)) == 0 ? 1 : 0;
}

int AddMembership(char const *group, char const *iface, SOCKET s) {
  return Membership(true, group, iface, s);
}

int DropMembership(char const *group, char const *iface, SOCKET s) {
  return Membership(false, group, iface, s);
}

SHAREDLIB_END_C
