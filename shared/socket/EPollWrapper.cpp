#include "socket/EPollWrapper.h"

#include "platform/Readiness.h"

#include <cstdint>
#include <new>
#include <vector>

namespace pf = shared::platform;

namespace {

constexpr unsigned int kNoSocket = 0xFFFFFFFFu;
constexpr unsigned int kMaxFd = 0x7FFFFFFFu;
// Results taken from the kernel per wait at most; more stay ready (level-
// triggered) and come with the next wait.
constexpr std::size_t kMaxResults = 65536;
constexpr std::size_t kMinResults = 64;

// The kernel hands back 64 bits per result: the socket and the generation of
// its registration, so a result for a socket unregistered (and perhaps
// registered again) since the wait is recognised as stale.
std::uint64_t Pack(unsigned int fd, std::uint32_t gen) { return (static_cast<std::uint64_t>(gen) << 32) | fd; }

}  // namespace

struct EPollWrapper::State {
  struct Slot {
    std::uint32_t gen = 0;
    bool registered = false;
    void *ctx = nullptr;
  };
  struct Ready {
    std::uint32_t fd;
    std::uint32_t gen;
    unsigned long mask;
  };

  pf::EpollSet kernel;
  std::vector<Slot> slots;    // by socket number
  std::vector<Ready> ready;   // results of the last wait
  std::size_t cursor = 0;     // next result the walk looks at
  std::size_t distinct = 0;   // registered sockets
  unsigned long interest = kSewRead;  // kinds every registration is armed for

  Slot *SlotOf(unsigned int fd) { return fd < slots.size() ? &slots[fd] : nullptr; }
};

EPollWrapper::EPollWrapper(char const *name) : SockEventsWrapper(name) {}

EPollWrapper::~EPollWrapper() { delete state_; }

unsigned long EPollWrapper::GetMode() { return kSewModeLinux; }

int EPollWrapper::init() {
  if (state_ == nullptr) state_ = new (std::nothrow) State;
  if (state_ == nullptr) return 0;
  reset();
  return state_->kernel.Open() ? 1 : 0;
}

void EPollWrapper::reset() {
  if (state_ != nullptr) {
    State &s = *state_;
    for (std::size_t fd = 0; fd < s.slots.size() && s.distinct != 0; ++fd) {
      State::Slot &slot = s.slots[fd];
      if (!slot.registered) continue;
      s.kernel.Remove(static_cast<int>(fd));  // fails harmlessly for a closed socket
      slot.registered = false;
      slot.ctx = nullptr;
      ++slot.gen;
      --s.distinct;
    }
    s.ready.clear();
    s.cursor = 0;
  }
  SockEventsWrapper::reset();
}

int EPollWrapper::set(unsigned int fd, void *ctx, int) {
  if (state_ == nullptr || !state_->kernel.IsOpen()) init();
  if (fd == kNoSocket || fd > kMaxFd || state_ == nullptr || !state_->kernel.IsOpen()) return 0;
  State &s = *state_;
  unsigned const mask = static_cast<unsigned short>(InterestFlags(s.interest));
  if (State::Slot *slot = s.SlotOf(fd); slot != nullptr && slot->registered) {
    // Set again: make sure the kernel still watches this number. If the
    // socket was closed without clr and its number reused, the kernel has
    // dropped the old one and the new socket must be added.
    if (s.kernel.Modify(static_cast<int>(fd), mask, Pack(fd, slot->gen)) != 0 &&
        s.kernel.Add(static_cast<int>(fd), mask, Pack(fd, slot->gen)) != 0) {
      return 0;
    }
    slot->ctx = ctx;
    ++nfds_;
    return 1;
  }
  std::uint32_t const gen = fd < s.slots.size() ? s.slots[fd].gen : 0;
  // The kernel refuses what is not an open descriptor, before any storage
  // grows for it.
  if (s.kernel.Add(static_cast<int>(fd), mask, Pack(fd, gen)) != 0 &&
      s.kernel.Modify(static_cast<int>(fd), mask, Pack(fd, gen)) != 0) {
    return 0;
  }
  try {
    if (fd >= s.slots.size()) s.slots.resize(static_cast<std::size_t>(fd) + 1);
  } catch (std::bad_alloc const &) {
    s.kernel.Remove(static_cast<int>(fd));
    return 0;
  }
  State::Slot &slot = s.slots[fd];
  slot.registered = true;
  slot.ctx = ctx;
  ++s.distinct;
  ++nfds_;
  return 1;
}

