// Readiness.h: thin wrappers over the system's readiness calls (poll, epoll).
//
// Library code above shared/platform/ waits on descriptors only through
// these. Every wrapper retries EINTR itself (with the time-out shortened by
// the time already spent) and returns the call's own result: a count, 0 on
// time-out, -1 on error with errno saved for the caller.
//
// Threads: every function may be called from any thread; the arrays and
// EpollSet objects belong to the caller.
#pragma once

#include "platform/Export.h"

#include <cstdint>

namespace shared::platform {

// Readiness flags, equal to the system's poll() values (checked in Poll.cpp).
constexpr short kPollIn = 0x001;
constexpr short kPollPri = 0x002;
constexpr short kPollOut = 0x004;
constexpr short kPollErr = 0x008;
constexpr short kPollHup = 0x010;
constexpr short kPollNval = 0x020;

// Layout-identical to struct pollfd (checked in Poll.cpp), so an array of
// these goes to the system without copying. A negative fd is skipped.
struct PollFd {
  int fd;
  short events;
  short revents;
};

// poll(): timeoutMs < 0 waits without limit.
SHAREDLIB_API int PollFds(PollFd *fds, std::uint32_t count, int timeoutMs);

// Waits until at least one of the count sockets is ready for a kind in kinds
// (1 readable, 2 writable, 4 error) or timeoutMs passes (< 0: no limit).
// Works for any descriptor number (no fd_set limit). When ready is not null,
// ready[i] receives socket i's mask: the kinds asked for that it is ready
// for; an error or hang-up counts as every kind asked for, plus 4. Returns
// the number of ready sockets, 0 on time-out, -1 on error.
SHAREDLIB_API int WaitSockets(std::uint32_t const *socks, std::uint32_t count, unsigned kinds,
                              long timeoutMs, unsigned char *ready);

// True when this build has epoll.
SHAREDLIB_API bool HaveEpoll();

// One epoll instance with its result buffer. Interest masks use the kPoll*
// values (kPollIn, kPollOut, kPollPri); results carry kPollErr and kPollHup
// as well. Level-triggered.
class SHAREDLIB_API EpollSet {
public:
  EpollSet();
  ~EpollSet();
  EpollSet(EpollSet const &) = delete;
  EpollSet &operator=(EpollSet const &) = delete;

  // Creates the instance; false when epoll is missing or the call failed.
  bool Open();
  bool IsOpen() const { return epfd_ >= 0; }
  // 0 on success, -1 on error (errno saved).
  int Add(int fd, unsigned mask, std::uint64_t data);
  int Modify(int fd, unsigned mask, std::uint64_t data);
  int Remove(int fd);
  // Waits for at most maxEvents results (the buffer grows to hold them).
  // Returns their number, 0 on time-out, -1 on error.
  int Wait(int maxEvents, int timeoutMs);
  // Result i of the last Wait: the kPoll* mask and the data given to Add.
  unsigned EventMask(int i) const;
  std::uint64_t EventData(int i) const;

private:
  int epfd_ = -1;
  void *events_ = nullptr;  // the system's result array
  int capacity_ = 0;
};

// A descriptor that another thread can make readable at once, to end a
// readiness wait early (an eventfd on Linux). Register Fd() with the wait;
// Signal from any thread; Drain after the wait so it blocks again.
class SHAREDLIB_API WakeFd {
public:
  WakeFd();
  ~WakeFd();
  WakeFd(WakeFd const &) = delete;
  WakeFd &operator=(WakeFd const &) = delete;

  bool IsOpen() const { return fd_ >= 0; }
  int Fd() const { return fd_; }
  void Signal();
  void Drain();

private:
  int fd_ = -1;
  int writeFd_ = -1;  // the pipe's write end where there is no eventfd
};

}  // namespace shared::platform
