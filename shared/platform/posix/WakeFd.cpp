// WakeFd: an eventfd where the system has one, else a non-blocking pipe.
#include "platform/Readiness.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#if defined(__linux__)
#  include <sys/eventfd.h>
#endif

namespace shared::platform {

WakeFd::WakeFd() {
#if defined(__linux__)
  fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  writeFd_ = fd_;
#else
  int p[2];
  if (::pipe(p) == 0) {
    for (int fd : p) {
      ::fcntl(fd, F_SETFD, FD_CLOEXEC);
      ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    }
    fd_ = p[0];
    writeFd_ = p[1];
  }
#endif
}

WakeFd::~WakeFd() {
  if (writeFd_ >= 0 && writeFd_ != fd_)
    ::close(writeFd_);
  if (fd_ >= 0)
    ::close(fd_);
}

void WakeFd::Signal() {
  if (writeFd_ < 0)
    return;
  std::uint64_t one = 1;
  ssize_t r;
  do {
    r = ::write(writeFd_, &one, sizeof(one));
  } while (r < 0 && errno == EINTR);
  // A full counter or pipe is already readable: nothing is lost.
}

void WakeFd::Drain() {
  if (fd_ < 0)
    return;
  std::uint64_t buf[16];
  ssize_t r;
  do {
    r = ::read(fd_, buf, sizeof(buf));
  } while (r > 0 || (r < 0 && errno == EINTR));
}

}  // namespace shared::platform
