#include "proxy/Socks5.h"

#include "proxy/ProxyParam.h"
#include "socket/SocketCtrl.h"
#include "socket/SocketPrimitives.h"
#include "text/TextRoutines.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr unsigned char kVersion = 5;
constexpr unsigned char kAuthVersion = 1;
constexpr unsigned char kMethodNone = 0;
constexpr unsigned char kMethodUserPass = 2;
constexpr unsigned char kAtypIPv4 = 1;
constexpr unsigned char kAtypDomain = 3;
constexpr unsigned kMaxName = 255;
// ATYP, length byte, the longest name and the port.
constexpr unsigned kMaxAddrElement = 1 + 1 + kMaxName + 2;
constexpr unsigned kDottedMax = 15;

// Writes the address element of host:port at out and returns its length.
// A blank host is blankAddr (network order); dotted IPv4 text goes as four
// bytes, anything else as a name cut at 255 bytes.
unsigned PutAddr(unsigned char *out, char const *host, int port, unsigned blankAddr) {
  unsigned n = 0;
  unsigned addr = comp_branco(host) ? blankAddr : IPStrToLong(host);
  if (comp_branco(host) || addr != 0xFFFFFFFFu) {
    out[n++] = kAtypIPv4;
    std::memcpy(out + n, &addr, 4);
    n += 4;
  } else {
    auto len = static_cast<unsigned>(std::min<std::size_t>(std::strlen(host), kMaxName));
    out[n++] = kAtypDomain;
    out[n++] = static_cast<unsigned char>(len);
    std::memcpy(out + n, host, len);
    n += len;
  }
  unsigned short net = _Xhtons(static_cast<unsigned short>(port));
  std::memcpy(out + n, &net, 2);
  return n + 2;
}

}  // namespace

Socks5::Socks5(SocketCtrl *ctrl, SendQueue *queue) : ctrl_(ctrl) {
  if (!ctrl_) {
    ctrl_ = new SocketCtrl(queue, 1, 65535, 0, 0, nullptr);
    ownsCtrl_ = 1;
  }
}

Socks5::~Socks5() {
  if (ownsCtrl_)
    delete ctrl_;
}

Socks5 &Socks5::operator=(Socks5 const &other) {
  if (&other == this)
    return *this;
  if (ownsCtrl_)
    delete ctrl_;
  authenticated_ = other.authenticated_;
  ownsCtrl_ = 0;
  tcpSock_ = other.tcpSock_;
  udpSock_ = other.udpSock_;
  ctrl_ = other.ctrl_;
  relay_ = other.relay_;
  return *this;
}

// The control connection: the one this object opened or adopted; before
// that kNoSocket, which the controller reads as its master socket (a lent
// controller may already be connected to the proxy).
unsigned Socks5::ControlSock() const { return tcpSock_; }

int Socks5::IsConnected() { return ctrl_ && ctrl_->IsConnected(ControlSock()) ? 1 : 0; }

int Socks5::Send(unsigned char const *buf, unsigned n) {
  return ctrl_->write(reinterpret_cast<char const *>(buf), n, ControlSock(), 1, 0, 0, 1, nullptr) ==
                 static_cast<int>(n)
             ? 1
             : 0;
}

int Socks5::Recv(unsigned char *buf, unsigned n) {
  return ctrl_->read(reinterpret_cast<char *>(buf), n, nullptr, ControlSock(), 1) == static_cast<int>(n) ? 1
                                                                                                        : 0;
}

int Socks5::connect(char const *proxyHost, int proxyPort, char const *user, char const *passwd,
                    unsigned int *sock, char const *bindAddr) {
  authenticated_ = 0;
  if (!ctrl_)
    return 0;
  if (!IsConnected()) {
    unsigned s = kNoSocket;
    if (ctrl_->connect(proxyHost, "TCP", proxyPort, nullptr, &s, bindAddr, 1, 0))
      tcpSock_ = s;
  } else if (tcpSock_ == kNoSocket) {
    tcpSock_ = ctrl_->GetMasterSocket();
  }
  if (!IsConnected() || !auth(user, passwd))
    return 0;
  if (sock)
    *sock = tcpSock_;
  return 1;
}

int Socks5::connect(ProxyParam *p, unsigned int *sock, char const *bindAddr) {
  if (!p || !p->IsRdy())
    return 0;
  bool withAuth = p->CanAuth() != 0;
  return connect(p->GetHost(), static_cast<int>(p->GetPort()), withAuth ? p->GetUser() : nullptr,
                 withAuth ? p->GetPassword() : nullptr, sock, bindAddr);
}

int Socks5::auth(char const *user, char const *passwd) {
  if (!IsConnected() || authenticated_)
    return 0;
  // Count 5 over seven bytes: the three unused method slots stay 0 (no
  // authentication), so a server can only ever pick 0 or 2.
  unsigned char const greeting[7] = {kVersion, 5, kMethodNone, kMethodUserPass, 0, 0, 0};
  unsigned char answer[2];
  if (!Send(greeting, sizeof greeting) || !Recv(answer, 2))
    return 0;
  if (answer[1] == kMethodNone) {
    authenticated_ = 1;
    return 1;
  }
  if (answer[1] != kMethodUserPass)
    return 0;

  unsigned char msg[3 + 2 * kMaxName];
  unsigned n = 0;
  msg[n++] = kAuthVersion;
  for (char const *field : {user, passwd}) {
    unsigned len =
        comp_branco(field) ? 0 : static_cast<unsigned>(std::min<std::size_t>(std::strlen(field), kMaxName));
    msg[n++] = static_cast<unsigned char>(len);
    if (len)
      std::memcpy(msg + n, field, len);
    n += len;
  }
  if (!Send(msg, n) || !Recv(answer, 2) || answer[1] != 0)
    return 0;
  authenticated_ = 1;
  return 1;
}

