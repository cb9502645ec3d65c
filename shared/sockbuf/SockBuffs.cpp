// SockBuffs.cpp: construction, windows, media map, notification records and
// the play state. The source and the read thread are in SockBuffsSource.cpp,
// the packet path and recording in SockBuffsSave.cpp.
#include "sockbuf/SockBuffs.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/Clock.h"
#include "sockbuf/IndexStr.h"
#include "sockbuf/SockBufVect.h"
#include "sockbuf/SockBuf_reg.h"
#include "sockbuf/detail/MediaPkt.h"
#include "thread/Thread.h"

namespace sp = shared::platform;
using shared::SemGuard;

namespace {
constexpr unsigned long kForever = static_cast<unsigned long>(-1);
constexpr unsigned kMediaMapCapacity = 100;
constexpr unsigned kIndexCapacity = 1000;
}  // namespace

SockBuffs::SockBuffs(unsigned maxWnds, unsigned regSize)
    : SocketCtrl(nullptr, 0, kReadSize, 0, 0, nullptr),
      maxWnds_(maxWnds),
      threadLock_(3, 1, 0, kForever, -1),
      wake_(1, 1, 0, kForever, 0),
      lock_(3, 1, 0, kForever, -1) {
  lastPktTime_.store(sp::NowSeconds());
  input_.reset(new (std::nothrow) SockBuf_reg(kInputSize, 0));
  if (input_ && input_->IsOk()) {
    input_->SetBlock(0);
    input_->OpenUrl();
  }
  if (maxWnds != 0 && regSize != 0) wnds_.reset(new (std::nothrow) SockBufVect(maxWnds, regSize));
  index_.reset(new (std::nothrow) IndexStr(kIndexCapacity));
  mediaMap_.reserve(kMediaMapCapacity);
  readBuf_.resize(kReadSize);
  pktBuf_.resize(shared::sockbuf::detail::kMaxPacketLen);
  ok_ = isSockOk() && lock_.IsOk() && wake_.IsOk() && threadLock_.IsOk() && input_ &&
                input_->IsOk() && wnds_ && wnds_->IsOk() && index_
            ? 1
            : 0;
}

SockBuffs::~SockBuffs() {
  stop_.store(1);
  Stop();
  JoinReadThread();  // started by OpenUrl alone, never played
  SemGuard g(lock_);
  CloseUrl();
  CloseSaveFile();
  CloseReadFile();
  if (wnds_) wnds_->reset();
}

// --- Windows -------------------------------------------------------------------

SockBuffs::MediaBinding* SockBuffs::FindBinding(unsigned key) {
  for (MediaBinding& b : mediaMap_) {
    if (b.key == key) return &b;
  }
  return nullptr;
}

unsigned SockBuffs::SearchMediaID(unsigned mediaId) {
  SemGuard g(lock_);
  for (MediaBinding const& b : mediaMap_) {
    if (b.mediaId == mediaId) return b.key;
  }
  return 0;
}

int SockBuffs::CreateWnd(unsigned key, unsigned a1, unsigned a2, int defrag, unsigned defragParam,
                         unsigned mediaId, unsigned idleSeconds) {
  if (key == 0 || !ok_) return 0;
  SemGuard g(lock_);
  if (wndCount_.load() >= maxWnds_) return 0;
  if (FindBinding(key) != nullptr || wnds_->search(key, nullptr) != nullptr) return 0;
  mediaMap_.push_back({key, kNoMedia});
  if (wnds_->append(key) == 0) {
    mediaMap_.pop_back();
    return 0;
  }
  wndCount_.fetch_add(1);
  if (idleSeconds != 0 || (a1 != 0 && (a2 != 0 || defrag != 0))) {
    if (!wnds_->SetOptions(key, a1, a2, idleSeconds, defrag, defragParam)) {
      DestroyWndLocked(key);
      return 0;
    }
  }
  wnds_->SetSockBuffs(key, this);
  if (mediaId != 0 && mediaId != kNoMedia && !SetWndMediaId(key, mediaId)) {
    DestroyWndLocked(key);
    return 0;
  }
  return 1;
}

int SockBuffs::DestroyWnd(unsigned key) {
  if (!ok_) return 0;
  SemGuard g(lock_);
  return DestroyWndLocked(key);
}

