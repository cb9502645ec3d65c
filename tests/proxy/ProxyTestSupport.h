// Helpers of the proxy tests: loopback listeners, echo peers, reads with a
// deadline, and real peer daemons started from a generated config and
// stopped by PID. Test code only: raw socket calls are fine here.
#pragma once

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace proxytest {

using Clock = std::chrono::steady_clock;
constexpr auto kDeadline = std::chrono::seconds(20);

inline bool InCI() {
  char const *ci = std::getenv("CI");
  return ci && std::string(ci) == "true";
}

// A missing third-party peer fails the test in CI and skips it elsewhere.
#define PROXYTEST_REQUIRE_PEER(path)                                                  \
  do {                                                                                 \
    if (::access(path, X_OK) != 0) {                                                   \
      if (proxytest::InCI())                                                           \
        FAIL() << path << " is missing: run scripts/install-deps.sh";                \
      GTEST_SKIP() << path << " is not installed (scripts/install-deps.sh installs it)"; \
    }                                                                                  \
  } while (0)

// A daemon's log, for failure messages.
inline std::string ReadFile(std::string const &path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

inline sockaddr_in Loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

inline int BoundPort(int fd) {
  sockaddr_in a{};
  socklen_t len = sizeof(a);
  ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
  return ntohs(a.sin_port);
}

// Waits up to ms for fd to become readable.
inline bool Readable(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, ms) > 0;
}

// Exactly n bytes, or fewer when the stream ends or the deadline passes.
inline std::string ReadN(int fd, size_t n) {
  std::string out;
  auto end = Clock::now() + kDeadline;
  while (out.size() < n && Clock::now() < end) {
    if (!Readable(fd, 200))
      continue;
    char buf[4096];
    ssize_t r = ::recv(fd, buf, std::min(sizeof(buf), n - out.size()), 0);
    if (r <= 0)
      break;
    out.append(buf, static_cast<size_t>(r));
  }
  return out;
}

inline bool SendAll(int fd, std::string const &s) {
  return ::send(fd, s.data(), s.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(s.size());
}

// A TCP listener on 127.0.0.1 (port 0: any free port).
class Listener {
public:
  explicit Listener(int port = 0) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in a = Loopback(port);
    if (::bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0 || ::listen(fd_, 8) != 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }
  ~Listener() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  Listener(Listener const &) = delete;
  Listener &operator=(Listener const &) = delete;
  bool ok() const { return fd_ >= 0; }
  int port() const { return BoundPort(fd_); }
  // One connection, or -1 when none came before the deadline or stop.
  int Accept(std::atomic<bool> const *stop = nullptr) const {
    auto end = Clock::now() + kDeadline;
    while (Clock::now() < end && !(stop && *stop)) {
      if (Readable(fd_, 100))
        return ::accept(fd_, nullptr, nullptr);
    }
    return -1;
  }

private:
  int fd_ = -1;
};

// A port that was free a moment ago, for daemons that need one in a config.
inline int FreePort() {
  Listener l;
  return l.port();
}

inline bool CanConnect(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = Loopback(port);
  bool ok = ::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) == 0;
  ::close(fd);
  return ok;
}

// Echoes every connection's bytes back until stopped (one at a time).
class TcpEcho {
public:
  TcpEcho()
      : thread_([this] {
          while (!stop_) {
            int c = listener_.Accept(&stop_);
            if (c < 0)
              continue;
            while (!stop_) {
              if (!Readable(c, 100))
                continue;
              char buf[4096];
              ssize_t r = ::recv(c, buf, sizeof(buf), 0);
              if (r <= 0 || !SendAll(c, std::string(buf, static_cast<size_t>(r))))
                break;
            }
            ::close(c);
          }
        }) {}
  ~TcpEcho() { stop_ = true; }
  int port() const { return listener_.port(); }

private:
  Listener listener_;
  std::atomic<bool> stop_{false};
  std::jthread thread_;  // declared last: joined first
};

// Answers every datagram with the same bytes, prefixed by "echo:".
class UdpEcho {
public:
  UdpEcho() : fd_(::socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in a = Loopback(0);
    ::bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof(a));
    thread_ = std::jthread([this] {
      while (!stop_) {
        if (!Readable(fd_, 100))
          continue;
        char buf[2048];
        sockaddr_in from{};
        socklen_t len = sizeof(from);
        ssize_t r = ::recvfrom(fd_, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &len);
        if (r < 0)
          continue;
        std::string reply = "echo:" + std::string(buf, static_cast<size_t>(r));
        ::sendto(fd_, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&from), len);
      }
    });
  }
  ~UdpEcho() {
    stop_ = true;
    thread_.join();
    ::close(fd_);
  }
  int port() const { return BoundPort(fd_); }

private:
  int fd_;
  std::atomic<bool> stop_{false};
  std::jthread thread_;
};

// A daemon run in the foreground as a child, ready once its port accepts a
// connection. It runs under a small shell that holds the read end of a pipe
// whose write end only this object has: closing it (Stop, or the test
// process dying in any way) makes the shell stop the daemon by its PID and
// wait for it. Daemons that drop privileges lose a parent-death signal, so
// that alone would not do.
class PeerProcess {
public:
  ~PeerProcess() { Stop(); }
  bool Start(std::vector<std::string> const &argv, int readyPort) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
      return false;
    pid_ = ::fork();
    if (pid_ == 0) {
      int devnull = ::open("/dev/null", O_RDWR);
      ::dup2(fds[0], 0);
      ::dup2(devnull, 1);
      ::dup2(devnull, 2);
      std::vector<char const *> args{"/bin/sh", "-c",
                                     "\"$@\" </dev/null & p=$!; read x; kill $p 2>/dev/null; wait $p", "sh"};
      for (auto const &a : argv)
        args.push_back(a.c_str());
      args.push_back(nullptr);
      ::execv(args[0], const_cast<char *const *>(args.data()));
      ::_exit(127);
    }
    ::close(fds[0]);
    stopPipe_ = fds[1];
    if (pid_ < 0)
      return false;
    auto end = Clock::now() + kDeadline;
    while (Clock::now() < end) {
      if (CanConnect(readyPort))
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));  // polling the port, bounded by end
    }
    Stop();
    return false;
  }
  void Stop() {
    if (stopPipe_ >= 0)
      ::close(stopPipe_);
    stopPipe_ = -1;
    if (pid_ <= 0)
      return;
    auto end = Clock::now() + std::chrono::seconds(20);
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (Clock::now() > end) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));  // polling the exit, bounded by end
    }
    pid_ = -1;
  }
  // The shell's PID; the daemon is its only child.
  pid_t pid() const { return pid_; }

private:
  pid_t pid_ = -1;
  int stopPipe_ = -1;
};

}  // namespace proxytest