int Socks5::cmd(unsigned char code, char const *host, int port, char const *host2, int port2, char const *host3,
                int port3) {
  if (!authenticated_)
    return 0;
  unsigned char req[3 + 3 * kMaxAddrElement];
  unsigned n = 0;
  req[n++] = kVersion;
  req[n++] = code;
  req[n++] = 0;
  n += PutAddr(req + n, host, port, 0);
  if (code == 4) {
    if (comp_branco(host2) || port2 == 0)
      return 0;
    n += PutAddr(req + n, host2, port2, 0);
    n += PutAddr(req + n, host3, port3, 0);
  }
  return Send(req, n);
}

// Reads the whole reply before judging it, so a refusal or a rejected
// address leaves the stream at the next reply instead of inside this one.
int Socks5::rpl(unsigned short *port, char *addr, unsigned int size) {
  if (port)
    *port = 0;
  if (addr)
    addr[0] = '\0';
  if (!authenticated_)
    return 0;
  unsigned char head[4];
  if (!Recv(head, 4))
    return 0;
  bool ok = head[1] == 0;
  if (head[3] == kAtypIPv4) {
    unsigned ip = 0;
    if (!Recv(reinterpret_cast<unsigned char *>(&ip), 4))
      return 0;
    if (ok && addr && size) {
      if (ip == 0xFFFFFFFFu) {
        ok = false;
      } else {
        char const *text = IPLongToStr(ip);
        if (std::strlen(text) <= size)
          CopyString(addr, text, size);
      }
    }
  } else if (head[3] == kAtypDomain) {
    unsigned char lenByte = 0;
    if (!Recv(&lenByte, 1))
      return 0;
    // A length of 128 or more counts as negative and fails; the name is
    // not read then, nothing after it can be trusted.
    if (lenByte == 0 || lenByte >= 128)
      return 0;
    unsigned char name[128];
    if (!Recv(name, lenByte))
      return 0;
    if (ok && addr && size >= lenByte) {
      std::memcpy(addr, name, lenByte);
      addr[lenByte] = '\0';
    }
  } else {
    return 0;
  }
  unsigned short net = 0;
  if (!Recv(reinterpret_cast<unsigned char *>(&net), 2) || !ok) {
    if (addr)
      addr[0] = '\0';
    return 0;
  }
  if (port)
    *port = _Xntohs(net);
  return 1;
}

int Socks5::xconnect(char const *host, int port) { return cmd(1, host, port) && rpl(nullptr, nullptr, 0); }

int Socks5::xbind(int port, char const *host, unsigned short *boundPort, char *boundAddr, unsigned int size) {
  if (!cmd(2, host, port) || !rpl(boundPort, boundAddr, size))
    return 0;
  unsigned short peerPort = 0;
  char peer[kDottedMax + 1];
  return rpl(&peerPort, peer, kDottedMax);
}

int Socks5::xconnecthttp(char const *host, int port, char const *host2, int port2, char const *host3,
                         int port3) {
  return cmd(4, host, port, host2, port2, host3, port3) && rpl(nullptr, nullptr, 0);
}

int Socks5::xudp(int port, char const *host, unsigned short *relayPort, char *relayAddr, unsigned int size) {
  if (!cmd(3, host, port))
    return 0;
  unsigned short rport = 0;
  char raddr[kDottedMax + 1];
  if (!rpl(&rport, raddr, kDottedMax))
    return 0;
  if (relayAddr && size >= std::strlen(raddr))
    CopyString(relayAddr, raddr, size);
  if (relayPort)
    *relayPort = rport;
  // The relay address is used as the proxy gave it (0.0.0.0 included).
  unsigned s = kNoSocket;
  if (!ctrl_->connect(raddr, "udp", rport, nullptr, &s, nullptr, 1, 0))
    return 0;
  // The controller keeps the peer of its latest connect as its default
  // address: that is the relay, resolved.
  ctrl_->GetDefSin(&relay_);
  udpSock_ = s;
  ctrl_->SetNoWait(0);
  return 1;
}

int Socks5::xudpsend(char const *host, unsigned short port, char const *data, unsigned int len) {
  if (!authenticated_ || udpSock_ == kNoSocket || !ctrl_)
    return 0;
  unsigned char dgram[kMaxDatagram];
  unsigned n = 0;
  dgram[n++] = 0;
  dgram[n++] = 0;
  dgram[n++] = 0;  // fragment: never fragmented
  n += PutAddr(dgram + n, host, port, 0xFFFFFFFFu);
  if (!data)
    len = 0;
  if (len > kMaxDatagram - n)
    return 0;
  if (len)
    std::memcpy(dgram + n, data, len);
  n += len;
  // The datagram socket is not connected at the system level, so the relay
  // address kept by xudp is given explicitly.
  return ctrl_->_writeto(reinterpret_cast<char const *>(dgram), static_cast<int>(n), &relay_, udpSock_) ==
                 static_cast<int>(n)
             ? 1
             : 0;
}

int Socks5::RemoveSock(int tcp) {
  unsigned s = tcp ? tcpSock_ : udpSock_;
  if (!ctrl_ || s == kNoSocket)
    return 0;
  return ctrl_->RemoveActiveSock(s, 1, 0, 0);
}