int SockBuffs::DestroyWndLocked(unsigned key) {
  MediaBinding* b = FindBinding(key);
  if (b == nullptr) return 0;
  if (b->mediaId != kNoMedia) DropNotify(b->mediaId);
  mediaMap_.erase(mediaMap_.begin() + (b - mediaMap_.data()));
  wnds_->erase(key);
  wndCount_.fetch_sub(1);
  return 1;
}

void SockBuffs::DestroyAllWnds() {
  if (!ok_) return;
  SemGuard g(lock_);
  while (!mediaMap_.empty()) DestroyWndLocked(mediaMap_.back().key);
}

ISockBuffExt* SockBuffs::GetWndObj(unsigned key) {
  if (!ok_) return nullptr;
  SemGuard g(lock_);
  return wnds_->GetObj(key);
}

unsigned SockBuffs::GetWndId(unsigned mediaId) {
  if (!ok_) return 0;
  SemGuard g(lock_);
  return wnds_->GetId(mediaId);
}

int SockBuffs::SetWndBlock(unsigned key, int block) {
  if (!ok_) return 0;
  SemGuard g(lock_);
  return wnds_->SetBlock(key, block);
}

int SockBuffs::SetWndMediaId(unsigned key, unsigned mediaId) {
  if (key == 0 || mediaId == 0 || !ok_ || wndCount_.load() == 0) return 0;
  SemGuard g(lock_);
  MediaBinding* mine = FindBinding(key);
  if (mine == nullptr) return 0;
  if (mine->mediaId == mediaId) return 1;
  for (MediaBinding& other : mediaMap_) {
    if (other.mediaId == mediaId && other.key != key) {
      other.mediaId = kNoMedia;
      wnds_->SetMediaId(other.key, kNoMedia);
    }
  }
  if (mine->mediaId != kNoMedia) DropNotify(mine->mediaId);
  mine->mediaId = mediaId;
  if (!wnds_->SetMediaId(key, mediaId)) return 0;
  if (notifyOn_ && mediaId != kNoMedia)
    SetNotifyTime(mediaId, sp::NowSeconds() + notifyPeriod_.load());
  return wnds_->OpenUrl(key);
}

int SockBuffs::SetnPktWaitForDelayed(unsigned key, unsigned n) {
  if (!ok_) return 0;
  SemGuard g(lock_);
  return wnds_->SetnPktWaitForDelayed(key, n);
}

unsigned SockBuffs::GetReadBitrate(unsigned key) {
  if (!ok_) return 0;
  SemGuard g(lock_);
  return wnds_->GetReadBitrate(key);
}

unsigned SockBuffs::GetSaveBitrate(unsigned key) {
  if (!ok_) return 0;
  SemGuard g(lock_);
  return wnds_->GetSaveBitrate(key);
}

int SockBuffs::Abort(unsigned key) {
  if (!ok_) return 0;
  SemGuard g(lock_);
  SockBuf_reg* reg = wnds_->search(key, nullptr);
  if (reg == nullptr) return 0;
  reg->Abort();
  return 1;
}

void SockBuffs::Abort() {
  if (!ok_) return;
  SemGuard g(lock_);
  unsigned key = 0;
  unsigned pos = 0;
  for (SockBuf_reg* reg = wnds_->first(&key, &pos); reg != nullptr; reg = wnds_->next(&key, &pos))
    reg->Abort();
}

// --- Notification records ---------------------------------------------------------

int SockBuffs::SetINotify(ISockBuffNotify* notify, unsigned periodSeconds, unsigned long cookie) {
  SemGuard g(lock_);
  if (periodSeconds != 0) {
    notifyOn_ = true;
    notifyPeriod_.store(periodSeconds);
  }
  notifier_.store(notify);
  cookie_.store(cookie);
  return 1;
}

SockBuffs::NotifyRec* SockBuffs::FindNotify(unsigned mediaId) {
  for (NotifyRec& r : notify_) {
    if (r.mediaId == mediaId) return &r;
  }
  return nullptr;
}

void SockBuffs::SetNotifyTime(unsigned mediaId, std::int64_t time) {
  NotifyRec* r = FindNotify(mediaId);
  if (r == nullptr) {
    notify_.push_back({mediaId, 0, time, 0});
  } else {
    r->time = time;
  }
}

void SockBuffs::DropNotify(unsigned mediaId) {
  NotifyRec* r = FindNotify(mediaId);
  if (r != nullptr) notify_.erase(notify_.begin() + (r - notify_.data()));
}

