#include "media/BinBuf.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

constexpr unsigned long kForever = static_cast<unsigned long>(-1);

}  // namespace

// ---------------------------------------------------------------------------
// BinBuf_reg

BinBuf_reg::BinBuf_reg(unsigned size, int canRealloc, int canBlock, int waitForAll)
    : canRealloc_(canRealloc ? 1 : 0),
      canBlock_(canBlock ? 1 : 0),
      waitForAll_(waitForAll ? 1 : 0),
      lock_(3, 1, 0, kForever, -1),
      readerLock_(3, 1, 0, kForever, -1) {
  if (canBlock_)
    dataSignal_.reset(new (std::nothrow) _SEMAPHORE(1, 1, 0, kForever, 0));
  if (size == 0 || !lock_.IsOk() || !readerLock_.IsOk() || (canBlock_ && !dataSignal_))
    return;
  char *buffer = new (std::nothrow) char[size]();
  if (!buffer)
    return;
  buffer_.store(buffer);
  size_.store(size);
  BinBuf_reg::reset();
}

BinBuf_reg::~BinBuf_reg() { delete[] buffer_.load(); }

int BinBuf_reg::IsOk() { return buffer_.load(std::memory_order_relaxed) != nullptr; }

void BinBuf_reg::reset() {
  shared::SemGuard guard(lock_, "BinBuf_reg::reset");
  aborted_.store(0);
  enabled_.store(1);
  used_.store(0);
  head_.store(0);
}

void BinBuf_reg::Abort() {
  reset();
  shared::SemGuard guard(lock_, "BinBuf_reg::Abort");
  aborted_.store(1);
  ResetWaitingForData();
}

void BinBuf_reg::ResetWaitingForData() {
  if (dataSignal_ && readerWaiting_) {
    dataSignal_->Signal("BinBuf_reg data");
    readerWaiting_ = 0;
    wanted_ = 0;
  }
}

void *BinBuf_reg::GetBufPtr() {
  return buffer_.load(std::memory_order_relaxed) + head_.load(std::memory_order_relaxed);
}

unsigned BinBuf_reg::GetBytesUsed() { return used_.load(std::memory_order_relaxed); }

unsigned BinBuf_reg::GetBytesLeft() {
  // Size first: it only grows, so the difference never wraps.
  unsigned size = size_.load();
  unsigned used = used_.load();
  return used > size ? 0 : size - used;
}

int BinBuf_reg::IsEnable() { return enabled_.load(std::memory_order_relaxed); }

int BinBuf_reg::SetEnable(int on) {
  enabled_.store(on ? 1 : 0);
  return 1;
}

int BinBuf_reg::SaveData(void *data, unsigned len) {
  if (!IsOk() || !enabled_.load() || aborted_.load() || !data || len == 0)
    return 0;
  shared::SemGuard guard(lock_, "BinBuf_reg::SaveData");
  if (!enabled_.load() || aborted_.load())
    return 0;

  char *buffer = buffer_.load();
  unsigned const used = used_.load();
  unsigned const size = size_.load();
  unsigned head = head_.load();
  bool const overflows = len > 0xFFFFFFFFu - used;
  // A growable register grows when the bytes held would not fit, and also
  // when only moving them to the front would make room but they outnumber
  // the bytes already read (moving them would cost more than the reads that
  // made the gap). It doubles, so reaching n bytes copies O(n) in all.
  bool const fitsAtBack = !overflows && std::uint64_t{head} + used + len <= size;
  if (!overflows && !fitsAtBack && canRealloc_ && (used + len > size || head < used)) {
    std::uint64_t grown = std::max<std::uint64_t>(std::uint64_t{used} + len, std::uint64_t{size} * 2);
    grown = std::min<std::uint64_t>(grown, 0xFFFFFFFFu);
    char *bigger = new (std::nothrow) char[static_cast<std::size_t>(grown)];
    if (bigger) {
      std::memcpy(bigger, buffer + head, used);
      delete[] buffer;
      buffer = bigger;
      head = 0;
      buffer_.store(bigger);
      head_.store(0);
      size_.store(static_cast<unsigned>(grown));
    }
  }
  int saved = 0;
  if (!overflows && used + len <= size_.load()) {
    if (std::uint64_t{head} + used + len > size_.load()) {
      std::memmove(buffer, buffer + head, used);
      head = 0;
      head_.store(0);
    }
    std::memcpy(buffer + head + used, data, len);
    used_.store(used + len);
    saved = 1;
  }
  // Even a refused write may leave enough for a reader that wants any data.
  if (readerWaiting_ && (wanted_ == 0 || used_.load() >= wanted_))
    ResetWaitingForData();
  return saved;
}

