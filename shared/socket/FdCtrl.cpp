#include "socket/FdCtrl.h"

#include "socket/TxtBuf_reg.h"

#include <cstring>
#include <new>

namespace {
constexpr unsigned int kNoSocket = 0xFFFFFFFFu;
// fdVector indexes sockets below this number directly (descriptor numbers
// stay below the process limit); a larger handle goes to a hash instead, so a
// stray value never makes the index huge.
constexpr unsigned int kDenseLimit = 1u << 20;
}  // namespace

IfdCtrl::~IfdCtrl() = default;

// --- Myfd_set ----------------------------------------------------------------

Myfd_set::Myfd_set() : count_(0), fds_{}, cursor_(1) { zero(); }

Myfd_set::~Myfd_set() = default;

int Myfd_set::count() { return static_cast<int>(count_); }

void Myfd_set::zero() {
  count_ = 0;
  std::memset(fds_, 0, sizeof(fds_));
}

int Myfd_set::set(unsigned int fd) {
  if (fd == kNoSocket || count_ >= kSewSelectMaxSockets) return 0;
  // The historical search: a match at the last position is taken for "absent".
  std::uint32_t i = 0;
  while (i < count_ && fds_[i] != fd) ++i;
  if (count_ != 0 && i < count_ - 1) return 0;
  fds_[count_++] = fd;
  return static_cast<int>(count_);
}

int Myfd_set::clr(unsigned int fd) {
  for (std::uint32_t i = 0; i < count_; ++i) {
    if (fds_[i] != fd) continue;
    std::memmove(&fds_[i], &fds_[i + 1], (count_ - i - 1) * sizeof(fds_[0]));
    --count_;
    fds_[count_] = 0;
    // Keep a walk in progress on the socket it would have returned next.
    if (i + 1 < cursor_) --cursor_;
    return static_cast<int>(i);
  }
  return static_cast<int>(count_);
}

int Myfd_set::isset(unsigned int fd) {
  for (std::uint32_t i = count_; i > 0; --i) {
    if (fds_[i - 1] == fd) return static_cast<int>(i);
  }
  return 0;
}

unsigned int Myfd_set::getfd(unsigned int pos) { return pos == 0 || pos > count_ ? kNoSocket : fds_[pos - 1]; }

unsigned int Myfd_set::first(unsigned int *pos) {
  cursor_ = 1;
  return next(pos);
}

unsigned int Myfd_set::next(unsigned int *pos) {
  if (cursor_ >= 1 && cursor_ <= count_) {
    if (pos != nullptr) *pos = cursor_;
    return fds_[cursor_++ - 1];
  }
  if (pos != nullptr) *pos = 0;
  return kNoSocket;
}

// --- ITxtBufCtrl defaults: no text buffers -----------------------------------

ITxtBufCtrl::~ITxtBufCtrl() = default;
int ITxtBufCtrl::PutTxt(unsigned int, char const *, unsigned int) { return 0; }
int ITxtBufCtrl::GetTxtLine(unsigned int, char *, unsigned int) { return 0; }
int ITxtBufCtrl::AddTxtBuf(unsigned int) { return 0; }
int ITxtBufCtrl::DelTxtBuf(unsigned int) { return 0; }
int ITxtBufCtrl::GetTxtRoom(unsigned int, unsigned int *) { return 0; }
int ITxtBufCtrl::GetTxtPending(unsigned int, unsigned int *) { return 0; }

IfdACtrl::~IfdACtrl() = default;

// --- fdVector ----------------------------------------------------------------

fdVector::fdVector() = default;

fdVector::~fdVector() = default;

int fdVector::count() { return static_cast<int>(fds_.size()); }

void fdVector::zero() {
  fds_.clear();
  pos_.clear();
  bigPos_.clear();
  cursor_ = 1;  // clr relies on the cursor never standing past count() + 1
}

void fdVector::place(std::uint32_t fd, std::uint32_t pos) {
  fds_[pos - 1] = fd;
  if (fd < kDenseLimit)
    pos_[fd] = pos;
  else
    bigPos_[fd] = pos;
}

int fdVector::set(unsigned int fd) {
  if (fd == kNoSocket || isset(fd) != 0) return 0;
  try {
    if (fd < kDenseLimit && fd >= pos_.size()) pos_.resize(static_cast<std::size_t>(fd) + 1, 0);
    if (fd >= kDenseLimit) bigPos_.emplace(fd, 0);
    fds_.push_back(fd);
  } catch (std::bad_alloc const &) {
    bigPos_.erase(fd);
    return 0;
  }
  place(fd, static_cast<std::uint32_t>(fds_.size()));
  return static_cast<int>(fds_.size());
}