void SockBuffs::NotifyPktRead(unsigned mediaId, unsigned flags) {
  NotifyRec* r = FindNotify(mediaId);
  ISockBuffNotify* notifier = notifier_.load();
  if (r == nullptr || notifier == nullptr) return;
  std::int64_t const now = sp::NowSeconds();
  std::int64_t const period = notifyPeriod_.load();
  if (now > r->time + period) {
    r->flags = flags;  // a stale record: what it gathered is old news
  } else {
    r->flags |= flags;
  }
  if (now <= r->time) return;
  double percent = 0.0;
  std::int64_t const size = fileSize_.load();
  if (readFd_ != -1 && size > 0)
    percent = static_cast<double>(fileBytesRead_.load()) * 100.0 / static_cast<double>(size);
  unsigned const gathered = r->flags;
  r->time = now + period;
  r->flags = 0;
  FlushWindowRun();  // what the notice announces is in the window
  notifier->PktRead(cookie_.load(), mediaId, percent, gathered);
}

void SockBuffs::ResetNotify() {
  SemGuard g(lock_);
  std::int64_t const next = sp::NowSeconds() + notifyPeriod_.load();
  for (MediaBinding const& b : mediaMap_) {
    wnds_->flush(b.key);
    if (notifyOn_ && notifyPeriod_.load() != 0 && b.mediaId != kNoMedia)
      SetNotifyTime(b.mediaId, next);
  }
}

int SockBuffs::MaxIdleTimeReached() {
  return opened_.load() && pktSeen_.load() &&
                 sp::NowSeconds() > lastPktTime_.load() + static_cast<std::int64_t>(kIdleSeconds)
             ? 1
             : 0;
}

// --- Play state --------------------------------------------------------------------

int SockBuffs::Play() {
  if (!ok_) return 0;
  if (IsPlaying()) {
    if (IsPauseOn()) Pause(0);
    return 1;
  }
  stop_.store(0);
  if (!OpenUrl()) return 0;
  SetState(kPlaying);
  return 1;
}

int SockBuffs::Pause(int on) {
  if (!IsPlaying()) return 0;
  if (on) {
    if (IsPauseOn()) return 0;
    SetState(kPauseOn);
    return 1;
  }
  if (!IsPauseOn()) return 0;
  ResetNotify();
  ResetState(kPauseOn);
  wake_.Signal();
  return 1;
}

int SockBuffs::Stop() {
  if (!IsPlaying()) return 0;
  stop_.store(1);
  JoinReadThread();
  SemGuard g(lock_);
  StopLocked();
  return 1;
}

// stop_ is set. The handle is taken out under threadLock_ but joined without
// it: the read thread itself may be inside OpenUrl, which looks at the handle
// (and, seeing stop_, starts nothing).
void SockBuffs::JoinReadThread() {
  IThread* thread = nullptr;
  {
    SemGuard t(threadLock_);
    thread = thread_;
    thread_ = nullptr;
  }
  if (thread == nullptr) return;
  wake_.Signal();
  thread->WaitForMe(IThread::kInfinite);
  delete thread;
}

void SockBuffs::StopLocked() {
  CloseUrl();
  CloseSaveFile();
  CloseReadFile();
  fileBytesRead_.store(0);
  readOffsetPending_.store(0);
  input_->flush();
  notify_.clear();
  mediaMap_.clear();
  wnds_->reset();
  wndCount_.store(0);
  state_.store(0);
}

void SockBuffs::reset() {
  SemGuard g(lock_);
  input_->flush();
  ResetNotify();
}

void SockBuffs::SetProxyParam(char const* host, unsigned short port, char const* user,
                              char const* password) {
  SemGuard g(lock_);
  auto copy = [](char* dst, std::size_t n, char const* src) {
    std::size_t len = src != nullptr ? std::min(std::strlen(src), n - 1) : 0;
    if (len != 0) std::memcpy(dst, src, len);
    dst[len] = '\0';
  };
  copy(proxyHost_, sizeof proxyHost_, host);
  copy(proxyUser_, sizeof proxyUser_, user);
  copy(proxyPassword_, sizeof proxyPassword_, password);
  proxyPort_ = port;
}

void SockBuffs::GetProxyParam(char* host, unsigned hostSize, unsigned short* port) {
  SemGuard g(lock_);
  if (host != nullptr && hostSize != 0) {
    std::size_t len = std::min<std::size_t>(std::strlen(proxyHost_), hostSize - 1);
    std::memcpy(host, proxyHost_, len);
    host[len] = '\0';
  }
  if (port != nullptr) *port = proxyPort_;
}
