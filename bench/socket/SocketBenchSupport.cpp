#include "SocketBenchSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace sockbench {

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

namespace {
sockaddr_in Loopback(int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}
}  // namespace

int ListenLoopback(int backlog, int *port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0)
    return -1;
  sockaddr_in a = Loopback(0);
  socklen_t len = sizeof a;
  if (::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || ::listen(fd, backlog) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
    ::close(fd);
    return -1;
  }
  *port = ntohs(a.sin_port);
  return fd;
}

int ConnectLoopback(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0)
    return -1;
  sockaddr_in a = Loopback(port);
  if (::connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

long RaiseFdLimit(long want) {
  rlimit lim{};
  ::getrlimit(RLIMIT_NOFILE, &lim);
  rlim_t const w = static_cast<rlim_t>(want);
  if (lim.rlim_cur < w) {
    rlimit raised{w, std::max(w, lim.rlim_max)};
    if (::setrlimit(RLIMIT_NOFILE, &raised) != 0) {  // no right to raise the hard limit
      raised = {std::min(w, lim.rlim_max), lim.rlim_max};
      ::setrlimit(RLIMIT_NOFILE, &raised);
    }
    ::getrlimit(RLIMIT_NOFILE, &lim);
  }
  return static_cast<long>(lim.rlim_cur);
}

long ResidentKiB() {
  std::ifstream statm("/proc/self/statm");
  long size = 0;
  long resident = 0;
  statm >> size >> resident;
  return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

ConnectionHolder::~ConnectionHolder() { Release(); }

bool ConnectionHolder::Start(int port, int count, std::function<void()> const &pump) {
  int down[2];
  int up[2];
  if (::pipe2(down, O_CLOEXEC) != 0)
    return false;
  if (::pipe2(up, O_CLOEXEC) != 0) {
    ::close(down[0]);
    ::close(down[1]);
    return false;
  }
  pid_ = ::fork();
  if (pid_ == 0) {
    ::close(down[1]);  // else the parent's release never reads as an end here
    ::close(up[0]);
    std::vector<int> held;
    held.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
      int fd = ConnectLoopback(port);
      if (fd < 0)
        break;
      held.push_back(fd);
    }
    char const verdict = held.size() == static_cast<std::size_t>(count) ? 'k' : 'f';
    (void)!::write(up[1], &verdict, 1);
    char c = 0;
    while (::read(down[0], &c, 1) > 0) {
    }
    ::_exit(0);  // the system closes every connection
  }
  ::close(down[0]);
  ::close(up[1]);
  toChild_ = down[1];
  fromChild_ = up[0];
  if (pid_ < 0)
    return false;
  auto const deadline = Clock::now() + std::chrono::seconds(60);
  while (Clock::now() < deadline) {
    pump();
    pollfd p{fromChild_, POLLIN, 0};
    if (::poll(&p, 1, 0) == 1) {
      char verdict = 0;
      return ::read(fromChild_, &verdict, 1) == 1 && verdict == 'k';
    }
  }
  return false;
}

void ConnectionHolder::Release() {
  if (toChild_ >= 0)
    ::close(toChild_);
  if (fromChild_ >= 0)
    ::close(fromChild_);
  toChild_ = fromChild_ = -1;
  if (pid_ > 0)
    ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

std::string Range(std::vector<double> values, int decimals) {
  if (values.empty())
    return "-";
  std::sort(values.begin(), values.end());
  char out[128];
  std::snprintf(out, sizeof out, "%.*f / %.*f / %.*f", decimals, values.front(), decimals, values[values.size() / 2],
                decimals, values.back());
  return out;
}

}  // namespace sockbench
