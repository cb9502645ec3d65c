// HTTPTunnel.h: a TCP connection that looks like web traffic.
//
// The tunnel connects to the tunnel server on port 80, or to an HTTP proxy
// from a ProxyParam, and sends a POST with a huge declared body (upstream)
// and/or a GET (downstream), then the service line "ZOL [id] service" as
// the first line of the POST body. WaitForServiceLine waits for the
// server's "ZOL <word>" answer, skipping the proxy's status, header and
// chunk-size lines. From then on the socket is an ordinary byte stream of
// the controller (GetHTTPSock); RemoveSock hands it to the caller.
//
// Ownership: the controller is lent (not owned) or created and deleted by
// the tunnel. Lines are assembled in bounded buffers: a request line or
// header over kMaxLine characters fails the call before anything is sent.
// Credentials go on the wire only (Basic), never into a log.
//
// Time: the 21-second window of WaitForServiceLine starts at construction
// and is read from the library clock (platform/Clock.h), so tests move it.
//
// Threads: one thread at a time per object; threads running dispatch
// passes of the same controller must not read the tunnel socket meanwhile.
#pragma once

#include "platform/Export.h"

#include <cstdint>

class ProxyParam;
class SendQueue;
class SocketCtrl;

class SHAREDLIB_API HTTPTunnel {
public:
  static constexpr unsigned kNoSocket = 0xFFFFFFFFu;
  enum : unsigned { kModeGet = 1, kModePost = 2 };
  static constexpr unsigned kMaxLine = 512;
  // Characters of "user:password" that go into the Basic credentials.
  static constexpr unsigned kMaxAuthPair = 94;
  static constexpr unsigned kServiceLineWindow = 21;  // seconds from construction
  // Characters WaitForServiceLine(char *) copies; its buffer holds one more.
  static constexpr unsigned kMaxReplyWord = 63;

  // mode: an OR of kModeGet and kModePost (neither: not ok). ctrl null: a
  // controller of its own. sock: a connected socket of ctrl to adopt, or
  // kNoSocket.
  HTTPTunnel(unsigned int mode, SocketCtrl *ctrl, unsigned int sock, SendQueue *queue);
  ~HTTPTunnel();
  HTTPTunnel(HTTPTunnel const &) = delete;
  HTTPTunnel &operator=(HTTPTunnel const &) = delete;

  // Connects to host:80 or to the proxy, then sends the requests. noWait 0:
  // the connection is awaited (up to 20 s) before anything is sent.
  int connect(char const *host, char const *bindAddr, char const *service, unsigned long srvport,
              unsigned long id, ProxyParam *proxy, int noWait);
  // POST (mode 2), then GET (mode 1), then the service line (mode 2 with a
  // service).
  int SendHTTPInitCmd(char const *host, char const *service, unsigned long srvport, unsigned long id,
                      char const *user, char const *passwd, int viaProxy);
  // 1 with the word after "ZOL" in reply (cut at size characters; reply
  // holds size + 1 bytes); 0 on a read error, a closed connection, or once
  // the window since construction has passed.
  int WaitForServiceLine(char *reply, unsigned int size);
  // The same with a reply buffer of kMaxReplyWord + 1 bytes.
  int WaitForServiceLine(char *reply) { return WaitForServiceLine(reply, kMaxReplyWord); }
  int RemoveSock();

  int IsOk() const { return ok_; }
  int DoGet() const { return (mode_ & kModeGet) ? 1 : 0; }
  int DoPost() const { return (mode_ & kModePost) ? 1 : 0; }
  unsigned int GetHTTPSock() const { return sock_; }
  SocketCtrl *GetCtrl() const { return ctrl_; }

private:
  int SendHTTPCmd(char const *host, char const *service, unsigned long srvport, unsigned long id,
                  char const *user, char const *passwd, int viaProxy, int post);
  int SendLine(char const *text);

  int ok_ = 0;
  int ownsCtrl_ = 0;
  SocketCtrl *ctrl_ = nullptr;
  unsigned int sock_ = kNoSocket;
  unsigned int mode_ = 0;
  std::int64_t created_ = 0;  // calendar seconds: start of the service-line window
};
