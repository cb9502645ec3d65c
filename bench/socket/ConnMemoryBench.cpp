// Memory per connection: the resident set of a server process holding
// 10,000 idle text-mode connections, and again after each connection sent
// one 60 KB line (read through the controller's text register), for a
// SocketCtrl listener and for a libevent listener with a bufferevent line
// reader per connection, in the same run. Each server runs alone in a fresh
// child process (so neither inherits the other's heap); this process holds
// the client ends.
//
//   bench_conn_memory [runs] [connections]     (default 3 runs, 10000)
#include "BenchServers.h"
#include "SocketBenchSupport.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace sockbench;

namespace {

constexpr std::size_t kLineBytes = 60000;
constexpr int kBatch = 500;  // connections whose lines may be in flight at once

struct Report {
  long residentKiB;
  int accepted;
  long lines;
};

// The child: serves on a thread of its own, answers each command byte
// with a Report, and ends when the command pipe closes.
[[noreturn]] void ServeInChild(bool libevent, int commands, int reports) {
  std::unique_ptr<BenchServer> srv;
  if (libevent)
    srv = std::make_unique<LibeventServer>();
  else
    srv = std::make_unique<SocketCtrlServer>();
  int const port = srv->Port();
  std::thread([&srv] {
    for (;;)
      srv->Step(true);
  }).detach();  // ended with the process: the measurement needs no teardown
  (void)!::write(reports, &port, sizeof port);
  char c = 0;
  while (::read(commands, &c, 1) == 1) {
    Report r{ResidentKiB(), srv->accepted.load(), srv->lines.load()};
    (void)!::write(reports, &r, sizeof r);
  }
  ::_exit(0);
}

class ChildServer {
public:
  explicit ChildServer(bool libevent) {
    int down[2];
    int up[2];
    if (::pipe(down) != 0 || ::pipe(up) != 0)
      return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(down[1]);
      ::close(up[0]);
      ServeInChild(libevent, down[0], up[1]);
    }
    ::close(down[0]);
    ::close(up[1]);
    commands_ = down[1];
    reports_ = up[0];
    if (::read(reports_, &port_, sizeof port_) != sizeof port_)
      port_ = 0;
  }
  ~ChildServer() {
    ::close(commands_);
    ::close(reports_);
    if (pid_ > 0)
      ::waitpid(pid_, nullptr, 0);
  }
  int Port() const { return port_; }
  Report Ask() const {
    Report r{};
    char const c = 'm';
    if (::write(commands_, &c, 1) != 1 || ::read(reports_, &r, sizeof r) != sizeof r)
      r.residentKiB = -1;
    return r;
  }
  // Asks until done(report) or 120 s passed.
  template <typename Done>
  bool AskUntil(Done done, Report *out) const {
    auto const deadline = Clock::now() + std::chrono::seconds(120);
    for (;;) {
      *out = Ask();
      if (out->residentKiB < 0)
        return false;
      if (done(*out))
        return true;
      if (Clock::now() > deadline)
        return false;
      ::poll(nullptr, 0, 5);  // a pause between questions, not a synchronisation
    }
  }

private:
  pid_t pid_ = -1;
  int commands_ = -1;
  int reports_ = -1;
  int port_ = 0;
};

// Bytes per connection idle and after the long lines; false on failure.
bool Measure(bool libevent, int count, double *idle, double *afterLines) {
  ChildServer child(libevent);
  if (child.Port() == 0)
    return false;
  Report const base = child.Ask();
  std::vector<int> clients;
  clients.reserve(static_cast<std::size_t>(count));
  bool ok = true;
  Report now{};
  for (int i = 0; i < count && ok; ++i) {
    int fd = ConnectLoopback(child.Port());
    ok = fd >= 0;
    if (ok)
      clients.push_back(fd);
    // Keep the backlog short: the child accepts while we connect.
    if (ok && i % kBatch == kBatch - 1)
      ok = child.AskUntil([&](Report const &r) { return r.accepted > i - kBatch; }, &now);
  }
  ok = ok && child.AskUntil([&](Report const &r) { return r.accepted == count; }, &now);
  *idle = ok ? static_cast<double>(now.residentKiB - base.residentKiB) * 1024.0 / count : 0;
  std::string const line = std::string(kLineBytes, 'a') + "\r\n";
  for (int i = 0; i < count && ok; ++i) {
    ok = ::send(clients[static_cast<std::size_t>(i)], line.data(), line.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(line.size());
    if (ok && i % kBatch == kBatch - 1)
      ok = child.AskUntil([&](Report const &r) { return r.lines > i - kBatch; }, &now);
  }
  ok = ok && child.AskUntil([&](Report const &r) { return r.lines == count; }, &now);
  *afterLines = ok ? static_cast<double>(now.residentKiB - base.residentKiB) * 1024.0 / count : 0;
  for (int fd : clients)
    ::close(fd);
  return ok;
}

}  // namespace

int main(int argc, char **argv) {
  int const runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  int const count = argc > 2 ? std::max(1, std::atoi(argv[2])) : 10000;
  long const limit = RaiseFdLimit(count + 1000);
  std::printf("descriptor limit %ld; %d connections; resident bytes per connection over the server's own\n"
              "start, min / median / max of %d runs\n\n",
              limit, count, runs);
  if (limit < count + 100) {
    std::fprintf(stderr, "the hard descriptor limit is too low for %d connections\n", count);
    return 1;
  }
  std::vector<double> idle[2], lines[2];
  int status = 0;
  for (int r = 0; r < runs; ++r) {
    for (int side = 0; side < 2; ++side) {
      double i = 0;
      double l = 0;
      status |= Measure(side == 1, count, &i, &l) ? 0 : 1;
      idle[side].push_back(i);
      lines[side].push_back(l);
    }
  }
  std::printf("| Server | Idle (bytes/connection) | After one 60 KB line each (bytes/connection) |\n|---|---|---|\n");
  char const *names[2] = {"SocketCtrl, text mode", "libevent, bufferevent line reader"};
  for (int side = 0; side < 2; ++side)
    std::printf("| %s | %s | %s |\n", names[side], Range(idle[side], 0).c_str(), Range(lines[side], 0).c_str());
  if (status != 0)
    std::fprintf(stderr, "some run failed\n");
  return status;
}
