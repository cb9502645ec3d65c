#include "proxy/HTTPTunnel.h"

#include "expr/ExprParser.h"
#include "platform/Clock.h"
#include "proxy/ProxyParam.h"
#include "services/Base64.h"
#include "socket/SocketCtrl.h"
#include "text/TextRoutines.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// The two requests: a method for the request line "<method> http://<host>
// /index.html[query] HTTP/1.1" and "Host: <host>:80", then fixed lines
// (ended by an empty string) sent as they stand. The declared body of the
// POST keeps proxies forwarding the upstream without waiting for its end.
struct RequestTemplate {
  char const *method;
  char const *const *fixed;
};
char const *const kPostFixed[] = {"Content-Length: 2000000000", ""};
char const *const kNoFixed[] = {""};
constexpr RequestTemplate kPost{"POST", kPostFixed};
constexpr RequestTemplate kGet{"GET", kNoFixed};

constexpr int kHostHeaderPort = 80;  // always 80, whatever port is used
constexpr unsigned kReadSize = 513;
constexpr unsigned kConnectWaitSeconds = 20;

// Appends to a bounded line; false once it would exceed HTTPTunnel::kMaxLine.
class LineBuf {
public:
  bool Add(char const *fmt, ...) __attribute__((format(printf, 2, 3))) {
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(buf_ + len_, sizeof(buf_) - len_, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<unsigned>(n) >= sizeof(buf_) - len_) {
      ok_ = false;
      return false;
    }
    len_ += static_cast<unsigned>(n);
    return true;
  }
  bool ok() const { return ok_; }
  char const *c_str() const { return buf_; }

private:
  char buf_[HTTPTunnel::kMaxLine + 1] = {};
  unsigned len_ = 0;
  bool ok_ = true;
};

}  // namespace

HTTPTunnel::HTTPTunnel(unsigned int mode, SocketCtrl *ctrl, unsigned int sock, SendQueue *queue)
    : ctrl_(ctrl), mode_(mode), created_(shared::platform::NowSeconds()) {
  if ((mode & (kModeGet | kModePost)) == 0)
    return;
  if (!ctrl_) {
    ctrl_ = new SocketCtrl(queue, 1, 16384, 0, 0, nullptr);
    ownsCtrl_ = 1;
    ok_ = ctrl_->isSockOk();
  } else if (sock == kNoSocket) {
    ok_ = 1;
  } else if (ctrl_->IsConnected(sock)) {
    sock_ = sock;
    ok_ = 1;
  }
}

HTTPTunnel::~HTTPTunnel() {
  if (ownsCtrl_)
    delete ctrl_;
}

int HTTPTunnel::connect(char const *host, char const *bindAddr, char const *service, unsigned long srvport,
                        unsigned long id, ProxyParam *proxy, int noWait) {
  if (!ok_ || comp_branco(host))
    return 0;
  char const *endpoint = host;
  int port = kHostHeaderPort;
  int viaProxy = 0;
  char const *user = nullptr;
  char const *passwd = nullptr;
  if (proxy && proxy->IsRdy()) {
    endpoint = proxy->GetHost();
    port = proxy->GetPort() ? static_cast<int>(proxy->GetPort()) : kHostHeaderPort;
    viaProxy = 1;
    if (proxy->CanAuth()) {
      user = proxy->GetUser();
      passwd = proxy->GetPassword();
    }
  }
  if (ctrl_->IsConnected(sock_))
    return 0;
  // The controller's "wait" flag is this call's noWait: 0 starts the
  // connection without blocking and TestWriteSock awaits it below.
  unsigned s = kNoSocket;
  if (!ctrl_->connect(endpoint, "TCP", port, nullptr, &s, bindAddr, noWait, 0))
    return 0;
  if (!noWait && !ctrl_->TestWriteSock(s, kConnectWaitSeconds, 1))
    return 0;  // TestWriteSock closed it: keep no stale handle
  sock_ = s;
  return SendHTTPInitCmd(host, service, srvport, id, user, passwd, viaProxy);
}

