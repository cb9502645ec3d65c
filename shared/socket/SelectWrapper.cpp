#include "socket/SelectWrapper.h"

#include "platform/Readiness.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace pf = shared::platform;

namespace {

constexpr unsigned int kNoSocket = 0xFFFFFFFFu;

// Linear search, as the platform's fd_set membership test does.
bool Contains(SelectWrapper::FdList const *list, unsigned int fd) {
  for (std::uint32_t i = 0; i < list->count; ++i) {
    if (list->fds[i] == fd) return true;
  }
  return false;
}

// Removes fd from list, keeping the order of the others; true when found.
bool Remove(SelectWrapper::FdList *list, unsigned int fd) {
  for (std::uint32_t i = 0; i < list->count; ++i) {
    if (list->fds[i] == fd) {
      std::memmove(&list->fds[i], &list->fds[i + 1], (list->count - i - 1) * sizeof(list->fds[0]));
      --list->count;
      return true;
    }
  }
  return false;
}

// Allocates (not zeroed) when absent, then copies the master list in whole.
bool Prepare(SelectWrapper::FdList *&set, SelectWrapper::FdList const *master) {
  if (set == nullptr) set = static_cast<SelectWrapper::FdList *>(std::malloc(sizeof(SelectWrapper::FdList)));
  if (set == nullptr) return false;
  std::memcpy(set, master, sizeof(SelectWrapper::FdList));
  return true;
}

// Keeps in set only the sockets whose poll result holds one of flags.
// The set was copied from the master list, so slot i is pollfd i.
void Narrow(SelectWrapper::FdList *set, pf::PollFd const *fds, unsigned flags) {
  std::uint32_t kept = 0;
  for (std::uint32_t i = 0; i < set->count; ++i) {
    if (static_cast<unsigned>(fds[i].revents) & flags) set->fds[kept++] = set->fds[i];
  }
  set->count = kept;
}

}  // namespace

struct SelectWrapper::PollScratch {
  pf::PollFd fds[kSewSelectMaxSockets];
};

SelectWrapper::SelectWrapper(char const *name) : SockEventsWrapper(name) {}

// Frees the result sets as well: leaving them to reset() would leak them for
// an owner that destroys the wrapper with registrations still in place.
SelectWrapper::~SelectWrapper() {
  std::free(read_);
  std::free(write_);
  std::free(error_);
  std::free(master_);
  delete scratch_;
}

unsigned long SelectWrapper::GetMode() { return kSewModeSelect; }

int SelectWrapper::init() {
  if (master_ == nullptr) master_ = static_cast<FdList *>(std::calloc(1, sizeof(FdList)));
  reset();
  return SockEventsWrapper::init() != 0 && master_ != nullptr ? 1 : 0;
}

void SelectWrapper::reset() {
  if (master_ != nullptr) master_->count = 0;
  std::free(read_);
  std::free(write_);
  std::free(error_);
  read_ = write_ = error_ = nullptr;
  SockEventsWrapper::reset();
}

int SelectWrapper::set(unsigned int fd, void *, int) {
  if (master_ == nullptr) init();
  if (fd == kNoSocket || master_ == nullptr || nfds_ >= static_cast<int>(kSewSelectMaxSockets)) return 0;
  if (!Contains(master_, fd) && master_->count < kSewSelectMaxSockets) master_->fds[master_->count++] = fd;
  // Counts calls, not sockets: a socket set twice needs two clr.
  ++nfds_;
  return 1;
}

void SelectWrapper::clr(unsigned int fd) {
  if (fd == kNoSocket || master_ == nullptr || nfds_ == 0) return;
  if (Remove(master_, fd)) {
    // Invalidate the socket in the last results too: if its number is reused
    // by a socket accepted later in the same pass, the walk must not report
    // the old socket's readiness for the new one.
    if (read_ != nullptr) Remove(read_, fd);
    if (write_ != nullptr) Remove(write_, fd);
    if (error_ != nullptr) Remove(error_, fd);
  }
  --nfds_;
}

void SelectWrapper::zero() {
  if (nfds_ != 0) reset();
}

