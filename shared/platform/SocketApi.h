// SocketApi.h: thin wrappers over the system's socket calls (IPv4 only).
//
// The socket primitives and the socket controller call these instead of the
// system, so no other folder needs a socket header or an errno. The rules
// every wrapper keeps:
//   - a handle is the descriptor number as an unsigned 32-bit value, and
//     INVALID_SOCKET (all ones) is refused at once with error EBADF;
//   - on failure the system's error code is saved at once in a per-thread
//     "last socket error" (SockLastError), like the Winsock last error; a
//     success leaves it unchanged;
//   - EINTR is retried inside the wrapper (never for close);
//   - sending never raises SIGPIPE: a broken connection is an error result;
//   - descriptors are made close-on-exec.
// Results follow the system: -1 (SOCKET_ERROR) on failure unless a function
// says otherwise. Nothing here allocates, locks or logs; any thread may call.
#pragma once

#include "platform/SockAddr.h"
#include "platform/Types.h"

#include <cstdint>

namespace shared::platform {

// Error codes the library compares against (the system's values).
struct SockErrors {
  static int const kWouldBlock;   // EAGAIN / EWOULDBLOCK
  static int const kInProgress;   // EINPROGRESS
  static int const kNoBufs;       // ENOBUFS
  static int const kBadHandle;    // EBADF
  static int const kInvalid;      // EINVAL
  static int const kMsgSize;      // EMSGSIZE: a datagram longer than the buffer was cut
  static int const kProcFiles;    // EMFILE: the process is out of descriptors
  static int const kSysFiles;     // ENFILE: the system is out of descriptors
};

// The per-thread last socket error.
int SockLastError();
void SockSetLastError(int err);

// Socket kinds.
enum SockKind : int { kSockStream = 1, kSockDatagram = 2 };

// socket(AF_INET, kind, protocol). INVALID_SOCKET on failure.
SOCKET SockOpen(int kind, int protocol);
// close(); no retry on EINTR (the descriptor is gone either way on Linux).
int SockClose(SOCKET s);
// shutdown(s, how) with how 0 read, 1 write, 2 both.
int SockShutdown(SOCKET s, int how);

int SockBind(SOCKET s, sockaddr_in const *addr);
int SockListen(SOCKET s, int backlog);
// connect(). On a blocking socket an interrupted connect is finished by
// waiting for it, so EINTR never reaches the caller.
int SockConnect(SOCKET s, sockaddr_in const *addr);
// accept(); the new socket is close-on-exec. peer may be null.
SOCKET SockAccept(SOCKET s, sockaddr_in *peer);

// recv()/send(). peek reads without consuming; dontWait makes this one call
// non-blocking whatever the socket's mode.
int SockRecv(SOCKET s, void *buf, unsigned len, bool peek = false, bool dontWait = false);
// A datagram longer than len is cut to len: the call then fails (-1) with
// kMsgSize, the len bytes are in buf and *from is filled, as Winsock does.
int SockRecvFrom(SOCKET s, void *buf, unsigned len, sockaddr_in *from, bool dontWait = false);
int SockSend(SOCKET s, void const *buf, unsigned len, bool dontWait = false);
// One piece of a gathered send.
struct SockPiece {
  void const *data;
  unsigned len;
};
constexpr unsigned kMaxSendPieces = 64;
// sendmsg() of count pieces (count is cut to kMaxSendPieces), in calls of at most chunk
// bytes while each call takes all it is given; the bytes sent, -1 when the
// first call fails.
int SockSendPieces(SOCKET s, SockPiece const *pieces, unsigned count, bool dontWait,
                   unsigned chunk = 0xFFFFFFFFu);
// The bytes the socket's send buffer holds for data (0 when unknown).
unsigned SockSendBufferBytes(SOCKET s);
// For a sender that found no room and will wait for some: sends what the
// stream socket holds back for coalescing (a short segment behind another
// unacknowledged one), as a blocking send does before it sleeps. Otherwise
// the peer, which holds its acknowledgement for a while when nothing more
// comes, and the sender, which waits for that acknowledgement to free room,
// stall each other until the peer's timer runs out (about 40 ms on Linux).
// Leaves the socket's options and the last error as they were.
void SockPushPending(SOCKET s);
// True while s names an open descriptor (of any kind).
bool SockIsOpen(SOCKET s);
int SockSendTo(SOCKET s, void const *buf, unsigned len, sockaddr_in const *to);

int SockGetName(SOCKET s, sockaddr_in *out);
int SockGetPeer(SOCKET s, sockaddr_in *out);

// Always switches to non-blocking (there is no way back, by design).
int SockSetNonBlocking(SOCKET s);

// Socket options by meaning; each maps to the system's level and name.
enum class SockOpt : int {
  kReuseAddr,
  kRcvBuf,
  kSndBuf,
  kTcpNoDelay,
  kMulticastTtl,
  kType,      // read only: kSockStream or kSockDatagram
  kError,     // read only: pending error, cleared by the read
};
int SockSetOptInt(SOCKET s, SockOpt opt, int value);
// 0 and *value filled on success.
int SockGetOptInt(SOCKET s, SockOpt opt, int *value);
// SO_LINGER with the given on-flag and seconds.
int SockSetLinger(SOCKET s, int on, int seconds);
// IP_MULTICAST_IF with an interface address in network order.
int SockSetMulticastIf(SOCKET s, std::uint32_t ifaceAddr);
// IP_ADD_MEMBERSHIP / IP_DROP_MEMBERSHIP, addresses in network order.
int SockMembership(SOCKET s, bool add, std::uint32_t group, std::uint32_t ifaceAddr);

// Largest payload of one IPv4 datagram (65535 less the IP and UDP headers).
constexpr unsigned kMaxUdpPayload = 65507;

// Readiness waits are in platform/Readiness.h (WaitSockets).

// --- Names and addresses ---------------------------------------------------

// inet_addr: dotted IPv4 text to a network-order address, 0xFFFFFFFF on
// failure (and for "255.255.255.255", which cannot be told apart).
std::uint32_t SockInetAddr(char const *text);
// inet_ntoa into a per-thread buffer, valid until the thread's next call.
char const *SockInetNtoa(std::uint32_t addr);
std::uint16_t SockHtons(std::uint16_t v);
std::uint16_t SockNtohs(std::uint16_t v);

// First IPv4 address of a host name (network order); 0xFFFFFFFF when the
// name cannot be resolved. Thread-safe.
std::uint32_t SockResolveHost(char const *name);
// Protocol number of a protocol name ("tcp", "udp"); -1 when unknown.
int SockProtocolByName(char const *name);
// Port (network order) of a service for a protocol; 0 when unknown.
std::uint16_t SockServicePort(char const *service, char const *proto);
// gethostbyaddr with the caller's raw arguments (address bytes, the length
// to pass, family). have is how many bytes addr really holds: the look-up
// never reads past them, whatever len says. The official name goes to name
// (size bytes with NUL). 1 on success, 0 when nothing was found.
int SockHostByAddr(void const *addr, unsigned have, unsigned len, int family, char *name,
                   unsigned size);
// gethostname; 0 on success.
int SockHostName(char *name, unsigned len);

}  // namespace shared::platform
