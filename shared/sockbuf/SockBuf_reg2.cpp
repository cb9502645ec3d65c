#include "sockbuf/SockBuf_reg2.h"

#include "media/JitterBuffer.h"
#include "sockbuf/ISockBufOwner.h"
#include "sockbuf/SockBuf_reg.h"
#include "sockbuf/detail/MediaPkt.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {
using shared::SemGuard;
namespace pkt = shared::sockbuf::detail;
constexpr unsigned kJitterSlots = 20;
}  // namespace

SockBuf_reg2::SockBuf_reg2() = default;

SockBuf_reg2::~SockBuf_reg2() { delete jitter_; }

int SockBuf_reg2::SetOptions(SockBuf_reg* source, unsigned jitterSize, unsigned waitCount) {
  if (enabled_.load() || jitter_)
    return enabled_.load();
  if (!source || jitterSize == 0)
    return 0;
  jitter_ = new (std::nothrow) JitterBuffer(kJitterSlots, jitterSize);
  if (!jitter_)
    return 0;
  if (!jitter_->IsOk()) {
    delete jitter_;
    jitter_ = nullptr;
    return 0;
  }
  scratch_.resize(jitter_->GetMaxPacketSize());
  SemGuard guard(source->lock_);
  source_ = source;
  jitterSize_ = jitterSize;
  waitCount_ = waitCount;
  enabled_.store(1);
  return 1;
}

void SockBuf_reg2::SetnPktWaitForDelayed(unsigned n) {
  if (!source_) {
    waitCount_ = n;
    return;
  }
  SemGuard guard(source_->lock_);
  waitCount_ = n;
}

unsigned SockBuf_reg2::GetnPktWaitForDelayed() {
  if (!source_)
    return waitCount_;
  SemGuard guard(source_->lock_);
  return waitCount_;
}

void SockBuf_reg2::SetBlock(int on) {
  if (source_)
    source_->SetBlock(on);
}

int SockBuf_reg2::CanBlock() { return source_ ? source_->CanBlock() : 0; }

int SockBuf_reg2::CanAbort() { return source_ ? source_->CanAbort() : 0; }

void SockBuf_reg2::Abort() {
  if (source_)
    source_->Abort();
}

void SockBuf_reg2::reset() {
  if (!enabled_.load())
    return;
  SemGuard guard(source_->lock_);
  ResetLocked();
}

void SockBuf_reg2::ResetLocked() {
  jitter_->flush();
  lowest_ = highest_ = next_ = mediaId_ = 0;
}

int SockBuf_reg2::OpenUrl() { return source_ ? source_->OpenUrl() : 0; }
int SockBuf_reg2::CloseUrl() { return source_ ? source_->CloseUrl() : 1; }
int SockBuf_reg2::IsOpened() { return source_ ? source_->IsOpened() : 0; }
unsigned SockBuf_reg2::GetnPktRcv() { return source_ ? source_->GetnPktRcv() : 0; }

unsigned SockBuf_reg2::GetnPktLost() {
  if (!source_)
    return 0;
  SemGuard guard(source_->lock_);
  return lost_;
}

// --- ordering ----------------------------------------------------------------

int SockBuf_reg2::CanSendPkt(void const* p, unsigned len, int* pInvalid) {
  *pInvalid = 0;
  if (len < pkt::kHeaderLen || len < pkt::PktLen(p)) {
    *pInvalid = 1;
    return 0;
  }
  unsigned const mediaId = pkt::PktMediaId(p);
  unsigned const seq = pkt::PktSeq(p);
  if (mediaId != mediaId_) {
    ResetLocked();
    mediaId_ = mediaId;
  }
  if (next_ == 0 || seq == next_) {
    next_ = seq + 1;
    return 1;
  }
  // Hold it while earlier numbers may still come: nothing held to overtake,
  // late, among the held ones, or not yet wait count below the highest.
  if (jitter_->GetnPacketsLeft() == 0 || seq < next_ || seq >= lowest_ || highest_ - seq < waitCount_)
    return 0;
  // Far enough below what is held: the numbers before it are given up.
  lost_ += seq - next_;
  next_ = seq + 1;
  return 1;
}

