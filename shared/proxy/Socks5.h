// Socks5.h: the SOCKS version 5 client (RFC 1928, with the user/password
// sub-negotiation of RFC 1929, and one request code of our own).
//
// A Socks5 opens the TCP control connection to the proxy, negotiates the
// method, issues CONNECT, BIND, UDP ASSOCIATE and request code 4, parses the
// replies, and wraps outgoing datagrams in the SOCKS UDP header. All I/O
// goes through a SocketCtrl: one the caller lends (not owned) or one the
// object creates and deletes. Its sockets belong to that controller;
// RemoveSock hands one back to the caller.
//
// Wire layout of a request (and of the address element of a reply):
//
//   +-----+-----+-----+------+-----------------------+------+
//   | VER | CMD | RSV | ATYP | 4 bytes or LEN + name | PORT |   PORT: network order
//   +-----+-----+-----+------+-----------------------+------+
//
// Every read is blocking and all-or-nothing on the control connection, so a
// proxy that goes silent holds the caller until TCP gives up. Results are
// 1 or 0; nothing is logged (credentials included) or thrown.
//
// Threads: one thread at a time per object. Threads running dispatch passes
// of the same controller may run beside it but must not read the control
// socket while a request is in progress.
#pragma once

#include "platform/Export.h"
#include "platform/SockAddr.h"

class ProxyParam;
class SendQueue;
class SocketCtrl;

class SHAREDLIB_API Socks5 {
public:
  static constexpr unsigned kNoSocket = 0xFFFFFFFFu;
  // The largest datagram xudpsend builds, SOCKS header included.
  static constexpr unsigned kMaxDatagram = 16384;

  // ctrl null: the object creates its own controller and deletes it.
  explicit Socks5(SocketCtrl *ctrl = nullptr, SendQueue *queue = nullptr);
  ~Socks5();
  Socks5(Socks5 const &) = delete;
  // Copies the fields but never the ownership: the copy borrows the
  // controller, which the source (if it owns it) still deletes.
  Socks5 &operator=(Socks5 const &other);

  // Opens the control connection (unless already up) and negotiates the
  // method; *sock (may be null) receives the control socket on success.
  int connect(char const *proxyHost, int proxyPort, char const *user, char const *passwd, unsigned int *sock,
              char const *bindAddr);
  // The same with the parameters' host and port, and their credentials
  // when CanAuth. 0 when p is null or not ready.
  int connect(ProxyParam *p, unsigned int *sock, char const *bindAddr);

  int xconnect(char const *host, int port);
  // Returns after the proxy's second reply, that is after a peer connected
  // to the announced address. boundAddr holds size + 1 bytes.
  int xbind(int port, char const *host, unsigned short *boundPort, char *boundAddr, unsigned int size);
  // UDP ASSOCIATE; on success a UDP socket towards the returned relay.
  // relayAddr holds size + 1 bytes.
  int xudp(int port, char const *host, unsigned short *relayPort, char *relayAddr, unsigned int size);
  // Request code 4: the target and two more endpoints in one request.
  // 0 without sending when host2 is blank or port2 is 0.
  int xconnecthttp(char const *host, int port, char const *host2, int port2, char const *host3, int port3);
  // One datagram to the relay for host:port. 0 when header plus len would
  // exceed kMaxDatagram.
  int xudpsend(char const *host, unsigned short port, char const *data, unsigned int len);

  int IsConnected();
  // tcp non-zero: the control socket, else the UDP socket. The socket stays
  // open; it is the caller's from then on.
  int RemoveSock(int tcp);
  int IsAuthOk() const { return authenticated_; }
  unsigned int GetTCPSock() const { return tcpSock_; }
  unsigned int GetUDPSock() const { return udpSock_; }
  SocketCtrl *GetCtrl() const { return ctrl_; }

private:
  unsigned ControlSock() const;
  int auth(char const *user, char const *passwd);
  int cmd(unsigned char code, char const *host, int port, char const *host2 = nullptr, int port2 = 0,
          char const *host3 = nullptr, int port3 = 0);
  int rpl(unsigned short *port, char *addr, unsigned int size);
  int Send(unsigned char const *buf, unsigned n);
  int Recv(unsigned char *buf, unsigned n);

  int authenticated_ = 0;
  int ownsCtrl_ = 0;
  unsigned int tcpSock_ = kNoSocket;
  unsigned int udpSock_ = kNoSocket;
  SocketCtrl *ctrl_ = nullptr;
  sockaddr_in relay_{};  // where xudpsend sends: the relay as resolved by xudp
};
