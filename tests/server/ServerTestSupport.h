// Helpers of the server tests: plain POSIX loopback clients, a recording
// application callback, and polling with a generous deadline.
#pragma once

#include "server/SockSrv.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace srvtest {

template <class Pred>
bool Eventually(Pred pred, int seconds = 30) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// The server listens on 127.0.0.1 with a port the system picks.
inline int ListenAny(SockSrv &srv) {
  unsigned sock = 0;
  int port = 0;
  if (!srv.GetSocketCtrl()->listen("TCP", 1024, 0, "127.0.0.1", nullptr, &sock, 0, &port))
    return -1;
  srv.WakeUp();  // watched from the next pass on
  return port;
}

inline int Dial(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

inline bool SendAll(int fd, std::string const &bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t r = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (r <= 0)
      return false;
    done += static_cast<std::size_t>(r);
  }
  return true;
}

// Reads until want bytes arrived, the peer closed, or 20 s passed.
inline std::string ReadBytes(int fd, std::size_t want) {
  std::string got;
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  char buf[65536];
  while (got.size() < want && std::chrono::steady_clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0)
      continue;
    ssize_t r = ::recv(fd, buf, std::min(sizeof buf, want - got.size()), 0);
    if (r <= 0)
      break;
    got.append(buf, static_cast<std::size_t>(r));
  }
  return got;
}

// True when the peer closed fd (EOF or reset) within 20 s.
inline bool PeerClosed(int fd) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  char buf[4096];
  while (std::chrono::steady_clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0)
      continue;
    if (::recv(fd, buf, sizeof buf, 0) <= 0)
      return true;
  }
  return false;
}

inline void Reset(int fd) {
  linger l{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
  ::close(fd);
}

// Records every callback. Echoes each message as a line when echo is set.
class App final : public ISockSrvCallback {
public:
  SockSrv *srv = nullptr;
  bool echo = true;
  int dataAnswer = 1;
  int idleAnswer = 1;

  int OnSockSrvData(char const *data, unsigned len, unsigned sock) override {
    {
      std::lock_guard<std::mutex> g(m_);
      messages_.emplace_back(sock, std::string(data, len));
      terminated_ = terminated_ && data[len] == '\0';
    }
    if (echo && srv)
      srv->write(data, static_cast<int>(len), sock, 1);
    return dataAnswer;
  }
  int OnSockSrvIdle(unsigned sock) override {
    std::lock_guard<std::mutex> g(m_);
    ++idles_[sock];
    return declined_.count(sock) ? 0 : idleAnswer;
  }
  void Decline(unsigned sock) {
    std::lock_guard<std::mutex> g(m_);
    declined_.insert(sock);
  }
  void OnSockSrvClose(unsigned sock) override {
    std::lock_guard<std::mutex> g(m_);
    ++closes_[sock];
  }

  std::size_t Messages() {
    std::lock_guard<std::mutex> g(m_);
    return messages_.size();
  }
  std::pair<unsigned, std::string> Message(std::size_t i) {
    std::lock_guard<std::mutex> g(m_);
    return messages_.at(i);
  }
  bool AllTerminated() {
    std::lock_guard<std::mutex> g(m_);
    return terminated_;
  }
  int Idles(unsigned sock) {
    std::lock_guard<std::mutex> g(m_);
    return idles_[sock];
  }
  int Closes(unsigned sock) {
    std::lock_guard<std::mutex> g(m_);
    return closes_[sock];
  }
  int TotalCloses() {
    std::lock_guard<std::mutex> g(m_);
    int n = 0;
    for (auto const &c : closes_)
      n += c.second;
    return n;
  }

private:
  std::mutex m_;
  std::vector<std::pair<unsigned, std::string>> messages_;
  std::map<unsigned, int> idles_;
  std::map<unsigned, int> closes_;
  std::set<unsigned> declined_;
  bool terminated_ = true;
};

inline unsigned Users(SockSrv &srv) {
  srv.Wait("test");
  unsigned n = srv.get_nitens();
  srv.Signal("test");
  return n;
}

// The server-side socket of the newest user (highest number is not the
// newest in general, so the idle list's tail is used).
inline unsigned NewestUser(SockSrv &srv) {
  unsigned last = SockSrv::kNoSocket;
  for (SockSrvUser *u = srv.GetFirstIdleUser(); u; u = srv.GetNextIdleUser())
    last = u->GetSocket();
  return last;
}

}  // namespace srvtest