int HTTPTunnel::SendLine(char const *text) { return ctrl_->writeLine(text, sock_, EOL_CRLF); }

int HTTPTunnel::SendHTTPCmd(char const *host, char const *service, unsigned long srvport, unsigned long id,
                            char const *user, char const *passwd, int viaProxy, int post) {
  RequestTemplate const &list = post ? kPost : kGet;
  // Both header lines that carry the host are built before anything is
  // sent, so an over-long host or service fails without a partial request.
  LineBuf request;
  request.Add("%s http://%s/index.html", list.method, host);
  if (!comp_branco(service)) {
    request.Add("?srvaddr=%s", service);
    if (srvport)
      request.Add("&srvport=%lu", srvport);
    if (id)
      request.Add("&id=%lu", id);
  }
  request.Add(" HTTP/1.1");
  LineBuf hostLine;
  hostLine.Add("Host: %s:%d", host, kHostHeaderPort);
  if (!request.ok() || !hostLine.ok())
    return 0;
  if (!SendLine(request.c_str()) || !SendLine(hostLine.c_str()))
    return 0;
  for (char const *const *t = list.fixed; **t; ++t)
    if (!SendLine(*t))
      return 0;
  if (viaProxy && !SendLine("Proxy-Connection: Keep-Alive"))
    return 0;
  if (!SendLine("Connection: Keep-Alive"))
    return 0;
  if (!comp_branco(user)) {
    char pair[kMaxAuthPair + 1];
    std::snprintf(pair, sizeof(pair), "%s:%s", user, passwd ? passwd : "");
    char encoded[Base64EncodedSize(kMaxAuthPair)];
    if (encode64(pair, static_cast<unsigned>(std::strlen(pair)), encoded, sizeof(encoded)) >= 0) {
      std::string line = std::string("Proxy-Authorization: Basic ") + encoded;
      if (!SendLine(line.c_str()))
        return 0;
    }
  }
  return SendLine("");
}

int HTTPTunnel::SendHTTPInitCmd(char const *host, char const *service, unsigned long srvport, unsigned long id,
                                char const *user, char const *passwd, int viaProxy) {
  if (!ok_ || comp_branco(host))
    return 0;
  int result = 0;
  if (mode_ & kModePost)
    result = SendHTTPCmd(host, service, srvport, id, user, passwd, viaProxy, 1);
  if (mode_ & kModeGet)
    result = SendHTTPCmd(host, service, srvport, id, user, passwd, viaProxy, 0);
  if (!result)
    return 0;
  if (!(mode_ & kModePost) || comp_branco(service))
    return result;
  LineBuf line;
  line.Add("ZOL");
  if (id)
    line.Add(" %lu", id);
  line.Add(" %s", service);
  return line.ok() ? SendLine(line.c_str()) : 0;
}

int HTTPTunnel::WaitForServiceLine(char *reply, unsigned int size) {
  if (reply)
    reply[0] = '\0';
  if (!ok_)
    return 0;
  ExprParser words(2, kReadSize, nullptr, nullptr, kReadSize);
  char buf[kReadSize + 1];
  for (;;) {
    int n = ctrl_->getmsg(buf, kReadSize, 1, sock_);
    if (n < 0)
      return 0;
    if (n > 0) {
      buf[n] = '\0';
      char const *second = nullptr;
      if (words.parse(buf, static_cast<unsigned>(n), nullptr) >= 2 &&
          fstricmp(words.GetParam(0, nullptr), "ZOL") == 0)
        second = words.GetParam(1, nullptr);
      if (second) {
        if (reply)
          CopyString(reply, second, size);
        return 1;
      }
    }
    // Status, header and chunk-size lines of the proxy are skipped until
    // the window, counted from construction, has passed.
    if (shared::platform::NowSeconds() - created_ >= kServiceLineWindow)
      return 0;
  }
}

int HTTPTunnel::RemoveSock() {
  if (!ctrl_ || sock_ == kNoSocket)
    return 0;
  return ctrl_->RemoveActiveSock(sock_, 1, 0, 0);
}
