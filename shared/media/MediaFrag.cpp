#include "media/MediaFrag.h"

#include "platform/Clock.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr unsigned kShortHdrLen = 12;
constexpr unsigned kLongHdrLen = 14;
constexpr unsigned kExtension = 8;
constexpr unsigned char kTypeWideCount = 23;
constexpr unsigned char kFragmentFlag = 0x20;
constexpr unsigned kMaxFragHeader = 24;

std::uint32_t Le16(unsigned char const *p) { return static_cast<std::uint32_t>(p[0] | (p[1] << 8)); }

std::uint32_t Le32(unsigned char const *p) {
  return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
         (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

void PutLe16(unsigned char *p, std::uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}

void PutLe32(unsigned char *p, std::uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

constexpr unsigned long kForever = static_cast<unsigned long>(-1);

}  // namespace

// ---------------------------------------------------------------- FragQueue

FragQueue::FragQueue(unsigned size, int longHeader, int growable, int blocking)
    : closing_(0),
      blocking_(blocking),
      growable_(growable),
      longHeader_(longHeader),
      readerWaiting_(0),
      wakePending_(0),
      storage_(nullptr),
      head_(0),
      used_(0),
      maxPacket_(kDefaultMaxPacket),
      size_(0),
      filter_(0),
      lost_(0),
      lastSeq_(0),
      lock_(3, 1, 0, kForever, -1),
      dataSignal_(1, 1, 0, kForever, 0),
      readerLock_(3, 1, 0, kForever, -1),
      closeLock_(3, 1, 0, kForever, -1) {
  if (size != 0) {
    storage_ = static_cast<unsigned char *>(std::calloc(size, 1));
    if (storage_ != nullptr)
      size_ = size;
  }
}

FragQueue::~FragQueue() { Close(); }

int FragQueue::IsOk() {
  shared::SemGuard guard(lock_);
  return storage_ != nullptr ? 1 : 0;
}

int FragQueue::Write(void const *data, unsigned len) {
  if (closing_ || data == nullptr || len == 0)
    return 0;
  shared::SemGuard guard(lock_);
  if (closing_ || storage_ == nullptr)
    return 0;
  std::uint64_t const needed = std::uint64_t{used_} + len;
  if (needed > size_ && growable_)
    Grow(needed);  // on failure the old storage stays: an overflow below
  if (needed > size_) {
    // An overflow drops everything held, not just the new bytes.
    head_ = used_ = 0;
    return 0;
  }
  // Into the ring behind the bytes held, in two pieces across the end.
  unsigned const tail = Wrap(std::uint64_t{head_} + used_);
  unsigned const first = std::min(len, size_ - tail);
  auto const *bytes = static_cast<unsigned char const *>(data);
  std::memcpy(storage_ + tail, bytes, first);
  if (first < len)
    std::memcpy(storage_, bytes + first, len - first);
  used_ += len;
  if (FrontTooLarge()) {
    // Raw bytes claiming a packet above the largest size: the queue would
    // grow for ever waiting for the rest, and the framing is lost. Drop
    // everything, as an overflow does.
    head_ = used_ = 0;
    return kTooLarge;
  }
  if (readerWaiting_ && NextPktSizeLocked() != 0) {
    readerWaiting_ = 0;
    dataSignal_.Signal("FragQueue::Write");
  }
  return 1;
}

void FragQueue::Grow(std::uint64_t needed) {
  // Doubling: reaching n bytes copies O(n) in all.
  std::uint64_t grown = std::max<std::uint64_t>(needed, std::uint64_t{size_} * 2);
  grown = std::min<std::uint64_t>(grown, 0xFFFFFFFFu);
  if (needed > grown)
    return;
  auto *bigger = static_cast<unsigned char *>(std::malloc(static_cast<std::size_t>(grown)));
  if (bigger == nullptr)
    return;
  CopyOut(0, bigger, used_);  // straightened out: the front at 0
  std::free(storage_);
  storage_ = bigger;
  size_ = static_cast<unsigned>(grown);
  head_ = 0;
}

unsigned FragQueue::Wrap(std::uint64_t offset) const {
  return static_cast<unsigned>(offset >= size_ ? offset - size_ : offset);
}

void FragQueue::CopyOut(unsigned at, void *dst, unsigned n) const {
  unsigned const from = Wrap(std::uint64_t{head_} + at);
  unsigned const first = std::min(n, size_ - from);
  auto *out = static_cast<unsigned char *>(dst);
  std::memcpy(out, storage_ + from, first);
  if (first < n)
    std::memcpy(out + first, storage_, n - first);
}

bool FragQueue::FrontTooLarge() const {
  // Only the long framing can claim more than 65,547 bytes; the largest size
  // bounds growth whatever the framing.
  return used_ >= HeaderSize() && FrontPacketSize() > maxPacket_;
}

std::uint64_t FragQueue::FrontPacketSize() const {
  unsigned char copy[kLongHdrLen];
  unsigned char const *header = storage_ + head_;
  if (size_ - head_ < HeaderSize()) {  // the header wraps
    CopyOut(0, copy, HeaderSize());
    header = copy;
  }
  return longHeader_ ? std::uint64_t{Le32(header + 8)} + kLongHdrLen : std::uint64_t{Le16(header + 8)} + kShortHdrLen;
}

std::uint32_t FragQueue::FrontWord(unsigned at) const {
  unsigned char word[4];
  CopyOut(at, word, 4);
  return Le32(word);
}

void FragQueue::SetMaxPacketSize(unsigned bytes) {
  shared::SemGuard guard(lock_);
  maxPacket_ = bytes != 0 ? bytes : kDefaultMaxPacket;
}

unsigned FragQueue::NextPktSize() {
  shared::SemGuard guard(lock_);
  return NextPktSizeLocked();
}

unsigned FragQueue::NextPktSizeLocked() {
  if (closing_ || storage_ == nullptr)
    return 0;
  for (;;) {
    if (used_ < HeaderSize())
      return 0;
    std::uint64_t const size = FrontPacketSize();
    if (size > used_)
      return 0;
    if (filter_ != 0 && FrontWord(0) != filter_) {
      DropFront(static_cast<unsigned>(size));
      continue;
    }
    return static_cast<unsigned>(size);
  }
}

void FragQueue::DropFront(unsigned n) {
  // The front moves on round the ring; nothing is copied.
  if (n >= used_) {
    head_ = used_ = 0;
    return;
  }
  head_ = Wrap(std::uint64_t{head_} + n);
  used_ -= n;
}

int FragQueue::Read(char **buf, unsigned *cap, int mayAllocate) {
  if (closing_)
    return 0;
  shared::SemGuard reader(readerLock_, "FragQueue::Read");
  if (closing_)
    return 0;
  lock_.Wait(1, "FragQueue::Read");
  // closing is checked again under the lock: Close sets it before it takes
  // the lock to wake a waiting reader, so a reader that gets this far without
  // seeing it is registered as waiting in time to be woken.
  if (closing_ || storage_ == nullptr || cap == nullptr) {
    lock_.Signal("FragQueue::Read");
    return 0;
  }
  unsigned size = NextPktSizeLocked();
  if (size == 0) {
    if (!blocking_) {
      lock_.Signal("FragQueue::Read");
      return 0;
    }
    if (wakePending_) {
      // A WakeReader that came before this reader got to wait.
      wakePending_ = 0;
      lock_.Signal("FragQueue::Read");
      return 0;
    }
    // Wait with only the reader lock held, so writers and Close get through.
    readerWaiting_ = 1;
    lock_.Signal("FragQueue::Read");
    dataSignal_.Wait(1, "FragQueue::Read");
    if (closing_)
      return 0;
    lock_.Wait(1, "FragQueue::Read");
    if (closing_ || (size = NextPktSizeLocked()) == 0) {
      lock_.Signal("FragQueue::Read");
      return 0;
    }
  }

  int result = 0;
  if (buf == nullptr) {
    *cap = size;
  } else {
    // A null *buf has no room, whatever *cap says: it is allocated for or
    // the packet is dropped, never copied through.
    unsigned room = *buf != nullptr ? *cap : 0;
    if (room < size && mayAllocate) {
      void *grown = std::realloc(*buf, size);
      if (grown != nullptr) {
        *buf = static_cast<char *>(grown);
        *cap = room = size;
      }
    }
    if (room >= size) {
      result = 1;
      std::uint32_t const seq = FrontWord(4);
      if (filter_ != 0 && lastSeq_ != 0 && seq > lastSeq_ + 1)
        lost_ += seq - lastSeq_ - 1;
      lastSeq_ = seq;
      CopyOut(0, *buf, size);
      *cap = size;
    }
  }
  DropFront(size);
  lock_.Signal("FragQueue::Read");
  return result;
}

void FragQueue::Reset() {
  shared::SemGuard guard(lock_);
  head_ = used_ = 0;
}

void FragQueue::SetFilter(std::uint32_t streamId) {
  shared::SemGuard guard(lock_);
  filter_ = streamId;
  lost_ = 0;
  lastSeq_ = 0;
}

void FragQueue::WakeReader() {
  shared::SemGuard guard(lock_);
  if (readerWaiting_) {
    readerWaiting_ = 0;
    dataSignal_.Signal("FragQueue::WakeReader");
  } else {
    wakePending_ = 1;  // kept for a reader that has not reached its wait yet
  }
}

void FragQueue::Close() {
  // Held for the whole close, so that a second caller returns only once the
  // first is done: it may destroy the queue right after.
  shared::SemGuard closing(closeLock_, "FragQueue::Close");
  if (closing_.exchange(1) != 0)
    return;
  WakeReader();
  // A read in progress has left once the reader lock is free.
  readerLock_.Wait(1, "FragQueue::Close");
  readerLock_.Signal("FragQueue::Close");
  shared::SemGuard guard(lock_);
  std::free(storage_);
  storage_ = nullptr;
  head_ = used_ = 0;
  size_ = 0;
}

unsigned FragQueue::GetnPacketsLost() {
  shared::SemGuard guard(lock_);
  return lost_;
}

unsigned FragQueue::GetUsed() {
  shared::SemGuard guard(lock_);
  return used_;
}

unsigned FragQueue::GetSize() {
  shared::SemGuard guard(lock_);
  return size_;
}

// ---------------------------------------------------------------- MediaFrag

MediaFrag::MediaFrag(unsigned long flags, unsigned queueSize, int growable, int blocking)
    : ok_(0), flags_(flags), fragSeq_(0) {
  // The queue frames what SaveData puts into it: fragments always use the
  // short form, so only whole long-form packets need the long framing.
  int const longQueue = ((flags & kLongHeader) && !(flags & kFragOn)) ? 1 : 0;
  queue_.reset(new (std::nothrow) FragQueue(queueSize, longQueue, growable, blocking));
  ok_ = (queue_ && queue_->IsOk()) ? 1 : 0;
}

MediaFrag::~MediaFrag() {
  if (queue_)
    queue_->Close();
}

int MediaFrag::IsPktOk(void const *pkt, unsigned len, unsigned *pktLen) const {
  if (pktLen != nullptr)
    *pktLen = 0;
  if (pkt == nullptr || len == 0)
    return 0;
  auto const *p = static_cast<unsigned char const *>(pkt);
  std::uint64_t size;
  if (IsDefragLMediaPkt()) {
    if (len < kLongHdrLen)
      return 0;
    size = std::uint64_t{Le32(p + 8)} + kLongHdrLen;
  } else {
    if (len < kShortHdrLen)
      return 0;
    size = std::uint64_t{Le16(p + 8)} + kShortHdrLen;
  }
  if (len < size)
    return 0;
  if (pktLen != nullptr)
    *pktLen = static_cast<unsigned>(size);
  return 1;
}

int MediaFrag::SaveData(void const *pkt, unsigned len) {
  unsigned pktLen = 0;
  if (!ok_ || !IsPktOk(pkt, len, &pktLen))
    return 0;
  auto const *p = static_cast<unsigned char const *>(pkt);

  if (!IsDefragOn()) {
    // The whole packet, long form included: sizing a long packet by its low
    // 16 length bits would cut its last two bytes and leave the long-framed
    // queue misaligned for every packet after it.
    if (queue_->Write(p, pktLen) != 1) {
      queue_->Reset();
      return 0;
    }
    return 1;
  }

  bool const longForm = IsDefragLMediaPkt() != 0;
  bool const ext = IsDefragPktExt() != 0;
  std::uint32_t const streamId = Le32(p);
  std::uint32_t const pktSeq = Le32(p + 4);
  unsigned const headerLen = longForm ? kLongHdrLen : kShortHdrLen;
  unsigned char const type = p[longForm ? 12 : 10];
  unsigned char const flag = p[longForm ? 13 : 11];
  std::uint32_t payloadLen = longForm ? Le32(p + 8) : Le16(p + 8);
  unsigned offset = headerLen;
  std::uint32_t timestamp;
  if (ext) {
    // A length too short to hold the extension it claims is refused rather
    // than wrapped into a huge payload.
    if (payloadLen < kExtension)
      return 0;
    payloadLen -= kExtension;
    timestamp = Le32(p + headerLen + 4);
    offset += kExtension;
  } else {
    timestamp = shared::platform::TickCount();
  }

  std::uint32_t count = payloadLen / kMaxFragPayload + (payloadLen % kMaxFragPayload != 0 ? 1 : 0);
  if (count == 0)
    count = 1;
  unsigned fragHeader;
  if (type == kTypeWideCount) {
    fragHeader = 24;
  } else if (IsAudioPkt(flag)) {
    // Audio goes in one fragment: a longer payload is cut to its first
    // (len mod 1400) bytes. Receivers rely on this, so it stays.
    fragHeader = 20;
    count = 1;
  } else {
    fragHeader = 21;  // count stored in 8 bits, truncated beyond 255
  }

  unsigned char frag[kMaxFragHeader + kMaxFragPayload];
  PutLe32(frag, streamId);
  frag[10] = type;
  frag[11] = static_cast<unsigned char>(flag | kFragmentFlag);
  PutLe32(frag + 12, pktSeq);
  PutLe32(frag + 16, timestamp);
  if (fragHeader == 24)
    PutLe32(frag + 20, count);
  else if (fragHeader == 21)
    frag[20] = static_cast<unsigned char>(count);

  for (std::uint32_t i = 1; i <= count; ++i) {
    PutLe32(frag + 4, ++fragSeq_);
    unsigned piece = kMaxFragPayload;
    if (i == count) {
      unsigned const rest = payloadLen % kMaxFragPayload;
      piece = payloadLen == 0 ? 0 : (rest != 0 ? rest : kMaxFragPayload);
    }
    std::memcpy(frag + fragHeader, p + offset, piece);
    offset += piece;
    PutLe16(frag + 8, piece + fragHeader - kShortHdrLen);
    if (queue_->Write(frag, fragHeader + piece) != 1) {
      queue_->Reset();
      return 0;
    }
  }
  return 1;
}

int MediaFrag::GetData(void *buf, unsigned len, unsigned *outLen) {
  if (outLen != nullptr)
    *outLen = 0;
  if (!ok_ || buf == nullptr || len == 0)
    return 0;
  char *dst = static_cast<char *>(buf);
  unsigned cap = len;
  int const result = queue_->Read(&dst, &cap, 0);
  // cap is the size copied, or still len when nothing was.
  if (outLen != nullptr)
    *outLen = cap;
  return result;
}
