#include "socket/PollWrapper.h"

#include "platform/Readiness.h"

#include <cstdint>
#include <new>
#include <vector>

namespace pf = shared::platform;

namespace {
constexpr unsigned int kNoSocket = 0xFFFFFFFFu;
// Descriptor numbers stay below the process limit; the per-socket index is
// direct up to here, and a larger number (not a descriptor) is refused.
constexpr unsigned int kMaxFd = (1u << 20) - 1;
}  // namespace

struct PollWrapper::State {
  std::vector<pf::PollFd> fds;      // registration order; fd -1 marks a hole
  std::vector<void *> ctx;          // parallel to fds
  std::vector<std::uint32_t> slot;  // by socket number: 1-based index in fds, 0 = absent
  std::uint32_t holes = 0;          // invalidated entries not yet squeezed out
  std::size_t cursor = 0;           // next index the walk looks at
  unsigned long asked = 0;          // kinds the last wait asked for

  std::uint32_t SlotOf(unsigned int fd) const { return fd < slot.size() ? slot[fd] : 0; }

  // Drops the holes left by clr; only between walks, as it moves entries.
  void Squeeze() {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].fd < 0) continue;
      fds[kept] = fds[i];
      ctx[kept] = ctx[i];
      slot[static_cast<std::uint32_t>(fds[kept].fd)] = static_cast<std::uint32_t>(kept + 1);
      ++kept;
    }
    fds.resize(kept);
    ctx.resize(kept);
    holes = 0;
  }
};

PollWrapper::PollWrapper(char const *name) : SockEventsWrapper(name) {}

PollWrapper::~PollWrapper() { delete state_; }

unsigned long PollWrapper::GetMode() { return kSewModePoll; }

int PollWrapper::init() {
  if (state_ == nullptr) state_ = new (std::nothrow) State;
  reset();
  return state_ != nullptr ? 1 : 0;
}

void PollWrapper::reset() {
  if (state_ != nullptr) {
    state_->fds.clear();
    state_->ctx.clear();
    state_->slot.clear();
    state_->holes = 0;
    state_->cursor = 0;
  }
  SockEventsWrapper::reset();
}

int PollWrapper::set(unsigned int fd, void *ctx, int) {
  if (state_ == nullptr) init();
  if (fd == kNoSocket || fd > kMaxFd || state_ == nullptr) return 0;
  State &s = *state_;
  if (std::uint32_t const at = s.SlotOf(fd); at != 0) {
    s.ctx[at - 1] = ctx;
    ++nfds_;
    return 1;
  }
  try {
    if (fd >= s.slot.size()) s.slot.resize(static_cast<std::size_t>(fd) + 1, 0);
    // A socket added during a walk goes at the end with no result yet, so
    // the walk may pass over it without reporting anything.
    s.fds.push_back(pf::PollFd{static_cast<int>(fd), InterestFlags(s.asked), 0});
    s.ctx.push_back(ctx);
  } catch (std::bad_alloc const &) {
    if (s.ctx.size() < s.fds.size()) s.fds.pop_back();
    return 0;
  }
  s.slot[fd] = static_cast<std::uint32_t>(s.fds.size());
  ++nfds_;
  return 1;
}

void PollWrapper::clr(unsigned int fd) {
  if (fd == kNoSocket || state_ == nullptr || nfds_ == 0) return;
  State &s = *state_;
  if (std::uint32_t const at = s.SlotOf(fd); at != 0) {
    // Invalidate, do not move: a walk may be under way. poll() skips
    // negative descriptors, and the walk skips entries without results.
    s.fds[at - 1].fd = -1;
    s.fds[at - 1].revents = 0;
    s.ctx[at - 1] = nullptr;
    s.slot[fd] = 0;
    ++s.holes;
  }
  --nfds_;
}

void PollWrapper::zero() {
  if (nfds_ != 0) reset();
}

int PollWrapper::EventHandler(unsigned long events, long timeoutMs, int) {
  unsigned long const asked = events & (kSewRead | kSewWrite | kSewError);
  if (state_ != nullptr) {
    // Results of the previous wait end here, whether or not this one polls.
    state_->cursor = state_->fds.size();
    if (state_->holes != 0) state_->Squeeze();
    for (pf::PollFd &p : state_->fds) p.revents = 0;
  }
  if (state_ == nullptr || state_->fds.empty() || asked == 0) {
    IdleWait(timeoutMs);
    return 0;
  }
  State &s = *state_;
  if (asked != s.asked) {
    short const interest = InterestFlags(asked);
    for (pf::PollFd &p : s.fds) p.events = interest;
    s.asked = asked;
  }
  int const waitMs = SystemTimeout(timeoutMs);
  int const rc = pf::PollFds(s.fds.data(), static_cast<std::uint32_t>(s.fds.size()), waitMs);
  s.cursor = 0;
  if (rc < 0) {
    for (pf::PollFd &p : s.fds) p.revents = 0;
    return -1;
  }
  return rc;
}

unsigned int PollWrapper::Walk(unsigned long *events, unsigned int *pos, void **ctx) {
  if (state_ != nullptr) {
    State &s = *state_;
    while (s.cursor < s.fds.size()) {
      std::size_t const i = s.cursor++;
      pf::PollFd const &p = s.fds[i];
      if (p.fd < 0 || p.revents == 0) continue;
      unsigned long const mask = ReadyMask(static_cast<unsigned short>(p.revents), s.asked);
      if (mask == 0) continue;
      if (events != nullptr) *events = mask;
      if (pos != nullptr) *pos = static_cast<unsigned int>(i + 1);
      if (ctx != nullptr) *ctx = s.ctx[i];
      return static_cast<unsigned int>(p.fd);
    }
  }
  return EndOfWalk(events, pos, ctx);
}

unsigned int PollWrapper::firstEvent(unsigned long *events, unsigned int *pos, void **ctx) {
  if (state_ != nullptr) state_->cursor = 0;
  return Walk(events, pos, ctx);
}

unsigned int PollWrapper::nextEvent(unsigned long *events, unsigned int *pos, void **ctx) {
  return Walk(events, pos, ctx);
}
