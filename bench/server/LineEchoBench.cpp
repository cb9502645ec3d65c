// Line echo throughput: SockSrv (Linux mode) against a libevent server, in
// one run. Each server runs in a child process; this process is the load
// generator. Usage: bench_line_echo [seconds per configuration, default 3]
#include "EchoServers.h"
#include "LoadGen.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

namespace {

struct ChildPipes {
  int portWrite;
  int stopRead;
};

void ReportPort(int port, void *arg) {
  auto *p = static_cast<ChildPipes *>(arg);
  if (::write(p->portWrite, &port, sizeof port) != static_cast<ssize_t>(sizeof port))
    std::_Exit(3);
}

bool StopAsked(void *arg) {
  pollfd p{static_cast<ChildPipes *>(arg)->stopRead, POLLIN, 0};
  return ::poll(&p, 1, 0) != 0;  // the parent closed its end
}

LoadResult Measure(bool ours, int conns, int inflight, double seconds) {
  int portPipe[2];
  int stopPipe[2];
  if (::pipe(portPipe) != 0 || ::pipe(stopPipe) != 0)
    std::exit(2);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::close(portPipe[0]);
    ::close(stopPipe[1]);
    ChildPipes p{portPipe[1], stopPipe[0]};
    std::_Exit(ours ? RunSockSrvEcho(ReportPort, StopAsked, &p) : RunLibeventEcho(ReportPort, StopAsked, &p));
  }
  ::close(portPipe[1]);
  ::close(stopPipe[0]);
  int port = 0;
  LoadResult r;
  if (::read(portPipe[0], &port, sizeof port) == static_cast<ssize_t>(sizeof port))
    r = RunLoad(port, conns, inflight, 0.5, seconds);
  else
    r.errors = 1;
  ::close(portPipe[0]);
  ::close(stopPipe[1]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  return r;
}

}  // namespace

int main(int argc, char **argv) {
  double seconds = argc > 1 ? std::atof(argv[1]) : 3.0;
  struct Config {
    int conns, inflight;
  } const configs[] = {{100, 1}, {1000, 1}, {5000, 1}, {100, 16}};
  std::printf("%-25s %-9s %12s %10s %10s %7s\n", "config", "server", "lines/s", "p50 us", "p99 us", "errors");
  int failed = 0;
  for (Config const &c : configs) {
    char name[32];
    std::snprintf(name, sizeof name, "%d conns x %d in flight", c.conns, c.inflight);
    double ours = 0;
    for (bool mine : {true, false}) {
      LoadResult r = Measure(mine, c.conns, c.inflight, seconds);
      std::printf("%-25s %-9s %12.0f %10.0f %10.0f %7ld\n", name, mine ? "SockSrv" : "libevent", r.linesPerSecond,
                  r.p50Us, r.p99Us, r.errors);
      failed += r.errors != 0;
      if (mine)
        ours = r.linesPerSecond;
      else
        std::printf("%-25s %-9s %11.2fx\n", "", "ratio", r.linesPerSecond > 0 ? ours / r.linesPerSecond : 0.0);
    }
  }
  return failed ? 1 : 0;
}
