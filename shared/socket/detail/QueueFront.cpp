#include "socket/detail/QueueFront.h"

#include "media/CLBuffer.h"

#include <algorithm>
#include <cstring>

namespace shared::socket::detail {

void QueueFront::Load(CLCtrlData const &rec, unsigned max) {
  spans_.clear();
  pieces_.clear();
  bytes_ = 0;
  planned_ = 0;
  span_ = 0;
  spanStart_ = 0;
  for (CLDataBuf const *slot = rec.GetFirstSlot(); slot && bytes_ < max; slot = slot->next) {
    unsigned const n = std::min(slot->used, max - bytes_);
    if (n == 0)
      continue;
    spans_.push_back(shared::platform::SockPiece{slot->data, n});
    bytes_ += n;
  }
}

bool QueueFront::Seek(unsigned at) {
  if (at < spanStart_) {
    span_ = 0;
    spanStart_ = 0;
  }
  while (span_ < spans_.size() && at >= spanStart_ + spans_[span_].len) {
    spanStart_ += spans_[span_].len;
    ++span_;
  }
  return span_ < spans_.size();
}

bool QueueFront::ReadLength(unsigned at, std::uint32_t *out) {
  if (at > bytes_ || bytes_ - at < 4 || !Seek(at))
    return false;
  char bytes[4];
  unsigned got = 0;
  unsigned offset = at - spanStart_;
  for (std::size_t i = span_; got < 4 && i < spans_.size(); ++i, offset = 0) {
    auto const *data = static_cast<char const *>(spans_[i].data);
    for (; got < 4 && offset < spans_[i].len; ++offset)
      bytes[got++] = data[offset];
  }
  std::memcpy(out, bytes, 4);
  return true;
}

unsigned QueueFront::AddRange(unsigned from, unsigned n) {
  unsigned covered = 0;
  while (covered < n && pieces_.size() < kMaxPieces && Seek(from + covered)) {
    auto const &span = spans_[span_];
    unsigned const offset = from + covered - spanStart_;
    unsigned const take = std::min(span.len - offset, n - covered);
    pieces_.push_back(shared::platform::SockPiece{static_cast<char const *>(span.data) + offset, take});
    covered += take;
  }
  planned_ += covered;
  return covered;
}

}  // namespace shared::socket::detail
