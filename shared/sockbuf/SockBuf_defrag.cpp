#include "sockbuf/SockBuf_defrag.h"

#include "sockbuf/SockBuf_reg.h"
#include "sockbuf/SockBuf_reg2.h"
#include "sockbuf/detail/MediaPkt.h"

#include <cstdlib>
#include <cstring>

namespace {
using shared::SemGuard;
namespace pkt = shared::sockbuf::detail;

constexpr unsigned kPacketBufLen = 0xFFFF;
constexpr unsigned char kWholeFrame = 0x10;
constexpr unsigned char kClearedOnOutput = 0x20;
constexpr unsigned char kLongCountType = 23;

unsigned HeaderLenOf(unsigned mode) {
  static constexpr unsigned kLens[4] = {12, 14, 20, 22};
  return kLens[mode & 3];
}
}  // namespace

SockBuf_defrag::SockBuf_defrag(SockBuf_reg2* stage, unsigned mode)
    : enabled_(stage ? 1 : 0), mode_(mode), stage_(stage) {
  if (stage)
    packet_.resize(kPacketBufLen);
}

SockBuf_defrag::~SockBuf_defrag() { std::free(frame_); }

void SockBuf_defrag::SetBlock(int on) {
  if (stage_)
    stage_->SetBlock(on);
}
int SockBuf_defrag::CanBlock() { return stage_ ? stage_->CanBlock() : 0; }
void SockBuf_defrag::Abort() {
  if (stage_)
    stage_->Abort();
}
int SockBuf_defrag::OpenUrl() { return stage_ ? stage_->OpenUrl() : 0; }
int SockBuf_defrag::CloseUrl() { return stage_ ? stage_->CloseUrl() : 1; }
int SockBuf_defrag::IsOpened() { return stage_ ? stage_->IsOpened() : 0; }
unsigned SockBuf_defrag::GetnPktRcv() { return stage_ ? stage_->GetnPktRcv() : 0; }

unsigned SockBuf_defrag::GetnPktLost() {
  if (!stage_ || !stage_->source_)
    return lost_;
  SemGuard guard(stage_->source_->lock_);
  return lost_;
}

void SockBuf_defrag::flush() {
  if (!stage_ || !stage_->source_)
    return;  // never filled
  SemGuard guard(stage_->source_->lock_);
  FlushLocked();
}

void SockBuf_defrag::FlushLocked() {
  ClearFrame();
  lost_ = 0;
  if (frame_)
    std::memset(frame_, 0, capacity_);
}

void SockBuf_defrag::reset() {
  if (!stage_ || !stage_->source_)
    return;
  SemGuard guard(stage_->source_->lock_);
  FlushLocked();
  mediaId_ = 0;
  lastSeq_ = 0;
}

void SockBuf_defrag::ClearFrame() {
  held_ = 0;
  fragsExpected_ = 0;
  fragsHeld_ = 0;
}

// --- joining -----------------------------------------------------------------

int SockBuf_defrag::SaveData(unsigned char const* p, unsigned n) {
  unsigned const b10 = p[10];
  unsigned const dataAt = b10 == kLongCountType ? 24 : 21;
  unsigned const len = pkt::PktLen(p);
  if (n < dataAt || len < dataAt)
    return 0;
  unsigned const frameId = pkt::Le32(p + 12);
  unsigned const count = b10 == kLongCountType ? pkt::Le32(p + 20) : p[20];
  if (count == 0)
    return 0;  // a frame of no fragments could never be emitted
  if (fragsHeld_ == 0 || frameId != frameId_ || count != fragsExpected_) {
    ClearFrame();  // a partial frame whose rest never came
    frameId_ = frameId;
    fragsExpected_ = count;
    firstSeq_ = pkt::PktSeq(p);
    frameTime_ = pkt::Le32(p + 16);
    b10_ = p[10];
    b11_ = p[11];
  }
  unsigned const dataLen = len - dataAt;
  unsigned const limit = (mode_ & 1) ? kMaxFrameLen : 0xFFFFu;
  if (dataLen > limit - held_) {
    ClearFrame();
    return 0;
  }
  if (held_ + dataLen > capacity_) {
    auto* grown = static_cast<unsigned char*>(std::realloc(frame_, held_ + dataLen));
    if (!grown) {
      ClearFrame();
      return 0;
    }
    frame_ = grown;
    capacity_ = held_ + dataLen;
  }
  if (dataLen != 0)
    std::memcpy(frame_ + held_, p + dataAt, dataLen);
  held_ += dataLen;
  ++fragsHeld_;
  return 1;
}

