// ProxyParam.h: how to reach the outside world through a proxy.
//
// A plain value: the proxy's host, port, user, password and kind. The SOCKS5
// client and the HTTP tunnel read it; neither looks at the kind (the
// application picks the client by the kind). Text fields are cut to their
// limits and trimmed of trailing blanks; a blank argument empties a field.
//
// No locks: one thread at a time, like any value. The password is kept in
// the clear for the handshakes and must never be logged.
#pragma once

#include "platform/Export.h"

class SHAREDLIB_API ProxyParam {
public:
  static constexpr int kHostMax = 63;
  static constexpr int kUserMax = 30;
  static constexpr int kPasswordMax = 63;
  enum : unsigned long { kTypeHTTP = 1, kTypeHTTPProxy = 2, kTypeSocks5 = 3 };
  static constexpr unsigned long kHTTPPort = 80;
  // The HTTP proxy shares SOCKS5's default port on purpose.
  static constexpr unsigned long kProxyPort = 1080;

  ProxyParam();
  // Type before port, so a port of 0 takes the type's default.
  ProxyParam(char const *host, unsigned long port, char const *user, char const *passwd, unsigned long type);

  void SetHost(char const *host);
  void SetUser(char const *user);
  void SetPasswd(char const *passwd);
  // 1, 2 and 3 are kept (result 1); anything else stores 2 (result 0).
  int SetProxyType(unsigned long type);
  // 0 picks the current type's default port (80 or 1080).
  void SetPortA(unsigned long port);

  int IsRdy() const;
  int CanAuth() const;
  // Empty texts, port 0, type 2.
  void reset();
  // The setter sequence of the full constructor with src's values.
  void Copy(ProxyParam &src);

  char const *GetHost() const { return host_; }
  char const *GetUser() const { return user_; }
  char const *GetPassword() const { return password_; }
  unsigned long GetPort() const { return port_; }
  unsigned long GetProxyType() const { return type_; }
  int IsHTTP() const { return type_ == kTypeHTTP; }
  int IsHTTPProxy() const { return type_ == kTypeHTTPProxy; }
  int IsSocks5() const { return type_ == kTypeSocks5; }

private:
  char host_[kHostMax + 1];
  char user_[kUserMax + 1];
  char password_[kPasswordMax + 1];
  unsigned long port_ = 0;
  unsigned long type_ = 0;
};
