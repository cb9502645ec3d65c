#include "sockbuf/SockMWBuffs.h"

#include "media/MediaFrag.h"
#include "media/MediaJitterBuf.h"
#include "platform/Clock.h"
#include "platform/SocketApi.h"
#include "socket/SendQueue.h"
#include "socket/SocketCtrl.h"
#include "sockbuf/MWPacer.h"
#include "sockbuf/detail/MWPacketFifo.h"
#include "sockbuf/detail/MWRecentSends.h"
#include "thread/Semaphore.h"

#include <climits>
#include <cstring>

using shared::SemGuard;
using shared::detail::MWPacketFifo;

namespace {

constexpr SOCKET kNoSock = SocketCtrl::kNoSocket;

struct AudioShare {
  unsigned rate;
  unsigned share;
};
// kbit/s of audio inside each stream rate that may be paced with audio
// taken off.
constexpr AudioShare kAudioShares[] = {
    {33, 8},     {64, 16},    {128, 32},   {192, 36},   {256, 40},   {384, 48},   {512, 64},  {768, 80},
    {1024, 96},  {2048, 192}, {3072, 320}, {4096, 380}, {6144, 380}, {8192, 380}, {16384, 380}};

std::uint32_t Le32(unsigned char const *p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

void PutLe32(unsigned char *p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    p[i] = static_cast<unsigned char>(v >> (8 * i));
}

unsigned BufferBytes(unsigned bufferMs) {
  double bytes = bufferMs / 1000.0 * SockMWBuffs::kBufferBytesPerSecond;
  return bytes >= static_cast<double>(UINT_MAX) ? UINT_MAX : static_cast<unsigned>(bytes);
}

}  // namespace

SockMWBuffs::SockMWBuffs(unsigned bitrate, unsigned slots, unsigned bufferMs, int perMsPacing, int subtractAudio,
                         unsigned long flags, SendQueue *queue, ISockBuff *sink, unsigned long user,
                         unsigned long windowMs, unsigned long bufFlags)
    : perMs_(perMsPacing != 0),
      subtractAudio_(subtractAudio != 0),
      flags_(flags),
      bufFlags_(bufFlags),
      user_(user),
      configuredRate_(bitrate),
      bufferMs_(bufferMs),
      direct_(bitrate == 0 && (flags & kFlagBuffered) == 0),
      queue_(queue),
      sink_(sink),
      sock_(kNoSock) {
  lock_ = std::make_unique<_SEMAPHORE>(3, 1, 0, static_cast<unsigned long>(-1), -1);
  sinkLock_ = std::make_unique<_SEMAPHORE>(3, 1, 0, static_cast<unsigned long>(-1), -1);
  wake_ = std::make_unique<_SEMAPHORE>(1, 1, 0, static_cast<unsigned long>(-1), 0);
  bool const locksOk = lock_->IsOk() && sinkLock_->IsOk() && wake_->IsOk();

  bool fragOk = true;
  if (flags & kFlagFragQueue) {
    // A blocking queue: the defrag thread sleeps in it until a fragment comes.
    frag_ = std::make_unique<MediaFrag>(MediaFrag::kFragOn, kFragQueueBytes, 0, 1);
    fragOk = frag_->IsOk() != 0;
  }
  bool sinkOk = sink_ != nullptr;
  if (!sink_) {
    ctrl_ = std::make_unique<SocketCtrl>(queue, 0, 65535, 0, 0, nullptr);
    sinkOk = ctrl_->isSockOk() != 0;
  }

  pacer_ = std::make_unique<MWPacer>(slots, windowMs, perMs_);
  recent_ = std::make_unique<shared::detail::MWRecentSends>();
  bool rateOk;
  if (bitrate == 0)
    rateOk = (flags & kFlagBuffered) == 0 || bufferMs != 0;
  else
    rateOk = bufferMs != 0 && slots != 0 && pacer_->IsOk() && locksOk && SetBitrate(bitrate) != 0;

  unsigned const bytes = BufferBytes(bufferMs);
  main_ = std::make_unique<MWPacketFifo>(bytes);
  if ((bufFlags & 3) < 3)
    audio_ = std::make_unique<MWPacketFifo>(bytes);

  ok_ = locksOk && fragOk && sinkOk && rateOk ? 1 : 0;
  reset();
}

SockMWBuffs::~SockMWBuffs() {
  Abort();
  CloseOwn();
}

// --- Pacing ---------------------------------------------------------------------

int SockMWBuffs::SetBitrate(unsigned kbps) {
  if (configuredRate_ == 0 || kbps == 0)
    return 0;
  SemGuard g(*lock_);
  unsigned rate = kbps;
  if (subtractAudio_ && (bufFlags_ & kBufAudioOwn) == 0) {
    AudioShare const *found = nullptr;
    for (AudioShare const &a : kAudioShares)
      if (a.rate == kbps)
        found = &a;
    if (!found)
      return 0;
    rate = kbps - found->share * 4 / 3;
  }
  pacer_->SetRate(rate);
  FollowSlot();
  return 1;
}

int SockMWBuffs::SetBitrateWindow(unsigned long ms) {
  SemGuard g(*lock_);
  int r = pacer_->SetWindow(ms);
  FollowSlot();
  return r;
}

void SockMWBuffs::FollowSlot() { recent_->SetLimit(pacer_->SlotMs(), pacer_->SlotBytes()); }

int SockMWBuffs::CanSendPkt(unsigned len, unsigned long nowMs, unsigned *waitMs) {
  if (ctrl_ && ctrl_->isSockSndBufFull(kNoSock)) {
    SemGuard g(*lock_);
    if (waitMs)
      *waitMs = static_cast<unsigned>(pacer_->WindowMs());
    return 0;
  }
  SemGuard g(*lock_);
  return pacer_->CanSendPkt(len, nowMs, waitMs);
}

unsigned SockMWBuffs::GetBitrate() {
  SemGuard g(*lock_);
  return pacer_->Kbps();
}

void SockMWBuffs::GetPacing(unsigned *windowBytes, unsigned *slotBytes, unsigned *bytesPerMs, unsigned long *slotMs) {
  SemGuard g(*lock_);
  if (windowBytes)
    *windowBytes = pacer_->WindowBytes();
  if (slotBytes)
    *slotBytes = pacer_->SlotBytes();
  if (bytesPerMs)
    *bytesPerMs = pacer_->BytesPerMs();
  if (slotMs)
    *slotMs = pacer_->SlotMs();
}

// --- Buffers ----------------------------------------------------------------------

bool SockMWBuffs::SavePktLocked(char const *pkt, unsigned len) {
  bool audio = len >= kHeaderBytes && IsAudioPkt(static_cast<unsigned char>(pkt[11])) && CanUseAudioBuf();
  return (audio ? audio_ : main_)->Push(pkt, len);
}

int SockMWBuffs::SavePkt(void const *pkt, unsigned len) {
  if (!pkt || len == 0)
    return 0;
  SemGuard g(*lock_);
  int r = SavePktLocked(static_cast<char const *>(pkt), len) ? 1 : 0;
  Wake();
  return r;
}

int SockMWBuffs::GetPkt(void *buf, unsigned cap, unsigned *len) {
  if (len)
    *len = 0;
  if (!buf)
    return 0;
  SemGuard g(*lock_);
  MWPacketFifo *from = audio_ && !audio_->Empty() ? audio_.get() : main_.get();
  if (from->Empty() || from->FrontSize() > cap)
    return 0;
  std::vector<char> p = from->Pop();
  std::memcpy(buf, p.data(), p.size());
  if (len)
    *len = static_cast<unsigned>(p.size());
  return 1;
}

int SockMWBuffs::write(void const *pkt, unsigned len) {
  if (IsAborted() || !pkt || len < kHeaderBytes || len > kMaxPacketBytes)
    return 0;
  auto const *bytes = static_cast<unsigned char const *>(pkt);
  {
    SemGuard g(*lock_);
    if (rec_)
      rec_->insert(Le32(bytes + 4), static_cast<char const *>(pkt), len);
    if (frag_) {
      if (!frag_->IsPktOk(pkt, len, nullptr))
        return 0;
      int r = frag_->SaveData(pkt, len);
      if (!r) {
        // The queue overflowed and dropped what it held, of any stream:
        // every stream skips a number, so its receiver sees the loss.
        for (auto &entry : fragSeqs_)
          ++entry.second;
      }
      if (!defragRunning_)
        DrainFragQueue();
      Wake();
      return r;
    }
    if (!direct_) {
      int r = SavePktLocked(static_cast<char const *>(pkt), len) ? 1 : 0;
      Wake();
      return r;
    }
  }
  return SendPkt(pkt, len);
}

int SockMWBuffs::writeMediaPkt(unsigned streamId, unsigned seq, unsigned char type, unsigned char flagByte,
                               void const *payload, unsigned payloadLen) {
  if (payloadLen > 0xFFFF || (payloadLen && !payload))
    return 0;
  std::vector<unsigned char> pkt(kHeaderBytes + payloadLen);
  PutLe32(&pkt[0], streamId);
  PutLe32(&pkt[4], seq);
  pkt[8] = static_cast<unsigned char>(payloadLen);
  pkt[9] = static_cast<unsigned char>(payloadLen >> 8);
  pkt[10] = type;
  pkt[11] = flagByte;
  if (payloadLen)
    std::memcpy(&pkt[kHeaderBytes], payload, payloadLen);
  return write(pkt.data(), static_cast<unsigned>(pkt.size()));
}

// lock_ held; only while no defrag thread reads the queue, so the reads
// below never block.
void SockMWBuffs::DrainFragQueue() {
  char buf[2048];
  unsigned n = 0;
  while (frag_->GetQueue()->NextPktSize() > 0 && frag_->GetData(buf, sizeof buf, &n))
    PushFragment(buf, n);
}

void SockMWBuffs::PushFragment(char *frag, unsigned len) {
  if (len < kHeaderBytes)
    return;
  auto *bytes = reinterpret_cast<unsigned char *>(frag);
  PutLe32(bytes + 4, ++fragSeqs_[Le32(bytes)]);
  main_->Push(frag, len);
}

unsigned SockMWBuffs::ResendPkts(unsigned first, unsigned last) {
  if (first > last)
    return 0;
  SemGuard g(*lock_);
  if (!rec_)
    return 0;
  std::vector<char> buf(kMaxPacketBytes);
  unsigned found = 0;
  // Walk backwards so that PushFront leaves them in ascending order.
  for (unsigned seq = last;; --seq) {
    unsigned len = static_cast<unsigned>(buf.size());
    if (rec_->search(seq, buf.data(), &len) && len > 0 && main_->PushFront(buf.data(), len))
      ++found;
    if (seq == first)
      break;
  }
  if (found)
    Wake();
  return found;
}

unsigned SockMWBuffs::GetnBytesInBuffer() {
  SemGuard g(*lock_);
  return main_->Bytes() + (audio_ ? audio_->Bytes() : 0);
}

double SockMWBuffs::GetnSecsInBuffer() {
  SemGuard g(*lock_);
  double bytes = main_->Bytes() + (audio_ ? audio_->Bytes() : 0);
  double perSecond = pacer_->BytesPerSecond() ? pacer_->BytesPerSecond() : kBufferBytesPerSecond;
  return bytes / perSecond;
}

unsigned SockMWBuffs::GetnBytesAudioBuf() {
  SemGuard g(*lock_);
  return audio_ ? audio_->Bytes() : 0;
}

unsigned SockMWBuffs::GetnBytesVideoBuf() {
  SemGuard g(*lock_);
  return main_->Bytes();
}

unsigned SockMWBuffs::GetnPktDropped() {
  SemGuard g(*lock_);
  return main_->Dropped() + (audio_ ? audio_->Dropped() : 0);
}

unsigned SockMWBuffs::GetnPktSent() {
  SemGuard g(*lock_);
  return sent_;
}

unsigned SockMWBuffs::GetnSendErrors() {
  SemGuard g(*lock_);
  return sendErrors_;
}

int SockMWBuffs::CanUseAudioBuf() const { return audio_ && (bufFlags_ & kBufAudioOwn) ? 1 : 0; }

int SockMWBuffs::CanShareAudioBuf() const { return (bufFlags_ & 2) ? 1 : 0; }

void SockMWBuffs::SetIdleMode(int idle) {
  idle_.store(idle ? 1 : 0, std::memory_order_release);
  Wake();
}

void SockMWBuffs::reset() {
  SemGuard g(*lock_);
  main_->Clear();
  main_->ResetCounters();
  if (audio_) {
    audio_->Clear();
    audio_->ResetCounters();
  }
  if (frag_)
    frag_->GetQueue()->Reset();
  fragSeqs_.clear();
  if (rec_)
    rec_->flush(1);
  pacer_->Clear();
  recent_->Clear();
  sent_ = 0;
  sendErrors_ = 0;
}

// --- Options ----------------------------------------------------------------------

void SockMWBuffs::SetMaxPktSize(unsigned bytes) {
  maxPktSize_.store(bytes ? bytes : kDefaultMaxPktSize, std::memory_order_relaxed);
}

void SockMWBuffs::SetTCPPing(int on, long readSeconds) {
  pingOn_.store(on ? 1 : 0, std::memory_order_release);
  pingReadSeconds_.store(readSeconds > 0 ? readSeconds : kPingReadSeconds, std::memory_order_relaxed);
}

int SockMWBuffs::SetUrl(char const *url) {
  SockUrl parsed;
  if (!url || !parsed.Parse(url) || !(parsed.kind == SockUrl::kTcp || parsed.kind == SockUrl::kUdp ||
                                      parsed.kind == SockUrl::kUdpMulticast))
    return 0;
  SemGuard g(*sinkLock_);
  url_ = parsed;
  urlSet_ = 1;
  return 1;
}

int SockMWBuffs::GetPort() {
  SemGuard g(*sinkLock_);
  return urlSet_ ? url_.port : 0;
}

void SockMWBuffs::SetINotify(ISockBuffNotify *notify, unsigned long cookie) {
  SemGuard g(*sinkLock_);
  notify_ = notify;
  cookie_ = cookie;
}

void SockMWBuffs::SetPktMWObj(ISockBuff *obj) {
  SemGuard g(*sinkLock_);
  pktTap_ = obj;
}

void SockMWBuffs::SetFileMWObj(ISockBuff *obj) {
  SemGuard g(*sinkLock_);
  fileTap_ = obj;
}

int SockMWBuffs::EnablePktRec(unsigned maxPackets, unsigned idleSeconds) {
  auto rec = std::make_unique<MediaJitterBuf>(maxPackets, kMaxPacketBytes, idleSeconds);
  if (!rec->IsOk())
    return 0;
  SemGuard g(*lock_);
  rec_ = std::move(rec);
  return 1;
}

void SockMWBuffs::DisablePktRec() {
  SemGuard g(*lock_);
  rec_.reset();
}

int SockMWBuffs::IsDefragOn() const { return frag_ ? frag_->IsDefragOn() : 0; }
int SockMWBuffs::IsDefragThread() const { return frag_ ? frag_->IsDefragThread() : 0; }
int SockMWBuffs::IsDefragLMediaPkt() const { return frag_ ? frag_->IsDefragLMediaPkt() : 0; }
int SockMWBuffs::IsDefragPktExt() const { return frag_ ? frag_->IsDefragPktExt() : 0; }

int SockMWBuffs::AdjustPktDatalen(void *pkt, unsigned len) {
  if (!pkt || len < kHeaderBytes || len - kHeaderBytes > 0xFFFF)
    return 0;
  auto *p = static_cast<unsigned char *>(pkt);
  unsigned n = len - kHeaderBytes;
  p[8] = static_cast<unsigned char>(n);
  p[9] = static_cast<unsigned char>(n >> 8);
  return 1;
}

unsigned SockMWBuffs::ConvertPkt(void const *longPkt, unsigned len, void *out, unsigned cap) {
  constexpr unsigned kLong = 14;
  if (!longPkt || !out || len < kLong)
    return 0;
  auto const *in = static_cast<unsigned char const *>(longPkt);
  std::uint32_t payload = Le32(in + 8);
  if (payload > 0xFFFF || payload > len - kLong || kHeaderBytes + payload > cap)
    return 0;
  auto *o = static_cast<unsigned char *>(out);
  std::memmove(o, in, 8);
  o[8] = static_cast<unsigned char>(payload);
  o[9] = static_cast<unsigned char>(payload >> 8);
  o[10] = in[12];
  o[11] = in[13];
  std::memmove(o + kHeaderBytes, in + kLong, payload);
  return kHeaderBytes + payload;
}
