#include "sockbuf/SockBuf_reg.h"

#include "platform/Clock.h"
#include "sockbuf/ISockBufOwner.h"
#include "sockbuf/SockBuf_defrag.h"
#include "sockbuf/SockBuf_reg2.h"
#include "sockbuf/detail/MediaPkt.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace {

using shared::SemGuard;
namespace pkt = shared::sockbuf::detail;

// Leaves the reader gate on every path out of GetData.
class GateExit {
 public:
  explicit GateExit(_SEMAPHORE& gate) : gate_(gate) {}
  ~GateExit() { gate_.Signal(); }
  GateExit(GateExit const&) = delete;
  GateExit& operator=(GateExit const&) = delete;

 private:
  _SEMAPHORE& gate_;
};

}  // namespace

BufVectorReg::~BufVectorReg() = default;

void SockBuf_reg::Rate::Count(std::int64_t now, unsigned len) {
  if (now != second) {
    // Only a second directly after the counted one has a meaningful rate.
    kbps = now == second + 1 ? static_cast<unsigned>((std::uint64_t{bytes} * 8) >> 10) : 0;
    second = now;
    bytes = 0;
  }
  bytes += len;
}

unsigned SockBuf_reg::Rate::Get(std::int64_t now) {
  if (now > second + 1) {
    *this = Rate{};
    return 0;
  }
  return kbps;
}

namespace {
// Room behind the window for the read offset to run ahead before the live
// bytes must move: a compaction then always frees more than it copies.
// 0 when twice the window is not addressable.
std::size_t PhysicalSize(unsigned capacity) {
  std::uint64_t const bytes = std::uint64_t{capacity} * 2;
  auto const size = static_cast<std::size_t>(bytes);
  return size == bytes ? size : 0;
}
}  // namespace

SockBuf_reg::SockBuf_reg(unsigned size, int growable)
    : growable_(size != 0 ? growable : 0),
      stageGate_(3, 1, 0, _SEMAPHORE::kInfinite, -1),
      readerGate_(1, 1, 0, _SEMAPHORE::kInfinite, -1),
      lock_(3, 1, 0, _SEMAPHORE::kInfinite, -1),
      dataReady_(1, 1, 0, _SEMAPHORE::kInfinite, 0) {
  if (std::size_t const physical = PhysicalSize(size)) {
    buffer_ = static_cast<unsigned char*>(std::calloc(physical, 1));
    if (buffer_) {
      capacity_ = size;
      physical_ = physical;
    }
  }
  flush();
}

SockBuf_reg::~SockBuf_reg() {
  reset();
  std::free(buffer_);
}

int SockBuf_reg::IsOk() {
  return stageGate_.IsOk() && readerGate_.IsOk() && lock_.IsOk() && dataReady_.IsOk() ? 1 : 0;
}

// --- storing -----------------------------------------------------------------

unsigned SockBuf_reg::IsPacketRdy() {
  for (;;) {
    unsigned const used = tail_ - head_;
    if (!buffer_ || used < pkt::kHeaderLen)
      return 0;
    unsigned const len = pkt::PktLen(buffer_ + head_);
    if (used < len)
      return 0;
    if (mediaFilter_ == 0 || mediaFilter_ == pkt::PktMediaId(buffer_ + head_))
      return len;
    RemoveFront(len);
  }
}

void SockBuf_reg::RemoveFront(unsigned len) {
  head_ += len;
  if (head_ == tail_)
    head_ = tail_ = 0;  // emptied: the next save starts at the front again
}

// Makes room for len more bytes behind the live ones (lock held; the caller
// has checked that they fit the window). The live bytes move to the front
// only when the tail would run off the buffer; by then more bytes were
// consumed than are live, so the copy is paid for by earlier reads.
void SockBuf_reg::MakeRoom(unsigned len) {
  if (std::size_t{tail_} + len > physical_)
    Compact();
}

void SockBuf_reg::Compact() {
  if (head_ == 0)
    return;
  std::memmove(buffer_, buffer_ + head_, tail_ - head_);
  tail_ -= head_;
  head_ = 0;
}

// Grows a growable register so that the window holds exactly needed bytes.
// Lock held. false when the memory is not there (the window is unchanged).
bool SockBuf_reg::Grow(unsigned needed) {
  std::size_t const physical = PhysicalSize(needed);
  if (physical == 0)
    return false;
  Compact();
  auto* grown = static_cast<unsigned char*>(std::realloc(buffer_, physical));
  if (!grown)
    return false;
  buffer_ = grown;
  physical_ = physical;
  capacity_ = needed;
  return true;
}

