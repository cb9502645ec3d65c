#include "socket/XIpAddr.h"

#include "platform/Compat.h"
#include "platform/SocketApi.h"
#include "socket/SocketPrimitives.h"
#include "text/TextRoutines.h"

#include <cstring>

namespace sp = shared::platform;

namespace {

constexpr int kHostChars = 63;
constexpr int kIpChars = 15;
constexpr unsigned kMaxPort = 65535;

// Longest host name the resolver accepts (253) with room to spare.
constexpr unsigned kNameChars = 255;

// Callers may pass our own fields back in (SetAddr(GetHost(), ...)); every
// setter clears its field first, so it works on a copy of the text. The copy
// holds a whole DNS name, so a long name is resolved uncut.
struct TextCopy {
  char text[kNameChars + 1];
  bool given;
  explicit TextCopy(char const *src) : given(src != nullptr) { CopyString(text, src, kNameChars); }
  char const *get() const { return given ? text : nullptr; }
};

char const *OrEmpty(char const *s) { return s ? s : ""; }

}  // namespace

IpString::IpString(char const *ip) { SetIp(ip); }

void IpString::SetIp(char const *ip) {
  if (comp_branco(ip))
    ip_[0] = '\0';
  else
    ajusta_str(ip, ip_, kIpChars);
}

XIpAddr::XIpAddr(char const *host, unsigned int port, char const *localIp) {
  reset();
  SetAddr(host, port, localIp);
}

void XIpAddr::reset() {
  ip_ = kNoAddr;
  port_ = 0;
  ttl_ = kDefaultTtl;
  std::memset(&sin_, 0, sizeof(sin_));
  host_[0] = '\0';
  localIp_[0] = '\0';
}

int XIpAddr::SetAddr(XIpAddr *other) {
  if (other == nullptr) {
    reset();
    return 0;
  }
  TextCopy host(other->host_);
  return SetAddr(host.get(), other->port_, nullptr);
}

int XIpAddr::SetAddr(char const *hostIn, unsigned int port, char const *localIpIn) {
  TextCopy host(hostIn);
  TextCopy localIp(localIpIn);
  ip_ = kNoAddr;
  host_[0] = '\0';
  port_ = 0;
  std::memset(&sin_, 0, sizeof(sin_));
  // A port above 65535 would be cut silently in sin while port_ kept it.
  if (comp_branco(host.get()) || port == 0 || port > kMaxPort)
    return 0;
  if (!SetLocalIp(localIp.get()))
    return 0;
  unsigned addr = IPStrToLong(host.get());
  if (addr != kNoAddr) {
    if (!_SetSockAddrIn(&sin_, addr, port)) {
      localIp_[0] = '\0';
      return 0;
    }
  } else {
    unsigned resolved = sp::SockResolveHost(host.get());
    if (resolved == kNoAddr) {
      localIp_[0] = '\0';
      return 0;
    }
    sin_.sin_family = AF_INET;
    sin_.sin_port = _Xhtons(static_cast<unsigned short>(port));
    sin_.sin_addr.s_addr = resolved;
  }
  ajusta_str(host.get(), host_, kHostChars);
  ip_ = addr;
  port_ = port;
  return 1;
}

int XIpAddr::SetLocalIp(char const *localIpIn) {
  TextCopy localIp(localIpIn);
  localIp_[0] = '\0';
  if (comp_branco(localIp.get()))
    return 1;
  if (IPStrToLong(localIp.get()) == kNoAddr)
    return 0;
  ajusta_str(localIp.get(), localIp_, kIpChars);
  return 1;
}

int XIpAddr::SetIp(char const *ipIn) {
  TextCopy ip(ipIn);
  ip_ = kNoAddr;
  host_[0] = '\0';
  if (ip.get() == nullptr)
    return 0;
  unsigned addr = IPStrToLong(ip.get());
  if (addr == kNoAddr)
    return 0;
  ajusta_str(ip.get(), host_, kIpChars);
  ip_ = addr;
  return 1;
}

int XIpAddr::SetIp(unsigned int addr) {
  ip_ = kNoAddr;
  host_[0] = '\0';
  if (addr == kNoAddr)
    return 0;
  ajusta_str(IPLongToStr(addr), host_, kIpChars);
  ip_ = addr;
  return 1;
}

void XIpAddr::SetHost(char const *hostIn) {
  TextCopy host(hostIn);
  ip_ = kNoAddr;
  if (comp_branco(host.get()))
    host_[0] = '\0';
  else
    ajusta_str(host.get(), host_, kHostChars);
}

void XIpAddr::SetHost(char const *text, unsigned int len) {
  if (text == nullptr || len == 0 || len > static_cast<unsigned>(kHostChars)) {
    host_[0] = '\0';
    return;
  }
  TextCopy host(text);
  CopyString(host_, host.get(), len);
}

int XIpAddr::CompAddr(char const *host, unsigned int port, char const *localIp) const {
  return port == port_ && _stricmp(OrEmpty(host), host_) == 0 &&
         _stricmp(OrEmpty(localIp), localIp_) == 0;
}

int XIpAddr::IsOk() const {
  if (comp_branco(host_) || port_ == 0)
    return 0;
  return !is_number(host_) || ip_ != kNoAddr;
}
