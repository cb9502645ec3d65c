// poll() wrappers: PollFds and WaitSockets.
#include "platform/Readiness.h"

#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <vector>

namespace shared::platform {

static_assert(kPollIn == POLLIN && kPollPri == POLLPRI && kPollOut == POLLOUT && kPollErr == POLLERR &&
                  kPollHup == POLLHUP && kPollNval == POLLNVAL,
              "readiness flags must equal the system's poll values");
static_assert(sizeof(PollFd) == sizeof(pollfd) && offsetof(PollFd, fd) == offsetof(pollfd, fd) &&
                  offsetof(PollFd, events) == offsetof(pollfd, events) &&
                  offsetof(PollFd, revents) == offsetof(pollfd, revents),
              "PollFd must have the layout of struct pollfd");

namespace {

using SteadyClock = std::chrono::steady_clock;

// Time left of a wait that began at start, for a retry after EINTR.
int Remaining(SteadyClock::time_point start, int timeoutMs) {
  if (timeoutMs < 0) return timeoutMs;
  auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(SteadyClock::now() - start).count();
  return spent >= timeoutMs ? 0 : static_cast<int>(timeoutMs - spent);
}

int ClampTimeout(long timeoutMs) {
  if (timeoutMs < 0) return -1;
  constexpr long kMax = 0x7FFFFFFF;
  return static_cast<int>(timeoutMs > kMax ? kMax : timeoutMs);
}

}  // namespace

int PollFds(PollFd *fds, std::uint32_t count, int timeoutMs) {
  auto *sys = reinterpret_cast<pollfd *>(fds);
  auto const start = SteadyClock::now();
  int wait = timeoutMs;
  for (;;) {
    int const rc = ::poll(sys, static_cast<nfds_t>(count), wait);
    if (rc >= 0 || errno != EINTR) return rc;
    wait = Remaining(start, timeoutMs);
  }
}

int WaitSockets(std::uint32_t const *socks, std::uint32_t count, unsigned kinds, long timeoutMs,
                unsigned char *ready) {
  if (count != 0 && socks == nullptr) {
    errno = EINVAL;
    return -1;
  }
  short asked = 0;
  if (kinds & 1u) asked |= kPollIn;
  if (kinds & 2u) asked |= kPollOut;
  if (kinds & 4u) asked |= kPollPri;

  // A short list lives on the stack; the send thread asks for up to 2048.
  constexpr std::uint32_t kOnStack = 64;
  PollFd local[kOnStack];
  std::vector<PollFd> heap;
  PollFd *fds = local;
  if (count > kOnStack) {
    heap.resize(count);
    fds = heap.data();
  }
  for (std::uint32_t i = 0; i < count; ++i) {
    // 0xFFFFFFFF (no socket) becomes -1, which poll() skips.
    fds[i].fd = static_cast<int>(socks[i]);
    fds[i].events = asked;
    fds[i].revents = 0;
  }
  int const rc = PollFds(fds, count, ClampTimeout(timeoutMs));
  if (ready != nullptr) {
    for (std::uint32_t i = 0; i < count; ++i) {
      short const r = rc > 0 ? fds[i].revents : 0;
      unsigned char mask = 0;
      if (r & (kPollErr | kPollHup | kPollNval)) mask = static_cast<unsigned char>((kinds & 7u) | 4u);
      if ((r & kPollIn) && (kinds & 1u)) mask |= 1;
      if ((r & kPollOut) && (kinds & 2u)) mask |= 2;
      if ((r & kPollPri) && (kinds & 4u)) mask |= 4;
      ready[i] = mask;
    }
  }
  return rc;
}

}  // namespace shared::platform