int SockBuf_reg::SaveData(void* buf, unsigned len) {
  if (aborted_.load() || !opened_.load())
    return 0;
  bool wake = false;
  int stored = 0;
  {
    SemGuard guard(lock_);
    stored = SaveLocked(buf, len, shared::platform::NowSeconds());
    wake = ClaimWaitingReader();
  }
  // Signalled after the data lock is left: a reader woken under it would
  // only collide with the lock and sleep again.
  if (wake)
    dataReady_.Signal();
  return stored;
}

// A reader taking packets meanwhile meets the lock once per run instead of
// once per packet, and each meeting costs both threads a cache miss or a
// sleep.
unsigned SockBuf_reg::SavePackets(void const* buf, unsigned len) {
  if (aborted_.load() || !opened_.load() || !buf)
    return 0;
  auto const* p = static_cast<unsigned char const*>(buf);
  unsigned stored = 0;
  bool wake = false;
  {
    SemGuard guard(lock_);
    std::int64_t const now = shared::platform::NowSeconds();
    while (len >= pkt::kHeaderLen) {
      unsigned const size = pkt::PktLen(p);
      if (size < pkt::kHeaderLen || size > len)
        break;
      stored += static_cast<unsigned>(SaveLocked(p, size, now));
      p += size;
      len -= size;
    }
    wake = ClaimWaitingReader();
  }
  if (wake)
    dataReady_.Signal();
  return stored;
}

// Lock held.
int SockBuf_reg::SaveLocked(void const* buf, unsigned len, std::int64_t now) {
  if (aborted_.load() || !opened_.load() || !buffer_ || !buf || len == 0)
    return 0;
  if (idleFlushSeconds_ != 0 && lastSave_ != 0 && now > lastSave_ + idleFlushSeconds_)
    FlushLocked();  // the stream was idle: what is held is stale
  std::uint64_t const needed = std::uint64_t{tail_ - head_} + len;
  if (needed > capacity_ && growable_ && needed <= std::numeric_limits<unsigned>::max())
    Grow(static_cast<unsigned>(needed));
  if (needed > capacity_) {
    // Drop everything, not just the new packet: a consumer that fell this far
    // behind is better served by fresh data.
    FlushLocked();
    return 0;
  }
  MakeRoom(len);
  std::memcpy(buffer_ + tail_, buf, len);
  tail_ += len;
  save_.Count(now, len);
  lastSave_ = now;
  return 1;
}

bool SockBuf_reg::ClaimWaitingReader() {
  if (holdWake_ || !readerWaiting_ || IsPacketRdy() == 0)
    return false;
  readerWaiting_ = 0;
  return true;
}

void SockBuf_reg::HoldWake(int on) {
  bool wake;
  {
    SemGuard guard(lock_);
    holdWake_ = on;
    wake = ClaimWaitingReader();
  }
  if (wake)
    dataReady_.Signal();
}

// --- taking ------------------------------------------------------------------

int SockBuf_reg::TakePacket(void* buf, unsigned* pLen) {
  unsigned char const* const front = buffer_ + head_;
  unsigned const len = pkt::PktLen(front);
  int result = 0;
  if (buf && pLen && *pLen >= len) {
    ++pktRcv_;
    unsigned const seq = pkt::PktSeq(front);
    if (mediaFilter_ != 0 && lastSeq_ != 0 && std::uint64_t{seq} > std::uint64_t{lastSeq_} + 1)
      pktLost_ += seq - lastSeq_ - 1;
    lastSeq_ = seq;
    std::memcpy(buf, front, len);
    *pLen = len;
    read_.Count(shared::platform::NowSeconds(), len);
    result = 1;
  }
  RemoveFront(len);
  return result;
}

int SockBuf_reg::GetData(void* buf, unsigned* pLen) {
  bool ordered = false;
  return TakeNext(buf, pLen, &ordered);
}

// GetData, also telling whether an ordering stage was hung behind the
// register when the packet was taken, so that Read needs the data lock only
// once per packet: the read thread saves under the same lock.
int SockBuf_reg::TakeNext(void* buf, unsigned* pLen, bool* ordered) {
  wouldBlock_.store(0);
  if (aborted_.load() || !opened_.load())
    return 0;
  readerGate_.Wait();
  GateExit gateExit(readerGate_);
  if (aborted_.load() || !opened_.load())
    return 0;
  if (buf && pLen && *pLen != 0)
    static_cast<unsigned char*>(buf)[0] = 0;

  SemGuard guard(lock_);
  for (;;) {
    // Checked under the lock, so an Abort either is seen here or finds
    // readerWaiting_ set and signals.
    if (aborted_.load() || !opened_.load())
      return 0;
    if (IsPacketRdy() != 0) {
      *ordered = ordering_ != nullptr;
      return TakePacket(buf, pLen);
    }
    if (!block_.load()) {
      wouldBlock_.store(1);
      return 0;
    }
    readerWaiting_ = 1;
    lock_.Signal();
    dataReady_.Wait();
    lock_.Wait();
    // Woken by a save, a close or an abort. A flush between the signal and
    // here may have taken the packet again: wait on rather than fail a
    // blocking read of a stream that is still open.
  }
}

