#include "LoadGen.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kLineChars = 63;  // plus LF: 64 bytes on the wire

std::string Line(int conn, long seq) {
  char head[32];
  int n = std::snprintf(head, sizeof head, "L%06d:%010ld:", conn, seq);
  std::string s(head, static_cast<std::size_t>(n));
  s.resize(kLineChars, 'x');
  return s;
}

struct Conn {
  int fd = -1;
  long nextSend = 0;
  long nextExpect = 0;
  std::string in;
  std::vector<Clock::time_point> sentAt;  // by seq % inflight
};

bool SendAll(int fd, std::string const &s) {
  std::size_t done = 0;
  while (done < s.size()) {
    ssize_t r = ::send(fd, s.data() + done, s.size() - done, MSG_NOSIGNAL);
    if (r > 0)
      done += static_cast<std::size_t>(r);
    else if (r < 0 && errno != EAGAIN)
      return false;
  }
  return true;
}

}  // namespace

LoadResult RunLoad(int port, int conns, int inflight, double warmupSeconds, double seconds) {
  LoadResult res;
  std::vector<Conn> cs(static_cast<std::size_t>(conns));
  int ep = ::epoll_create1(0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (int i = 0; i < conns; ++i) {
    Conn &c = cs[static_cast<std::size_t>(i)];
    c.fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (c.fd < 0 || ::connect(c.fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
      ++res.errors;
      return res;
    }
    int one = 1;
    ::setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ::fcntl(c.fd, F_SETFL, O_NONBLOCK);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u32 = static_cast<std::uint32_t>(i);
    ::epoll_ctl(ep, EPOLL_CTL_ADD, c.fd, &ev);
    c.sentAt.resize(static_cast<std::size_t>(inflight));
  }
  auto const start = Clock::now();
  for (int i = 0; i < conns; ++i) {
    Conn &c = cs[static_cast<std::size_t>(i)];
    std::string out;
    for (int k = 0; k < inflight; ++k) {
      c.sentAt[static_cast<std::size_t>(c.nextSend % inflight)] = Clock::now();
      out += Line(i, c.nextSend++) + "\n";
    }
    if (!SendAll(c.fd, out))
      ++res.errors;
  }
  auto const measureFrom = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(warmupSeconds));
  auto const end = measureFrom + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  std::vector<float> latUs;
  latUs.reserve(1 << 22);
  long counted = 0;
  std::vector<epoll_event> evs(1024);
  char buf[65536];
  for (;;) {
    auto now = Clock::now();
    if (now >= end || res.errors > 0)
      break;
    int n = ::epoll_wait(ep, evs.data(), static_cast<int>(evs.size()), 100);
    for (int e = 0; e < n; ++e) {
      int i = static_cast<int>(evs[static_cast<std::size_t>(e)].data.u32);
      Conn &c = cs[static_cast<std::size_t>(i)];
      ssize_t r = ::recv(c.fd, buf, sizeof buf, 0);
      if (r <= 0) {
        if (r < 0 && errno == EAGAIN)
          continue;
        ++res.errors;
        continue;
      }
      c.in.append(buf, static_cast<std::size_t>(r));
      std::string out;
      std::size_t pos = 0;
      auto const got = Clock::now();
      for (std::size_t eol; (eol = c.in.find("\r\n", pos)) != std::string::npos; pos = eol + 2) {
        if (c.in.compare(pos, eol - pos, Line(i, c.nextExpect)) != 0) {
          ++res.errors;
          break;
        }
        auto sent = c.sentAt[static_cast<std::size_t>(c.nextExpect % inflight)];
        ++c.nextExpect;
        if (got >= measureFrom) {
          ++counted;
          latUs.push_back(std::chrono::duration<float, std::micro>(got - sent).count());
        }
        c.sentAt[static_cast<std::size_t>(c.nextSend % inflight)] = got;
        out += Line(i, c.nextSend++) + "\n";
      }
      c.in.erase(0, pos);
      if (!out.empty() && !SendAll(c.fd, out))
        ++res.errors;
    }
  }
  for (Conn &c : cs)
    if (c.fd >= 0)
      ::close(c.fd);
  ::close(ep);
  res.linesPerSecond = static_cast<double>(counted) / seconds;
  if (!latUs.empty()) {
    std::sort(latUs.begin(), latUs.end());
    res.p50Us = latUs[latUs.size() / 2];
    res.p99Us = latUs[latUs.size() * 99 / 100];
  }
  return res;
}
