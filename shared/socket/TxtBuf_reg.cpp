#include "socket/TxtBuf_reg.h"

#include <algorithm>
#include <cstring>
#include <new>

TxtBuf_reg::TxtBuf_reg(unsigned capacity) : capacity_(capacity == 0 ? 1 : capacity) {}

void TxtBuf_reg::Reset() {
  head_ = size_ = scanned_ = 0;
  skipLf_ = false;
}

unsigned TxtBuf_reg::Put(char const *data, unsigned len) {
  if (data == nullptr || len == 0) return 0;
  len = std::min(len, Room());
  if (len == 0) return 0;
  // Move the pending bytes to the front before growing, so the storage never
  // exceeds the capacity.
  if (head_ != 0 && head_ + size_ + len > buf_.size()) {
    std::memmove(buf_.data(), buf_.data() + head_, size_);
    head_ = 0;
  }
  if (size_ + len > buf_.size()) {
    std::size_t grown = std::max<std::size_t>(buf_.size() * 2, 256);
    grown = std::min<std::size_t>(std::max<std::size_t>(grown, size_ + len), capacity_);
    try {
      buf_.resize(grown);
    } catch (std::bad_alloc const &) {
      return 0;
    }
  }
  std::memcpy(buf_.data() + head_ + size_, data, len);
  size_ += len;
  return len;
}

long TxtBuf_reg::FindEol() {
  char const *base = buf_.data() + head_;
  for (unsigned i = scanned_; i < size_; ++i) {
    if (base[i] == '\r' || base[i] == '\n') return static_cast<long>(i);
  }
  scanned_ = size_;
  return -1;
}

int TxtBuf_reg::GetLine(char *line, unsigned size) {
  if (line == nullptr || size == 0) return 0;
  // The LF of a CR LF whose CR ended an earlier read.
  if (skipLf_ && size_ != 0) {
    if (buf_[head_] == '\n') {
      ++head_;
      --size_;
      if (scanned_ != 0) --scanned_;
    }
    skipLf_ = false;
  }
  long const eol = FindEol();
  unsigned lineLen = 0;
  unsigned used = 0;
  if (eol >= 0) {
    lineLen = static_cast<unsigned>(eol);
    used = lineLen + 1;
    if (buf_[head_ + lineLen] == '\r') {
      if (used < size_) {
        if (buf_[head_ + used] == '\n') ++used;
      } else {
        skipLf_ = true;  // the LF, if any, has not arrived yet
      }
    }
  } else if (size_ != 0 && size_ >= capacity_) {
    // Full without a line end: hand the whole content out as one line.
    lineLen = used = size_;
  } else {
    return 0;
  }
  return TakeOut(lineLen, used, line, size);
}

int TxtBuf_reg::TakeRest(char *line, unsigned size) {
  if (line == nullptr || size == 0 || size_ == 0) return 0;
  skipLf_ = false;
  return TakeOut(size_, size_, line, size);
}

int TxtBuf_reg::TakeOut(unsigned lineLen, unsigned used, char *line, unsigned size) {
  unsigned const copied = std::min(lineLen, size - 1);
  std::memcpy(line, buf_.data() + head_, copied);
  line[copied] = '\0';
  head_ += used;
  size_ -= used;
  scanned_ = 0;
  if (size_ == 0) {
    head_ = 0;
    // A long line grew the storage; holding it for every connection that
    // once sent one would pin megabytes, so a drained register gives it back.
    if (buf_.size() > kKeepBytes) std::vector<char>().swap(buf_);
  }
  return static_cast<int>(copied) + 1;
}
