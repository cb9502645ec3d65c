// Cost of one dispatch pass (wait + walk of the ready sockets) with N idle
// registered sockets and 1 active one, for the select, poll and epoll
// demultiplexers. Expected shape: select and poll grow with N, epoll stays flat.
#include "common/AllocCounter.h"

#include <sharedlib.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

namespace {

// Both ends of a socket pair count as idle sockets: N idle sockets need
// only N descriptors.
class Fixture : public ISEWIterator {
public:
  Fixture(unsigned char mode, int idle) {
    sew_.reset(InitSockEventsWrapper(mode, this, "bench"));
    for (int i = 0; i < idle; i += 2) {
      int sv[2];
      if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
      for (int fd : sv) {
        fds_.push_back(fd);
        if (static_cast<int>(fds_.size()) <= idle) Register(fd);
      }
    }
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) return;
    fds_.push_back(sv[0]);
    fds_.push_back(sv[1]);
    Register(sv[0]);
    // One unread byte keeps the active socket readable at every wait.
    if (::write(sv[1], "x", 1) == 1) active_ = static_cast<unsigned int>(sv[0]);
  }
  ~Fixture() override {
    sew_.reset();
    for (int fd : fds_) ::close(fd);
  }
  bool ok() const { return sew_ != nullptr && active_ != 0xFFFFFFFFu && registered_ == sew_->getnfds(); }

  // One pass as a socket controller runs it.
  unsigned int Pass() {
    int const n = sew_->EventHandler(kSewRead, 1000, 2048);
    unsigned int found = 0;
    if (n > 0) {
      unsigned long ev = 0;
      for (unsigned int fd = sew_->firstEvent(&ev, nullptr, nullptr); fd != 0xFFFFFFFFu;
           fd = sew_->nextEvent(&ev, nullptr, nullptr)) {
        found += fd == active_ ? 1 : 1000;
      }
    }
    return found;
  }

  unsigned int firstActiveSocket(unsigned int *pos) override { return active_set_.first(pos); }
  unsigned int nextActiveSocket(unsigned int *pos) override { return active_set_.next(pos); }

private:
  void Register(int fd) {
    if (sew_ != nullptr && sew_->set(static_cast<unsigned int>(fd), nullptr, 0) == 1) {
      active_set_.set(static_cast<unsigned int>(fd));
      ++registered_;
    }
  }

  std::unique_ptr<SockEventsWrapper> sew_;
  fdVector active_set_;
  std::vector<int> fds_;
  unsigned int active_ = 0xFFFFFFFFu;
  int registered_ = 0;
};

bool RaiseFdLimit(rlim_t want) {
  rlimit lim{};
  if (::getrlimit(RLIMIT_NOFILE, &lim) != 0) return false;
  if (lim.rlim_cur >= want) return true;
  lim.rlim_cur = lim.rlim_max == RLIM_INFINITY || lim.rlim_max >= want ? want : lim.rlim_max;
  return ::setrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur >= want;
}

void Pass(benchmark::State &state, unsigned char mode) {
  int const idle = static_cast<int>(state.range(0));
  if (!RaiseFdLimit(static_cast<rlim_t>(idle) + 256)) {
    state.SkipWithError("descriptor limit too low");
    return;
  }
  Fixture fixture(mode, idle);
  if (!fixture.ok()) {
    state.SkipWithError("could not register the sockets");
    return;
  }
  fixture.Pass();  // first wait allocates the working storage
  std::uint64_t const before = bench::AllocationCount();
  for (auto _ : state) {
    if (fixture.Pass() != 1) {
      state.SkipWithError("the active socket was not reported alone");
      break;
    }
  }
  state.counters["allocs/pass"] = benchmark::Counter(
      static_cast<double>(bench::AllocationCount() - before) / static_cast<double>(state.iterations()));
}

void BM_SelectPass(benchmark::State &state) { Pass(state, static_cast<unsigned char>(kSewModeSelect)); }
void BM_PollPass(benchmark::State &state) { Pass(state, static_cast<unsigned char>(kSewModePoll)); }
void BM_EPollPass(benchmark::State &state) { Pass(state, static_cast<unsigned char>(kSewModeLinux)); }

// select holds 2048 registrations: 1 active + 2047 idle at most.
BENCHMARK(BM_SelectPass)->Arg(10)->Arg(1000)->Arg(2047);
BENCHMARK(BM_PollPass)->Arg(10)->Arg(1000)->Arg(8000);
BENCHMARK(BM_EPollPass)->Arg(10)->Arg(1000)->Arg(8000);

}  // namespace

BENCHMARK_MAIN();
