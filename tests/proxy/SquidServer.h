// A squid instance on 127.0.0.1 for one test: generated config in a
// scratch folder owned by proxy:proxy, a free port, run in the foreground
// and stopped by PID. With a user it requires Basic authentication against
// a password file made with openssl.
#pragma once

#include "FakeProxy.h"
#include "file/TempDir.h"

#include <fstream>
#include <sstream>
#include <string>

namespace proxytest {

constexpr char kSquid[] = "/usr/sbin/squid";

class SquidServer {
public:
  bool Start(std::string const &user = "", std::string const &password = "") {
    if (!user.empty()) {
      std::string cmd = "openssl passwd -apr1 '" + password + "' | sed 's/^/" + user + ":/' > " + (dir_ / "passwd");
      if (std::system(cmd.c_str()) != 0)
        return false;
    }
    for (int attempt = 0; attempt < 3; ++attempt) {  // the free port may be taken meanwhile
      port_ = FreePort();
      std::string conf = dir_.Write("squid.conf", Config(!user.empty()));
      if (std::system(("chown -R proxy:proxy " + dir_.path()).c_str()) != 0 ||
          std::system((std::string(kSquid) + " -k parse -f " + conf + " >/dev/null 2>&1").c_str()) != 0)
        return false;
      if (daemon_.Start({kSquid, "-N", "-f", conf}, port_))
        return true;
    }
    return false;
  }
  ~SquidServer() { daemon_.Stop(); }
  int port() const { return port_; }
  std::string Log() const { return ReadFile(dir_ / "cache.log"); }

private:
  std::string Config(bool auth) const {
    std::string c = "http_port 127.0.0.1:" + std::to_string(port_) + "\npid_filename " + (dir_ / "squid.pid") +
                    "\ncache_log " + (dir_ / "cache.log") +
                    "\naccess_log none\ncache deny all\npinger_enable off\nshutdown_lifetime 1 seconds\n"
                    "coredump_dir " + dir_.path() + "\ncache_effective_user proxy\n";
    if (auth)
      c += "auth_param basic program /usr/lib/squid/basic_ncsa_auth " + (dir_ / "passwd") +
           "\nacl authed proxy_auth REQUIRED\nhttp_access allow authed\n";
    else
      c += "acl loop src 127.0.0.0/8\nhttp_access allow loop\n";
    return c + "http_access deny all\n";
  }

  testutil::TempDir dir_;
  PeerProcess daemon_;
  int port_ = 0;
};

// The tunnel server on 127.0.0.1:80: takes one connection, keeps what it
// reads until the client's service line, answers "ZOL OK" behind an HTTP
// status line, then answers "ping" with "pong" and waits for the end.
class TunnelServer {
public:
  TunnelServer() : listener_(80) {}
  bool ok() const { return listener_.ok(); }
  void Start() {
    thread_ = std::jthread([this] {
      int c = listener_.Accept();
      if (c < 0)
        return;
      received_ = ReadUntil(c, "ZOL ", "\r\n");
      if (received_.find("ZOL ") != std::string::npos) {
        SendAll(c, "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nConnection: close\r\n\r\n"
                   "ZOL OK\r\n");
        if (ReadUntil(c, "ping", "\r\n").find("ping") != std::string::npos)
          SendAll(c, "pong\r\n");
        ReadUntil(c, "never", "");  // until the client or the proxy closes
      }
      ::close(c);
    });
  }
  // What arrived up to the end of the service line.
  std::string const &Finish() {
    if (thread_.joinable())
      thread_.join();
    return received_;
  }

private:
  static std::string ReadUntil(int fd, std::string const &word, std::string const &after) {
    std::string got;
    auto end = Clock::now() + kDeadline;
    while (Clock::now() < end) {
      auto at = got.find(word);
      if (at != std::string::npos && !after.empty() && got.find(after, at) != std::string::npos)
        break;
      if (!Readable(fd, 100))
        continue;
      char buf[4096];
      ssize_t r = ::recv(fd, buf, sizeof(buf), 0);
      if (r <= 0)
        break;
      got.append(buf, static_cast<size_t>(r));
    }
    return got;
  }
  Listener listener_;
  std::string received_;  // written by the server thread, read after the join
  std::jthread thread_;
};

}  // namespace proxytest
