// Accept + close: the cost of one connect / accept / close cycle through a
// SocketCtrl listener (text mode) (the callbacks accept, the client closes, a pass sees
// the close), with 100 and with 10,000 other connections held open, beside a
// libevent listener with bufferevents doing the same in the same run. One
// thread drives both the client and the server's passes, so the figure is
// the work of a cycle, not thread hand-overs. The held connections' client
// ends live in a helper process, so this one needs only one descriptor per
// held connection.
//
//   bench_accept_close [runs] [cycles]     (default 3 runs of 2000 cycles)
#include "BenchServers.h"
#include "SocketBenchSupport.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace sockbench;

namespace {

// Steps the server until done() or 30 s passed; false on time-out.
template <typename Done>
bool StepUntil(BenchServer &srv, Done done) {
  auto const deadline = Clock::now() + std::chrono::seconds(30);
  while (!done()) {
    if (Clock::now() > deadline)
      return false;
    srv.Step(true);
  }
  return true;
}

// Microseconds per cycle with held connections open; 0 on failure.
double CycleMicros(BenchServer &srv, int held, int cycles) {
  if (srv.Port() == 0)
    return 0;
  ConnectionHolder holder;
  if (!holder.Start(srv.Port(), held, [&] { srv.Step(false); }) ||
      !StepUntil(srv, [&] { return srv.accepted >= held; }))
    return 0;
  auto const start = Clock::now();
  for (int i = 0; i < cycles; ++i) {
    int const accepted = srv.accepted;
    int const closed = srv.closed;
    int fd = ConnectLoopback(srv.Port());
    if (fd < 0 || !StepUntil(srv, [&] { return srv.accepted > accepted; }))
      return 0;
    ::close(fd);
    if (!StepUntil(srv, [&] { return srv.closed > closed; }))
      return 0;
  }
  double const us = SecondsSince(start) * 1e6 / cycles;
  holder.Release();
  return us;
}

}  // namespace

int main(int argc, char **argv) {
  int const runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  int const cycles = argc > 2 ? std::max(1, std::atoi(argv[2])) : 2000;
  int const holds[] = {100, 10000};
  long const limit = RaiseFdLimit(holds[1] + 1000);
  std::printf("descriptor limit %ld; microseconds per cycle, min / median / max of %d runs of %d cycles\n\n", limit,
              runs, cycles);
  if (limit < holds[1] + 100) {
    std::fprintf(stderr, "the hard descriptor limit is too low for %d held connections\n", holds[1]);
    return 1;
  }
  std::vector<double> ours[2], peer[2];
  int status = 0;
  for (int r = 0; r < runs; ++r) {
    for (int h = 0; h < 2; ++h) {
      {
        SocketCtrlServer srv;
        ours[h].push_back(CycleMicros(srv, holds[h], cycles));
      }
      {
        LibeventServer srv;
        peer[h].push_back(CycleMicros(srv, holds[h], cycles));
      }
      status |= ours[h].back() == 0 || peer[h].back() == 0 ? 1 : 0;
    }
  }
  std::printf("| Held connections | SocketCtrl (us/cycle) | libevent (us/cycle) |\n|---|---|---|\n");
  for (int h = 0; h < 2; ++h)
    std::printf("| %d | %s | %s |\n", holds[h], Range(ours[h], 1).c_str(), Range(peer[h], 1).c_str());
  auto median = [](std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  };
  std::printf("\n10,000 / 100 (medians): SocketCtrl %.2f, libevent %.2f\n", median(ours[1]) / median(ours[0]),
              median(peer[1]) / median(peer[0]));
  if (status != 0)
    std::fprintf(stderr, "some run failed\n");
  return status;
}