void EPollWrapper::clr(unsigned int fd) {
  unwatch(fd);
  forget(fd);
}

// Only the kernel set is touched: epoll_ctl is safe beside a running
// epoll_wait, the slots are not.
void EPollWrapper::unwatch(unsigned int fd) {
  if (fd == kNoSocket || state_ == nullptr) return;
  state_->kernel.Remove(static_cast<int>(fd));  // fails harmlessly when not registered
}

void EPollWrapper::forget(unsigned int fd) {
  if (fd == kNoSocket || state_ == nullptr || nfds_ == 0) return;
  State &s = *state_;
  if (State::Slot *slot = s.SlotOf(fd); slot != nullptr && slot->registered) {
    slot->registered = false;
    slot->ctx = nullptr;
    ++slot->gen;  // results of the current wait for fd are now stale
    --s.distinct;
  }
  --nfds_;
}

void EPollWrapper::zero() {
  if (nfds_ != 0) reset();
}

int EPollWrapper::EventHandler(unsigned long events, long timeoutMs, int) {
  unsigned long const asked = events & (kSewRead | kSewWrite | kSewError);
  if (state_ != nullptr) {
    state_->ready.clear();
    state_->cursor = 0;
  }
  if (state_ == nullptr || state_->distinct == 0 || asked == 0) {
    IdleWait(timeoutMs);
    return 0;
  }
  State &s = *state_;
  if (asked != s.interest) {
    // Re-arm every registration once for the new kinds; a loop that keeps
    // asking for the same kinds never comes here.
    unsigned const mask = static_cast<unsigned short>(InterestFlags(asked));
    for (std::size_t fd = 0; fd < s.slots.size(); ++fd) {
      if (s.slots[fd].registered) s.kernel.Modify(static_cast<int>(fd), mask, Pack(static_cast<unsigned>(fd), s.slots[fd].gen));
    }
    s.interest = asked;
  }
  std::size_t want = s.distinct < kMinResults ? kMinResults : s.distinct;
  if (want > kMaxResults) want = kMaxResults;
  try {
    s.ready.reserve(want);
  } catch (std::bad_alloc const &) {
    if (s.ready.capacity() == 0) return -1;
    want = s.ready.capacity();
  }
  int const waitMs = SystemTimeout(timeoutMs);
  int const rc = s.kernel.Wait(static_cast<int>(want), waitMs);
  if (rc < 0) return -1;
  for (int i = 0; i < rc; ++i) {
    std::uint64_t const data = s.kernel.EventData(i);
    unsigned long const mask = ReadyMask(s.kernel.EventMask(i), asked);
    if (mask != 0) s.ready.push_back(State::Ready{static_cast<std::uint32_t>(data), static_cast<std::uint32_t>(data >> 32), mask});
  }
  return static_cast<int>(s.ready.size());
}

unsigned int EPollWrapper::Walk(unsigned long *events, unsigned int *pos, void **ctx) {
  if (state_ != nullptr) {
    State &s = *state_;
    while (s.cursor < s.ready.size()) {
      std::size_t const i = s.cursor++;
      State::Ready const &r = s.ready[i];
      State::Slot const *slot = s.SlotOf(r.fd);
      // Skip a socket unregistered since the wait, or whose number now
      // belongs to a newer registration.
      if (slot == nullptr || !slot->registered || slot->gen != r.gen) continue;
      if (events != nullptr) *events = r.mask;
      if (pos != nullptr) *pos = static_cast<unsigned int>(i + 1);
      if (ctx != nullptr) *ctx = slot->ctx;
      return r.fd;
    }
  }
  return EndOfWalk(events, pos, ctx);
}

unsigned int EPollWrapper::firstEvent(unsigned long *events, unsigned int *pos, void **ctx) {
  if (state_ != nullptr) state_->cursor = 0;
  return Walk(events, pos, ctx);
}

unsigned int EPollWrapper::nextEvent(unsigned long *events, unsigned int *pos, void **ctx) {
  return Walk(events, pos, ctx);
}
