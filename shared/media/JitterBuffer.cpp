#include "media/JitterBuffer.h"

namespace {

// Further slots are allocated this many at a time once the first block is
// used up.
constexpr unsigned kGrowthSlots = 10;

}  // namespace

JitterBuffer::JitterBuffer(unsigned capacity, unsigned maxPacketSize)
    : CLBuffer(maxPacketSize, capacity, 0, 1, 0, 0, kGrowthSlots), capacity_(capacity) {
  flush();
}

int JitterBuffer::insert(unsigned seq, char const *data, unsigned len) {
  if (seq == 0 || data == nullptr || len == 0)
    return 0;
  unsigned const maxLen = GetMaxPacketSize();
  if (len > maxLen)
    len = maxLen;  // truncated, not refused
  // A duplicate is replaced; that counts as one removal (with remove's
  // deduction from bytes left), even when the store below then fails.
  remove(seq);
  if (CLBuffer::insert(seq, data, len, maxLen) == 0)
    return 0;
  // Against the last insert, not what is held (see the header). The
  // addition wraps like the unsigned counter it is.
  if (seq > lastSeq_ + 1)
    lost_ += seq - lastSeq_ - 1;
  ++inserted_;
  bytesLeft_ += len;
  bytesHeld_ += len;
  lastSeq_ = seq;
  return 1;
}

int JitterBuffer::remove(unsigned seq) {
  if (seq == 0) {
    seq = CLBuffer::first(nullptr, nullptr);
    if (seq == 0)
      return 0;
  }
  // getszdata returns the record's id; the size would come back only through
  // the pointer left null. Deducting the id is the counter's long-standing
  // behaviour, kept (see the header).
  unsigned size = 0;
  unsigned const deducted = getszdata(seq, &size);
  int const erased = erase(seq);
  if (erased) {
    ++removed_;
    bytesLeft_ -= deducted;
    bytesHeld_ -= size;
  }
  return erased;
}

int JitterBuffer::search(unsigned seq, char *buf, unsigned *len) {
  if (seq == 0)
    return 0;
  return CLBuffer::search(seq, buf, len, nullptr) ? 1 : 0;
}

unsigned JitterBuffer::popfirst(char *buf, unsigned *len) {
  // Same deduction as remove: the id of the lowest packet, not its size.
  unsigned size = 0;
  unsigned const deducted = getszdata(0, &size);
  unsigned const seq = CLBuffer::popfirst(buf, len);
  if (seq != 0) {
    ++removed_;
    bytesLeft_ -= deducted;
    bytesHeld_ -= size;
  }
  return seq;
}

unsigned JitterBuffer::popbytes(char *buf, unsigned *len) {
  unsigned room = len != nullptr ? *len : GetMaxPacketSize();
  int done = 0;
  unsigned const seq = CLBuffer::first(0, buf, &room, nullptr, 1, &done);
  if (len != nullptr)
    *len = room;
  if (done)
    ++removed_;
  if (seq != 0) {
    bytesLeft_ -= room;  // the true count, unlike remove and popfirst
    bytesHeld_ -= room;
  }
  return seq;
}

void JitterBuffer::flush() {
  lastSeq_ = 0;
  lost_ = 0;
  inserted_ = 0;
  removed_ = 0;
  bytesLeft_ = 0;
  bytesHeld_ = 0;
  erase_all();
}

unsigned JitterBuffer::GetPercFull() const {
  if (capacity_ == 0)
    return 0;
  return GetnPacketsLeft() * 100u / capacity_;
}

void JitterBuffer::GetInfo(unsigned *left, unsigned *percFull, unsigned *lost, unsigned *inserted,
                           unsigned *removed) const {
  if (left != nullptr)
    *left = GetnPacketsLeft();
  if (percFull != nullptr)
    *percFull = GetPercFull();
  if (lost != nullptr)
    *lost = GetnPacketsLost();
  if (inserted != nullptr)
    *inserted = GetnPacketsInserted();
  if (removed != nullptr)
    *removed = GetnPacketsRemoved();
}