unsigned SockBuf_defrag::GetData(unsigned char* out, unsigned room) {
  unsigned const hdr = HeaderLenOf(mode_);
  unsigned const total = hdr + held_;
  unsigned written = 0;
  if (room >= total) {
    unsigned char const b11 = b11_ & static_cast<unsigned char>(~kClearedOnOutput);
    pkt::PutLe32(out, mediaId_);
    pkt::PutLe32(out + 4, (mode_ & 2) ? firstSeq_ : frameId_);
    unsigned at = 8;
    if (mode_ & 1) {
      pkt::PutLe32(out + at, held_);
      at += 4;
    } else {
      pkt::PutLe16(out + at, held_);
      at += 2;
    }
    out[at++] = b10_;
    out[at++] = b11;
    if (mode_ & 2) {
      pkt::PutLe32(out + at, frameId_);
      pkt::PutLe32(out + at + 4, frameTime_);
    }
    if (held_ != 0)
      std::memcpy(out + hdr, frame_, held_);
    written = total;
  }
  ClearFrame();
  return written;
}

// Only mode 3 converts a whole frame; in mode 1 alone conversion refuses and
// such frames are dropped. The asymmetry is deliberate and kept: the readers
// that ask for mode 1 expect nothing but joined frames, and turning whole
// frames into 14-byte packets would hand them frames they never got before.
unsigned SockBuf_defrag::ConvertPkt(unsigned char const* p, unsigned char* out, unsigned room) {
  unsigned const payload = pkt::PktLen(p) - pkt::kHeaderLen;
  if ((mode_ & 3) != 3 || payload < 8 || room < payload + 14)
    return 0;
  unsigned const frameId = pkt::Le32(p + 12);
  pkt::PutLe32(out, pkt::PktMediaId(p));
  pkt::PutLe32(out + 4, frameId);
  pkt::PutLe32(out + 8, payload - 8);
  out[12] = p[10];
  out[13] = p[11] & static_cast<unsigned char>(~kClearedOnOutput);
  pkt::PutLe32(out + 14, frameId);
  std::memcpy(out + 18, p + 16, 4);
  std::memcpy(out + 22, p + 20, payload - 8);
  return payload + 14;
}

unsigned SockBuf_defrag::Process(unsigned char const* p, unsigned n, unsigned char* out, unsigned room) {
  if (n < pkt::kHeaderLen || n < pkt::PktLen(p))
    return 0;
  unsigned const mediaId = pkt::PktMediaId(p);
  unsigned const seq = pkt::PktSeq(p);
  unsigned const waitCount = stage_->waitCount_;
  if (mediaId != mediaId_ || (lastSeq_ != 0 && seq < lastSeq_ && lastSeq_ - seq > waitCount)) {
    // A new stream, or this one restarted.
    FlushLocked();
    mediaId_ = mediaId;
    lastSeq_ = 0;
  }
  if (lastSeq_ != 0 && seq <= lastSeq_)
    return 0;
  if (lastSeq_ != 0 && seq - lastSeq_ > 1)
    lost_ += seq - lastSeq_ - 1;
  lastSeq_ = seq;
  unsigned const len = pkt::PktLen(p);
  if (p[11] & kWholeFrame) {
    if (mode_ & 1)
      return ConvertPkt(p, out, room);
    if (len > room)
      return 0;
    std::memcpy(out, p, len);
    return len;
  }
  if (!SaveData(p, n) || fragsHeld_ != fragsExpected_)
    return 0;
  return GetData(out, room);
}

HRESULT __stdcall SockBuf_defrag::Read(void* buf, unsigned len, unsigned* pRead) {
  if (!enabled_ || !buf)
    return STG_E_INVALIDPOINTER;
  SockBuf_reg* source = stage_->source_;
  if (!source)
    return STG_E_INVALIDPOINTER;
  SemGuard consumers(source->stageGate_);
  for (;;) {
    if (source->CanAbort())
      return STG_E_INVALIDPOINTER;
    unsigned n = 0;
    // The stage hands back only lasting failures (or "nothing now").
    HRESULT const r = stage_->Read(packet_.data(), kPacketBufLen, &n);
    if (r != S_OK)
      return r;
    unsigned out;
    {
      SemGuard guard(source->lock_);
      out = Process(packet_.data(), n, static_cast<unsigned char*>(buf), len);
    }
    if (out == 0)
      continue;
    if (ISockBuffExt* writer = source->GetPktMWObj()) {
      unsigned written = 0;
      writer->WriteExt(buf, out, &written, static_cast<int>(mode_ & 1));
    }
    if (pRead)
      *pRead = out;
    return S_OK;
  }
}

HRESULT __stdcall SockBuf_defrag::ReadExt(void* buf, unsigned len, unsigned* pRead, int* pFlag) {
  if (pFlag)
    *pFlag = static_cast<int>(mode_ & 1);
  return Read(buf, len, pRead);
}
