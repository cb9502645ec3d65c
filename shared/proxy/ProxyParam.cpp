#include "proxy/ProxyParam.h"

#include "text/TextRoutines.h"

namespace {

void SetField(char const *src, char *dst, int max) {
  if (comp_branco(src))
    dst[0] = '\0';
  else
    ajusta_str(src, dst, max);
}

}  // namespace

ProxyParam::ProxyParam() { reset(); }

ProxyParam::ProxyParam(char const *host, unsigned long port, char const *user, char const *passwd,
                       unsigned long type) {
  SetHost(host);
  SetUser(user);
  SetPasswd(passwd);
  SetProxyType(type);
  SetPortA(port);
}

void ProxyParam::SetHost(char const *host) { SetField(host, host_, kHostMax); }
void ProxyParam::SetUser(char const *user) { SetField(user, user_, kUserMax); }
void ProxyParam::SetPasswd(char const *passwd) { SetField(passwd, password_, kPasswordMax); }

int ProxyParam::SetProxyType(unsigned long type) {
  if (type == kTypeHTTP || type == kTypeHTTPProxy || type == kTypeSocks5) {
    type_ = type;
    return 1;
  }
  type_ = kTypeHTTPProxy;
  return 0;
}

void ProxyParam::SetPortA(unsigned long port) {
  if (port != 0)
    port_ = port;
  else if (type_ == kTypeHTTP)
    port_ = kHTTPPort;
  else if (type_ == kTypeHTTPProxy || type_ == kTypeSocks5)
    port_ = kProxyPort;
}

int ProxyParam::IsRdy() const { return !comp_branco(host_) && type_ != 0 && port_ != 0 ? 1 : 0; }

int ProxyParam::CanAuth() const { return comp_branco(user_) ? 0 : 1; }

void ProxyParam::reset() {
  host_[0] = '\0';
  user_[0] = '\0';
  password_[0] = '\0';
  port_ = 0;
  SetProxyType(0);
}

void ProxyParam::Copy(ProxyParam &src) {
  if (&src == this)
    return;
  SetHost(src.host_);
  SetUser(src.user_);
  SetPasswd(src.password_);
  SetProxyType(src.type_);
  SetPortA(src.port_);
}