// A wait-for-all read of more than a fixed-size register can ever hold would
// wait for ever; such a read waits for a full register instead and returns
// what it holds.
int BinBuf_reg::GetData(void *buf, unsigned *len) {
  if (!IsOk() || aborted_.load() || !enabled_.load() || !len || *len == 0)
    return 0;
  shared::SemGuard reader(readerLock_, "BinBuf_reg::GetData reader");
  if (aborted_.load() || !enabled_.load())
    return 0;
  lock_.Wait(1, "BinBuf_reg::GetData");
  for (;;) {
    // Checked under the lock before every wait: an Abort that ran between
    // the check above and taking the lock found no reader waiting to wake,
    // and nothing else would wake this one (writes are refused from then on).
    if (aborted_.load()) {
      lock_.Signal("BinBuf_reg::GetData");
      return 0;
    }
    unsigned const used = used_.load();
    unsigned enough = *len;
    if (!canRealloc_ && enough > size_.load())
      enough = size_.load();
    if (used >= enough || (used > 0 && !waitForAll_))
      break;
    if (!canBlock_) {
      lock_.Signal("BinBuf_reg::GetData");
      return 0;
    }
    if (waitForAll_)
      wanted_ = enough;
    readerWaiting_ = 1;
    lock_.Signal("BinBuf_reg::GetData");
    dataSignal_->Wait(1, "BinBuf_reg data");
    if (aborted_.load())
      return 0;
    lock_.Wait(1, "BinBuf_reg::GetData");
  }

  char *buffer = buffer_.load();
  unsigned const used = used_.load();
  unsigned const head = head_.load();
  unsigned const n = used < *len ? used : *len;
  if (buf)
    std::memcpy(buf, buffer + head, n);
  // The front moves on; the rest stays where it is (SaveData moves it when
  // it needs the room).
  head_.store(n == used ? 0 : head + n);
  used_.store(used - n);
  *len = n;
  lock_.Signal("BinBuf_reg::GetData");
  return 1;
}

// ---------------------------------------------------------------------------
// BufVectorT<BinBuf_reg>

BufVectorT<BinBuf_reg>::BufVectorT(unsigned initial, unsigned regSize) : regSize_(regSize) {
  if (regSize_ == 0)
    return;
  try {
    active_.reserve(initial);
    spare_.reserve(initial);
    ok_ = 1;
  } catch (std::bad_alloc const &) {
    ok_ = 0;
  }
}

BufVectorT<BinBuf_reg>::~BufVectorT() { reset(); }

unsigned BufVectorT<BinBuf_reg>::append() {
  if (!ok_)
    return 0;
  BinBuf_reg *reg = nullptr;
  bool fromSpare = false;
  if (!spare_.empty()) {
    reg = spare_.back();
    spare_.pop_back();
    fromSpare = true;
  } else {
    reg = new (std::nothrow) BinBuf_reg(regSize_, 0, 0, 0);
    if (!reg)
      return 0;
  }
  if (!reg->IsOk()) {
    delete reg;
    return 0;
  }
  try {
    active_.push_back(reg);
  } catch (std::bad_alloc const &) {
    if (fromSpare)
      spare_.push_back(reg);  // cannot throw: the slot it came from is still reserved
    else
      delete reg;
    return 0;
  }
  return static_cast<unsigned>(active_.size());
}

BinBuf_reg *BufVectorT<BinBuf_reg>::search(unsigned id) {
  if (!ok_ || id == 0 || id > active_.size())
    return nullptr;
  return active_[id - 1];
}

int BufVectorT<BinBuf_reg>::erase(unsigned id) {
  BinBuf_reg *reg = search(id);
  if (!reg)
    return 0;
  reg->reset();
  active_.erase(active_.begin() + (id - 1));
  try {
    spare_.push_back(reg);
  } catch (std::bad_alloc const &) {
    delete reg;
  }
  return 1;
}

int BufVectorT<BinBuf_reg>::SaveData(unsigned id, void *data, unsigned len) {
  BinBuf_reg *reg = search(id);
  return reg ? reg->SaveData(data, len) : 0;
}

int BufVectorT<BinBuf_reg>::GetData(unsigned id, void *buf, unsigned *len) {
  BinBuf_reg *reg = search(id);
  return reg ? reg->GetData(buf, len) : 0;
}

void *BufVectorT<BinBuf_reg>::GetBufPtr(unsigned id) {
  BinBuf_reg *reg = search(id);
  return reg ? reg->GetBufPtr() : nullptr;
}

unsigned BufVectorT<BinBuf_reg>::GetBytesLeft(unsigned id) {
  BinBuf_reg *reg = search(id);
  return reg ? reg->GetBytesLeft() : 0;
}

unsigned BufVectorT<BinBuf_reg>::GetBytesUsed(unsigned id) {
  BinBuf_reg *reg = search(id);
  return reg ? reg->GetBytesUsed() : 0;
}

int BufVectorT<BinBuf_reg>::IsEnable(unsigned id) {
  BinBuf_reg *reg = search(id);
  return reg ? reg->IsEnable() : 0;
}

int BufVectorT<BinBuf_reg>::SetEnable(unsigned id, int on) {
  BinBuf_reg *reg = search(id);
  return reg ? reg->SetEnable(on) : 0;
}

BinBuf_reg *BufVectorT<BinBuf_reg>::first() {
  walk_ = 0;
  return next();
}

BinBuf_reg *BufVectorT<BinBuf_reg>::next() {
  if (walk_ >= active_.size())
    return nullptr;
  return active_[walk_++];
}

void BufVectorT<BinBuf_reg>::reset() {
  for (BinBuf_reg *reg : active_)
    delete reg;
  for (BinBuf_reg *reg : spare_)
    delete reg;
  active_.clear();
  spare_.clear();
  walk_ = 0;
}

// ---------------------------------------------------------------------------
// BinBufVect

BinBufVect::BinBufVect(unsigned initial, unsigned regSize) : BufVectorT<BinBuf_reg>(initial, regSize) {}

int BinBufVect::SaveData(unsigned id, char *data, unsigned len) {
  return BufVectorT<BinBuf_reg>::SaveData(id, data, len);
}

int BinBufVect::GetData(unsigned id, char *buf, unsigned len) {
  return BufVectorT<BinBuf_reg>::GetData(id, buf, &len);
}
