// XIpAddr.h: IPv4 endpoint values.
//
// IpString holds a dotted IPv4 address as text. XIpAddr holds a remote
// endpoint: host text, port, resolved address, multicast time-to-live and an
// optional local address to bind to. A host given as dotted text keeps its
// address in the ip field; a host name is resolved into `sin` while ip stays
// -1 (0xFFFFFFFF), so GetIpLong tells the two apart.
//
// Name resolution goes through the thread-safe system resolver and may block
// for as long as the resolver takes. Plain values: no locks; one object is
// used by one thread at a time, different objects by any threads. A failed
// SetAddr leaves the object with no host and port 0.
#pragma once

#include "platform/Export.h"
#include "platform/SockAddr.h"

class SHAREDLIB_API IpString {
public:
  explicit IpString(char const *ip = nullptr);
  // A blank text empties the field; anything else is kept, cut at 15
  // characters, without checking that it is an address.
  void SetIp(char const *ip);
  char const *GetIp() const { return ip_; }

private:
  char ip_[16];
};

class SHAREDLIB_API XIpAddr {
public:
  static constexpr unsigned kNoAddr = 0xFFFFFFFFu;
  static constexpr int kDefaultTtl = 10;

  explicit XIpAddr(char const *host = nullptr, unsigned int port = 0, char const *localIp = nullptr);

  // ip -1, port 0, TTL 10, host and local IP empty, sin zero.
  void reset();
  // Takes over other's host and port (not its local IP); a null other resets.
  int SetAddr(XIpAddr *other);
  // Sets host, port and local IP, resolving a host name. 0 for a blank host,
  // port 0 or above 65535, a local IP that is not dotted text, or a name that
  // does not resolve.
  int SetAddr(char const *host, unsigned int port, char const *localIp);
  // Blank: bind to any (1). Otherwise dotted text only (else 0, emptied).
  int SetLocalIp(char const *localIp);
  // Host and ip from dotted text; port and sin untouched. 0 when unparsable.
  int SetIp(char const *ip);
  // Host and ip from a network-order address; 0 for -1.
  int SetIp(unsigned int addr);
  // ip -1; the host text cut at 63 (empty when blank).
  void SetHost(char const *host);
  // The first len (1 to 63) characters of text; otherwise empty. ip untouched.
  void SetHost(char const *text, unsigned int len);
  // 1 when the port is equal and host and local IP match ignoring case.
  int CompAddr(char const *host, unsigned int port, char const *localIp) const;
  // 1 when a host and port are set and the host is a name or a parsed address.
  int IsOk() const;

  void SetPortA(unsigned int port) { port_ = port; }
  unsigned int GetPort() const { return port_; }
  char const *GetHost() const { return host_; }
  char const *GetLocalIp() const { return localIp_; }
  unsigned int GetIpLong() const { return ip_; }
  int GetTTL() const { return ttl_; }
  void SetTTL(int ttl) { ttl_ = ttl; }
  sockaddr_in *GetSin() { return &sin_; }

private:
  unsigned int ip_;    // network order; -1 unless the host was dotted text
  unsigned int port_;  // host order; 0 = not set
  int ttl_;
  sockaddr_in sin_;
  char host_[64];
  char localIp_[16];
};
