// Helpers shared by the socket-core benchmarks: loopback sockets, the
// descriptor limit, resident memory, a helper process that holds idle
// connections, and min/median/max of repeated runs. Benchmark code only; the
// library never includes this.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace sockbench {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start);

// A TCP listener on 127.0.0.1 with a port the system picks; -1 on failure.
int ListenLoopback(int backlog, int *port);
// A blocking TCP connection to 127.0.0.1:port, or -1.
int ConnectLoopback(int port);

// Raises the soft descriptor limit to want (and the hard one when allowed).
// Returns the soft limit in force afterwards.
long RaiseFdLimit(long want);

// Resident set size of this process in KiB (from /proc/self/statm).
long ResidentKiB();

// A child process that opens count connections to 127.0.0.1:port and keeps
// them open until Release (or destruction), so the server under test holds
// count connections without this process spending descriptors on their
// client ends. Start returns once all are connected (false when the child
// could not connect them all within a minute); it calls pump() meanwhile,
// so a single-threaded server can accept them.
class ConnectionHolder {
public:
  ConnectionHolder() = default;
  ~ConnectionHolder();
  ConnectionHolder(ConnectionHolder const &) = delete;
  ConnectionHolder &operator=(ConnectionHolder const &) = delete;
  bool Start(int port, int count, std::function<void()> const &pump);
  void Release();

private:
  pid_t pid_ = -1;
  int toChild_ = -1;
  int fromChild_ = -1;
};

// "min / median / max" of values, with the given number of decimals.
std::string Range(std::vector<double> values, int decimals);

}  // namespace sockbench