void SockBuf_reg2::SaveData(void const* p, unsigned len) {
  unsigned const seq = pkt::PktSeq(p);
  if (next_ != 0 && seq < next_ && next_ - seq > waitCount_) {
    // Too far back to be a late packet: the stream restarted.
    unsigned const mediaId = mediaId_;
    ResetLocked();
    mediaId_ = mediaId;
  }
  if (next_ != 0 && seq < next_)
    return;  // late: its turn has passed
  if (len > jitter_->GetMaxPacketSize())
    return;  // the jitter buffer would cut it
  if (!jitter_->insert(seq, static_cast<char const*>(p), len))
    return;
  highest_ = std::max(highest_, seq);
  UpdateLowest();
}

void SockBuf_reg2::UpdateLowest() {
  unsigned size = 0;
  lowest_ = jitter_->getszdata(0, &size);
  if (lowest_ == 0)
    highest_ = 0;
}

unsigned SockBuf_reg2::GetData(void* buf, unsigned len) {
  if (jitter_->GetnPacketsLeft() == 0)
    return 0;
  // next_ 0: the stream (re)starts with what is held, nothing is missing yet.
  if (next_ != 0 && next_ != lowest_) {
    if (highest_ - next_ <= waitCount_)
      return 0;  // the missing packet may still come
    unsigned const target = std::min(lowest_, highest_ - waitCount_);
    lost_ += target - next_;
    next_ = target;
    if (next_ != lowest_)
      return 0;
  }
  unsigned n = static_cast<unsigned>(scratch_.size());
  unsigned const seq = jitter_->popfirst(scratch_.data(), &n);
  next_ = seq + 1;
  UpdateLowest();
  if (n > len)
    return 0;  // too big for the reader: dropped, as the register does
  std::memcpy(buf, scratch_.data(), n);
  return n;
}

HRESULT SockBuf_reg2::ReadSource(void* buf, unsigned len, unsigned* n) {
  for (;;) {
    HRESULT const r = source_->Read(buf, len, n);
    if (r == S_OK || r == STG_S_BLOCK || source_->CanAbort())
      return r;
    // The source dropped a packet too big for buf: read on. Anything else
    // (closed, socket error, no owner) lasts, so looping would spin.
    if (r != STG_E_INVALIDPOINTER || !source_->IsOpened() || !source_->GetSockBuffs())
      return r;
  }
}

HRESULT SockBuf_reg2::Deliver(void const* buf, unsigned n, unsigned* pRead) {
  if (!source_->CanDefrag()) {
    if (ISockBuffExt* writer = source_->GetPktMWObj()) {
      unsigned written = 0;
      writer->WriteExt(buf, n, &written, 0);
    }
  }
  if (pRead)
    *pRead = n;
  return S_OK;
}

HRESULT __stdcall SockBuf_reg2::Read(void* buf, unsigned len, unsigned* pRead) {
  if (!enabled_.load() || !buf)
    return STG_E_INVALIDPOINTER;
  if (!source_->IsOpened())
    return STG_E_ACCESSDENIED;
  SemGuard consumers(source_->stageGate_);
  for (;;) {
    if (source_->CanAbort())
      return STG_E_INVALIDPOINTER;
    unsigned n = 0;
    {
      SemGuard guard(source_->lock_);
      n = GetData(buf, len);
    }
    if (n != 0)
      return Deliver(buf, n, pRead);
    HRESULT const r = ReadSource(buf, len, &n);
    if (r != S_OK)
      return r;
    {
      // Decided under the lock, delivered without it: the packet writer is
      // the owner's and may take the owner's lock.
      SemGuard guard(source_->lock_);
      int invalid = 0;
      if (!CanSendPkt(buf, n, &invalid)) {
        if (!invalid)
          SaveData(buf, n);
        n = invalid ? 0 : GetData(buf, len);
      }
    }
    if (n != 0)
      return Deliver(buf, n, pRead);
  }
}

HRESULT __stdcall SockBuf_reg2::ReadExt(void* buf, unsigned len, unsigned* pRead, int* pFlag) {
  if (pFlag)
    *pFlag = 0;
  return Read(buf, len, pRead);
}