int fdVector::clr(unsigned int fd) {
  std::uint32_t const at = static_cast<std::uint32_t>(isset(fd));
  if (at == 0) return count();
  std::uint32_t const last = static_cast<std::uint32_t>(fds_.size());
  if (at < cursor_) {
    // Already walked: the last walked socket takes the gap, and the cursor
    // steps back onto its old place, which the last socket then takes.
    std::uint32_t const walked = cursor_ - 1;
    place(fds_[walked - 1], at);
    if (walked != last) place(fds_[last - 1], walked);
    --cursor_;
  } else if (at != last) {
    place(fds_[last - 1], at);
  }
  fds_.pop_back();
  if (fd < kDenseLimit)
    pos_[fd] = 0;
  else
    bigPos_.erase(fd);
  return static_cast<int>(at - 1);
}

int fdVector::isset(unsigned int fd) {
  if (fd < kDenseLimit) return fd < pos_.size() ? static_cast<int>(pos_[fd]) : 0;
  auto it = bigPos_.find(fd);
  return it == bigPos_.end() ? 0 : static_cast<int>(it->second);
}

unsigned int fdVector::getfd(unsigned int pos) { return pos == 0 || pos > fds_.size() ? kNoSocket : fds_[pos - 1]; }

unsigned int fdVector::first(unsigned int *pos) {
  cursor_ = 1;
  return next(pos);
}

unsigned int fdVector::next(unsigned int *pos) {
  if (cursor_ >= 1 && cursor_ <= fds_.size()) {
    if (pos != nullptr) *pos = cursor_;
    return fds_[cursor_++ - 1];
  }
  if (pos != nullptr) *pos = 0;
  return kNoSocket;
}

// --- fdATxtSVector -----------------------------------------------------------

fdATxtSVector::fdATxtSVector() = default;

fdATxtSVector::~fdATxtSVector() = default;

void fdATxtSVector::zero() {
  fdVector::zero();
  regs_.clear();
}

int fdATxtSVector::set(unsigned int fd) {
  int const result = fdVector::set(fd);
  if (result != 0 && !lazy_ && AddTxtBuf(fd) == 0) {
    // A socket without its register would lose its text: refuse it.
    fdVector::clr(fd);
    return 0;
  }
  return result;
}

int fdATxtSVector::clr(unsigned int fd) {
  DelTxtBuf(fd);
  return fdVector::clr(fd);
}

TxtBuf_reg *fdATxtSVector::GetTxtBuf(unsigned int fd) {
  auto it = regs_.find(fd);
  return it != regs_.end() ? it->second.get() : nullptr;
}

int fdATxtSVector::AddTxtBuf(unsigned int fd) {
  if (fd == kNoSocket) return 0;
  if (regs_.find(fd) != regs_.end()) return 1;
  try {
    regs_.emplace(fd, std::make_unique<TxtBuf_reg>());
  } catch (std::bad_alloc const &) {
    return 0;
  }
  return 1;
}

int fdATxtSVector::DelTxtBuf(unsigned int fd) {
  if (regs_.erase(fd) == 0) return 0;
  return 1;
}

int fdATxtSVector::PutTxt(unsigned int fd, char const *data, unsigned int len) {
  TxtBuf_reg *reg = GetTxtBuf(fd);
  return reg != nullptr ? static_cast<int>(reg->Put(data, len)) : 0;
}

int fdATxtSVector::GetTxtLine(unsigned int fd, char *line, unsigned int size) {
  TxtBuf_reg *reg = GetTxtBuf(fd);
  return reg != nullptr ? reg->GetLine(line, size) : 0;
}

int fdATxtSVector::GetTxtRoom(unsigned int fd, unsigned int *room) {
  TxtBuf_reg *reg = GetTxtBuf(fd);
  if (reg == nullptr) return 0;
  if (room != nullptr) *room = reg->Room();
  return 1;
}

int fdATxtSVector::GetTxtPending(unsigned int fd, unsigned int *pending) {
  TxtBuf_reg *reg = GetTxtBuf(fd);
  if (reg == nullptr) return 0;
  if (pending != nullptr) *pending = reg->Pending();
  return 1;
}