HRESULT __stdcall SockBuf_reg::Read(void* buf, unsigned len, unsigned* pRead) {
  ISockBufOwner* const owner = owner_.load();
  if (aborted_.load() || !owner)
    return STG_E_INVALIDPOINTER;
  if (owner->IsSockError())
    return STG_E_INCOMPLETE;
  if (!opened_.load())
    return STG_E_ACCESSDENIED;
  unsigned n = len;
  bool ordered = false;
  if (TakeNext(buf, &n, &ordered)) {
    // With an ordering stage the stage forwards what it delivers instead.
    if (!ordered) {
      if (ISockBuffExt* writer = owner->GetPktMWObj()) {
        unsigned written = 0;
        writer->WriteExt(buf, n, &written, 0);
      }
    }
    if (pRead)
      *pRead = n;
    return S_OK;
  }
  if (wouldBlock_.load())
    return STG_S_BLOCK;
  // Abort also closes: report the abort, as a call made after it would.
  if (aborted_.load())
    return STG_E_INVALIDPOINTER;
  if (!opened_.load())
    return STG_E_ACCESSDENIED;
  return STG_E_INVALIDPOINTER;
}

HRESULT __stdcall SockBuf_reg::ReadExt(void* buf, unsigned len, unsigned* pRead, int* pFlag) {
  if (pFlag)
    *pFlag = 0;
  return Read(buf, len, pRead);
}

// --- state -------------------------------------------------------------------

int SockBuf_reg::OpenUrl() {
  if (aborted_.load())
    return 0;
  if (opened_.load())
    return 1;
  ISockBufOwner* owner = GetSockBuffs();
  if (owner && !owner->OpenUrl())
    return 0;
  SemGuard guard(lock_);
  if (aborted_.load())
    return 0;
  opened_.store(1);
  return 1;
}

int SockBuf_reg::CloseUrl() {
  int wasOpened;
  {
    SemGuard guard(lock_);
    wasOpened = opened_.exchange(0);
  }
  if (wasOpened && !aborted_.load()) {
    ResetWaitingForData();
    flush();
    if (ISockBufOwner* owner = GetSockBuffs())
      owner->VerifyConnection();
  }
  return 1;
}

void SockBuf_reg::ResetWaitingForData() {
  SemGuard guard(lock_);
  if (readerWaiting_) {
    readerWaiting_ = 0;
    dataReady_.Signal();
  }
}

int SockBuf_reg::IsWaitingForData() {
  SemGuard guard(lock_);
  return readerWaiting_;
}

void SockBuf_reg::flush() {
  SemGuard guard(lock_);
  FlushLocked();
}

void SockBuf_reg::FlushLocked() {
  if (defrag_)
    defrag_->reset();
  if (ordering_)
    ordering_->reset();
  if (buffer_ && capacity_ != 0)
    buffer_[0] = 0;
  head_ = 0;
  tail_ = 0;
  save_ = Rate{};
  read_ = Rate{};
  lastSave_ = 0;
  tsFirstPkt_ = 0;
  tickFirstPkt_ = 0;
}

void SockBuf_reg::Abort() {
  {
    SemGuard guard(lock_);
    aborted_.store(1);
  }
  CloseUrl();
  ResetWaitingForData();
  // Pass the gate once: a reader inside GetData has left when this returns.
  readerGate_.Wait();
  readerGate_.Signal();
}

void SockBuf_reg::reset() {
  // Abort passes the reader gate, which comes before the data lock: it must
  // run before the lock is taken, or a reader holding the gate and waiting
  // for the lock would deadlock with it.
  Abort();
  SemGuard stages(stageGate_);
  SemGuard guard(lock_);
  FlushLocked();
  id_ = 0;
  mediaFilter_ = 0;
  holdWake_ = 0;
  pktRcv_ = 0;
  pktLost_ = 0;
  lastSeq_ = 0;
  opened_.store(0);
  DestroyStages();
  if (saveFile_) {
    std::fclose(saveFile_);
    saveFile_ = nullptr;
  }
  aborted_.store(0);
}