int SelectWrapper::EventHandler(unsigned long events, long timeoutMs, int) {
  bool prepared = false;
  if (master_ != nullptr && nfds_ != 0) {
    bool failed = false;
    // A failed read or write set fails the wait only after all three were tried.
    if (events & kSewRead) {
      if (Prepare(read_, master_)) prepared = true; else failed = true;
    }
    if (events & kSewWrite) {
      if (Prepare(write_, master_)) prepared = true; else failed = true;
    }
    if (events & kSewError) {
      if (!Prepare(error_, master_)) return -1;
      prepared = true;
    }
    if (failed) return -1;
  }
  if (nfds_ == 0 || !prepared) {
    IdleWait(timeoutMs);
    return 0;
  }
  // No valid time value exists for -1: the call fails as the platform's
  // select does for a bad argument. Negative seconds are just as invalid.
  if (timeoutMs == -1) return -1;
  // Whole seconds only: the remainder below one second is dropped.
  long const seconds = timeoutMs / 1000;
  if (seconds < 0) return -1;
  int const waitMs = seconds > 0x7FFFFFFFL / 1000 ? 0x7FFFFFFF : static_cast<int>(seconds * 1000);

  if (scratch_ == nullptr) scratch_ = new (std::nothrow) PollScratch;
  if (scratch_ == nullptr) return -1;
  pf::PollFd *fds = scratch_->fds;
  std::uint32_t const count = master_->count;
  short const interest = InterestFlags(events & (kSewRead | kSewWrite | kSewError));
  for (std::uint32_t i = 0; i < count; ++i) {
    fds[i].fd = static_cast<int>(master_->fds[i]);
    fds[i].events = interest;
    fds[i].revents = 0;
  }
  int const rc = pf::PollFds(fds, count, waitMs);
  if (rc < 0) return -1;
  // A descriptor that is not open makes select fail as a whole.
  for (std::uint32_t i = 0; i < count; ++i) {
    if (fds[i].revents & pf::kPollNval) return -1;
  }
  // The readiness each result set keeps, as the platform's select sorts it:
  // an error or hang-up shows as readable and writable.
  unsigned const readFlags = static_cast<unsigned>(pf::kPollIn | pf::kPollHup | pf::kPollErr);
  unsigned const writeFlags = static_cast<unsigned>(pf::kPollOut | pf::kPollHup | pf::kPollErr);
  unsigned const errorFlags = static_cast<unsigned>(pf::kPollPri | pf::kPollErr);
  int ready = 0;
  if (events & kSewRead) {
    Narrow(read_, fds, readFlags);
    ready += static_cast<int>(read_->count);
  }
  if (events & kSewWrite) {
    Narrow(write_, fds, writeFlags);
    ready += static_cast<int>(write_->count);
  }
  if (events & kSewError) {
    Narrow(error_, fds, errorFlags);
    ready += static_cast<int>(error_->count);
  }
  return ready;
}

unsigned int SelectWrapper::Walk(bool first, unsigned long *events, unsigned int *pos) {
  if (pos != nullptr) *pos = 0;
  if (iterator_ == nullptr || nfds_ == 0) {
    if (events != nullptr) *events = 0;
    return kNoSocket;
  }
  unsigned int scratchPos = 0;
  unsigned int *where = pos != nullptr ? pos : &scratchPos;
  unsigned int fd = first ? iterator_->firstActiveSocket(where) : iterator_->nextActiveSocket(where);
  for (; fd != kNoSocket; fd = iterator_->nextActiveSocket(where)) {
    unsigned long mask = 0;
    if (read_ != nullptr && Contains(read_, fd)) mask |= kSewRead;
    if (write_ != nullptr && Contains(write_, fd)) mask |= kSewWrite;
    if (error_ != nullptr && Contains(error_, fd)) mask |= kSewError;
    if (mask != 0) {
      if (events != nullptr) *events = mask;
      return fd;
    }
  }
  if (events != nullptr) *events = 0;
  return kNoSocket;
}

unsigned int SelectWrapper::firstEvent(unsigned long *events, unsigned int *pos, void **ctx) {
  if (ctx != nullptr) *ctx = nullptr;
  return Walk(true, events, pos);
}

unsigned int SelectWrapper::nextEvent(unsigned long *events, unsigned int *pos, void **ctx) {
  if (ctx != nullptr) *ctx = nullptr;
  return Walk(false, events, pos);
}
