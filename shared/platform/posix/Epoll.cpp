// epoll wrappers: EpollSet (a stub that always fails where epoll is missing).
#include "platform/Readiness.h"

#include "platform/PlatformConfig.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>

#if SHAREDLIB_HAVE_EPOLL
#  include <sys/epoll.h>
#  include <unistd.h>
#endif

namespace shared::platform {

#if SHAREDLIB_HAVE_EPOLL

static_assert(EPOLLIN == kPollIn && EPOLLPRI == kPollPri && EPOLLOUT == kPollOut && EPOLLERR == kPollErr &&
                  EPOLLHUP == kPollHup,
              "epoll flags must equal the poll values");

bool HaveEpoll() { return true; }

EpollSet::EpollSet() = default;

EpollSet::~EpollSet() {
  if (epfd_ >= 0) ::close(epfd_);
  std::free(events_);
}

bool EpollSet::Open() {
  if (epfd_ >= 0) return true;
  epfd_ = ::epoll_create1(EPOLL_CLOEXEC);
  return epfd_ >= 0;
}

namespace {

int Control(int epfd, int op, int fd, unsigned mask, std::uint64_t data) {
  if (epfd < 0) {
    errno = EBADF;
    return -1;
  }
  epoll_event ev{};
  ev.events = mask;
  ev.data.u64 = data;
  return ::epoll_ctl(epfd, op, fd, &ev);
}

}  // namespace

int EpollSet::Add(int fd, unsigned mask, std::uint64_t data) { return Control(epfd_, EPOLL_CTL_ADD, fd, mask, data); }

int EpollSet::Modify(int fd, unsigned mask, std::uint64_t data) {
  return Control(epfd_, EPOLL_CTL_MOD, fd, mask, data);
}

int EpollSet::Remove(int fd) { return Control(epfd_, EPOLL_CTL_DEL, fd, 0, 0); }

int EpollSet::Wait(int maxEvents, int timeoutMs) {
  if (epfd_ < 0 || maxEvents <= 0) {
    errno = EINVAL;
    return -1;
  }
  if (maxEvents > capacity_) {
    void *grown = std::realloc(events_, sizeof(epoll_event) * static_cast<std::size_t>(maxEvents));
    if (grown == nullptr) {
      if (capacity_ == 0) {
        errno = ENOMEM;
        return -1;
      }
      maxEvents = capacity_;  // keep waiting with what we have
    } else {
      events_ = grown;
      capacity_ = maxEvents;
    }
  }
  auto *out = static_cast<epoll_event *>(events_);
  auto const start = std::chrono::steady_clock::now();
  int wait = timeoutMs;
  for (;;) {
    int const rc = ::epoll_wait(epfd_, out, maxEvents, wait);
    if (rc >= 0 || errno != EINTR) return rc;
    if (timeoutMs >= 0) {
      auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
                       .count();
      wait = spent >= timeoutMs ? 0 : static_cast<int>(timeoutMs - spent);
    }
  }
}

unsigned EpollSet::EventMask(int i) const { return static_cast<epoll_event const *>(events_)[i].events; }

std::uint64_t EpollSet::EventData(int i) const { return static_cast<epoll_event const *>(events_)[i].data.u64; }

#else  // no epoll on this system: every call fails

bool HaveEpoll() { return false; }
EpollSet::EpollSet() = default;
EpollSet::~EpollSet() = default;
bool EpollSet::Open() { return false; }
int EpollSet::Add(int, unsigned, std::uint64_t) { return -1; }
int EpollSet::Modify(int, unsigned, std::uint64_t) { return -1; }
int EpollSet::Remove(int) { return -1; }
int EpollSet::Wait(int, int) { return -1; }
unsigned EpollSet::EventMask(int) const { return 0; }
std::uint64_t EpollSet::EventData(int) const { return 0; }

#endif

}  // namespace shared::platform