void SockBuf_reg::DestroyStages() {
  delete defrag_;
  defrag_ = nullptr;
  delete ordering_;
  ordering_ = nullptr;
}

// --- options and accessors -----------------------------------------------------

int SockBuf_reg::SetOptions(unsigned a1, unsigned a2, unsigned idleSeconds, int defrag,
                            unsigned defragParam) {
  SemGuard guard(lock_);
  idleFlushSeconds_ = idleSeconds;
  if (a1 == 0 || (a2 == 0 && defrag == 0))
    return 1;
  if (!ordering_) {
    ordering_ = new (std::nothrow) SockBuf_reg2();
    if (!ordering_)
      return 0;
    if (!ordering_->SetOptions(this, a1, a2)) {
      // A stage that never became usable would only make reads fail.
      DestroyStages();
      return 0;
    }
  } else if (!ordering_->SetOptions(this, a1, a2)) {
    return 0;
  }
  if (defrag && !defrag_) {
    defrag_ = new (std::nothrow) SockBuf_defrag(ordering_, defragParam);
    if (!defrag_)
      return 0;
  }
  return 1;
}

ISockBuffExt* SockBuf_reg::GetObj() {
  SemGuard guard(lock_);
  if (defrag_)
    return defrag_;
  if (ordering_)
    return ordering_;
  return this;
}

ISockBuffExt* SockBuf_reg::GetPktMWObj() {
  ISockBufOwner* owner = GetSockBuffs();
  return owner ? owner->GetPktMWObj() : nullptr;
}

int SockBuf_reg::SetnPktWaitForDelayed(unsigned n) {
  SemGuard guard(lock_);
  if (!ordering_)
    return 0;
  ordering_->SetnPktWaitForDelayed(n);
  return 1;
}

void SockBuf_reg::SetMediaId(unsigned id) {
  SemGuard guard(lock_);
  mediaFilter_ = id;
  lastSeq_ = 0;  // the next packet starts a new count of gaps
}

unsigned SockBuf_reg::GetMediaId() {
  SemGuard guard(lock_);
  return mediaFilter_;
}

void SockBuf_reg::SetId(unsigned id) {
  SemGuard guard(lock_);
  id_ = id;
}

unsigned SockBuf_reg::GetId() {
  SemGuard guard(lock_);
  return id_;
}

void SockBuf_reg::SetSockBuffs(ISockBufOwner* owner) {
  SemGuard guard(lock_);
  owner_.store(owner);
}

ISockBufOwner* SockBuf_reg::GetSockBuffs() { return owner_.load(); }

int SockBuf_reg::CanDefrag() {
  SemGuard guard(lock_);
  return defrag_ ? 1 : 0;
}

int SockBuf_reg::IsSockError() {
  ISockBufOwner* owner = GetSockBuffs();
  return owner ? owner->IsSockError() : 0;
}

unsigned SockBuf_reg::GetnPktRcv() {
  SemGuard guard(lock_);
  return pktRcv_;
}

unsigned SockBuf_reg::GetnPktLost() {
  SemGuard guard(lock_);
  return pktLost_;
}

void* SockBuf_reg::GetBufPtr() {
  SemGuard guard(lock_);
  return buffer_ ? buffer_ + head_ : nullptr;
}

unsigned SockBuf_reg::GetBytesLeft() {
  SemGuard guard(lock_);
  return capacity_ - (tail_ - head_);
}

unsigned SockBuf_reg::GetBytesUsed() {
  SemGuard guard(lock_);
  return tail_ - head_;
}

unsigned SockBuf_reg::GetMaxBufLen() {
  SemGuard guard(lock_);
  return capacity_;
}

void SockBuf_reg::SetTSFstPkt(unsigned ts) {
  SemGuard guard(lock_);
  tsFirstPkt_ = ts;
  tickFirstPkt_ = ts != 0 ? shared::platform::TickCount() : 0;
}

void SockBuf_reg::GetTSFstPkt(unsigned* ts, unsigned* tick) {
  SemGuard guard(lock_);
  if (ts)
    *ts = tsFirstPkt_;
  if (tick)
    *tick = tickFirstPkt_;
}

unsigned SockBuf_reg::GetReadBitrate() {
  SemGuard guard(lock_);
  return read_.Get(shared::platform::NowSeconds());
}

unsigned SockBuf_reg::GetSaveBitrate() {
  SemGuard guard(lock_);
  return save_.Get(shared::platform::NowSeconds());
}

void SockBuf_reg::SetSaveFile(std::FILE* file) {
  SemGuard guard(lock_);
  saveFile_ = file;
}

std::FILE* SockBuf_reg::GetSaveFile() {
  SemGuard guard(lock_);
  return saveFile_;
}
