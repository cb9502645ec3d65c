// SocketPrimitives.h: the flat socket functions (C linkage, IPv4 only).
//
// Each function takes a raw socket handle and plain buffers, hides one system
// call or option, and reports failure by its return value: nothing here keeps
// state, allocates, locks or logs, so any thread may call any function. A
// failure leaves the system's error in the per-thread last socket error
// (GetLastSocketError). A handle of -1 (INVALID_SOCKET) means "no socket" and
// is checked first everywhere.
//
// Text results are copied with ajusta_str: a buffer passed with size N must
// hold N + 1 bytes (callers pass 15 for a 16-byte dotted-address buffer).
//
// Result shapes differ on purpose and callers rely on them:
//   - read and address functions return -1 on failure (so_read, so_writeto,
//     so_readInt, IPStrToLong, SetSockAddrIn, GetSinIP, GetPeerName, GetIP);
//   - Boolean-style ones return 0 (so_readLine, _SetSockAddrIn, GetSockName,
//     GetClientHost, GetMyHostName, option setters and getters);
//   - SetSockAddrIn returns the address, _SetSockAddrIn 1/0; GetPeerName the
//     address, GetSockName 1/0.
// Option setters take the value first and the socket last.
//
// On Linux no send raises SIGPIPE, interrupted calls are retried, and the
// would-block test also knows EAGAIN (11), EINPROGRESS (115), ENOBUFS (105).
#pragma once

#include "platform/Export.h"
#include "platform/SockAddr.h"
#include "platform/Types.h"

SHAREDLIB_BEGIN_C

// --- Errors ------------------------------------------------------------------

// The calling thread's last socket error.
SHAREDLIB_API int GetLastSocketError(void);
// 1 when err is a try-again-later code; 0 for 0; -1 reads GetLastSocketError.
SHAREDLIB_API int SocketWouldBlock(int err);
// shutdown both ways, then close; the close result.
SHAREDLIB_API int _closesocket(SOCKET s);

// --- Reading and writing -------------------------------------------------------

// recv (or recvfrom into from). With readAll, loops until len bytes arrived
// and returns len, or returns the failing call's 0/-1 (bytes already read
// are left in buf but not counted). -1 for bad arguments.
SHAREDLIB_API int so_read(char *buf, unsigned len, sockaddr_in *from, SOCKET s, int readAll);
// One line, read in blocks without taking a byte past its end. LF, CR and
// CR LF end it (not stored); a line of size - 1 bytes is cut and counts as
// complete. 1 for a line, 0 when the stream ended first (what was read is
// still terminated in buf).
SHAREDLIB_API int so_readLine(char *buf, unsigned size, SOCKET s);
// One step of such a read: peeks up to room (> 0) bytes that have arrived
// into dst and consumes those that belong to the line, with its end. The
// bytes stored (>= 0), with *end 0 (no end seen yet), '\n' (LF or CR LF
// taken) or '\r' (a CR ended what had arrived: a LF may still follow, which
// belongs to it); -2 when the stream ended; -1 when it failed or (dontWait)
// had nothing yet (see the last socket error).
SHAREDLIB_API int so_readLineStep(char *dst, unsigned room, SOCKET s, bool dontWait, char *end);
// After a step ended in '\r': takes the LF that pairs with it, if it is next.
SHAREDLIB_API void so_takePairedLf(SOCKET s, bool dontWait);
// atoi of one line (cut at 512); -1 when s is -1 or no line could be read.
SHAREDLIB_API int so_readInt(SOCKET s);
// One sendto, no retry; -1 for bad arguments.
SHAREDLIB_API int so_writeto(char const *buf, int len, sockaddr_in *to, SOCKET s);

// --- Addresses (network order throughout) -------------------------------------

SHAREDLIB_API unsigned IPStrToLong(char const *text);
// Dotted text in a per-thread buffer, valid until the thread's next call.
SHAREDLIB_API char const *IPLongToStr(unsigned addr);
SHAREDLIB_API int _SetSockAddrIn(sockaddr_in *sin, unsigned addr, unsigned port);
SHAREDLIB_API unsigned SetSockAddrIn(sockaddr_in *sin, char const *ip, int port);
SHAREDLIB_API unsigned GetSinIP(sockaddr_in *sin, char *buf, int size);
SHAREDLIB_API unsigned GetSinPort(sockaddr_in *sin);
SHAREDLIB_API unsigned short _Xhtons(unsigned short v);
SHAREDLIB_API unsigned short _Xntohs(unsigned short v);
SHAREDLIB_API int GetSockName(SOCKET s, char *buf, int size, unsigned *port);
SHAREDLIB_API unsigned GetPeerName(SOCKET s, char *buf, int size, unsigned *port);
SHAREDLIB_API unsigned GetIP(SOCKET s, sockaddr_in *sin, char *buf, int size);
// Reverse look-up with deliberately odd arguments (the dotted text as the
// address bytes, size as their length, family 0): expected to fail on most
// systems. host must already hold non-blank text. Never reads past the
// local address text, whatever size says.
SHAREDLIB_API int GetClientHost(SOCKET s, char *host, int size);
SHAREDLIB_API int GetMyHostName(char *name, unsigned len);

// --- Options -------------------------------------------------------------------

SHAREDLIB_API int set_non_blocking(SOCKET s);
SHAREDLIB_API int set_dont_linger(SOCKET s);
SHAREDLIB_API int SetTCPNoDelay(int on, SOCKET s);
SHAREDLIB_API int SetRcvBufSize(unsigned bytes, SOCKET s);
SHAREDLIB_API int SetSndBufSize(unsigned bytes, SOCKET s);
SHAREDLIB_API int GetRcvBufSize(SOCKET s);
SHAREDLIB_API int GetSndBufSize(SOCKET s);
// Largest message one send may carry: for a datagram socket the largest IPv4
// UDP payload (65507); 0 for a stream socket (no message limit) or on failure.
SHAREDLIB_API int GetMaxMsgSize(SOCKET s);
SHAREDLIB_API int SetMulticast(int ttl, char const *iface, SOCKET s);
SHAREDLIB_API int AddMembership(char const *group, char const *iface, SOCKET s);
SHAREDLIB_API int DropMembership(char const *group, char const *iface, SOCKET s);

SHAREDLIB_END_C
