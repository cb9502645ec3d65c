// The sink side of SockMWBuffs: opening, closing and sending through the
// caller's ISockBuff or the object's own controller.
#include "sockbuf/SockMWBuffs.h"

#include "platform/Clock.h"
#include "socket/SocketCtrl.h"
#include "sockbuf/MWPacer.h"
#include "sockbuf/detail/MWPacketFifo.h"
#include "sockbuf/detail/MWRecentSends.h"
#include "thread/Semaphore.h"

#include <cstring>

using shared::SemGuard;
using shared::detail::MWPacketFifo;

namespace {
constexpr SOCKET kNoSock = SocketCtrl::kNoSocket;
// Bytes the send queue may hold for the connection before writes fail.
constexpr unsigned kMaxQueuedBytes = 4u << 20;
}  // namespace

int SockMWBuffs::OpenUrl() {
  if (IsAborted() || !ok_)
    return 0;
  SemGuard g(*sinkLock_);
  if (IsAborted())
    return 0;
  if (sink_)
    return sink_->OpenUrl();
  return OpenOwn();
}

// sinkLock_ held.
int SockMWBuffs::OpenOwn() {
  if (opened_.load(std::memory_order_acquire))
    return 1;
  if (!urlSet_)
    return 0;
  bool const tcp = url_.kind == SockUrl::kTcp;
  unsigned int s = kNoSock;
  if (!ctrl_->connect(url_.host, tcp ? "tcp" : "udp", url_.port, nullptr, &s, nullptr, 1, 1))
    return 0;
  if (tcp) {
    // Non-blocking, so a slow peer fills the send queue (which holds the
    // pacing back) instead of blocking the writer thread.
    ctrl_->set_non_blocking(s);
    ctrl_->SetTCPNoDelay(1, s);
    if (queue_)
      ctrl_->SetMaxSendQueue(kMaxQueuedBytes, 0, s);
  } else if (url_.kind == SockUrl::kUdpMulticast) {
    ctrl_->SetMulticast(kMulticastTtl, "", s);
  }
  {
    std::lock_guard<std::mutex> fd(fdMutex_);
    sock_ = s;
  }
  lastPing_.store(shared::platform::TickCount(), std::memory_order_release);
  opened_.store(1, std::memory_order_release);
  return 1;
}

int SockMWBuffs::CloseUrl() {
  SemGuard g(*sinkLock_);
  if (sink_)
    return sink_->CloseUrl();
  CloseOwn();
  return 1;
}

// sinkLock_ held (or no other thread left).
void SockMWBuffs::CloseOwn() {
  if (!ctrl_)
    return;
  std::lock_guard<std::mutex> fd(fdMutex_);
  opened_.store(0, std::memory_order_release);
  if (sock_ != kNoSock)
    ctrl_->close(kNoSock, 0);
  sock_ = kNoSock;
}

int SockMWBuffs::IsOpened() {
  if (sink_) {
    SemGuard g(*sinkLock_);
    return sink_->IsOpened();
  }
  return opened_.load(std::memory_order_acquire);
}

void SockMWBuffs::Reconnect() {
  SemGuard g(*sinkLock_);
  CloseOwn();
  if (!IsAborted())
    OpenOwn();
}

HRESULT __stdcall SockMWBuffs::Read(void *buf, unsigned len, unsigned *pRead) {
  if (IsAborted() || !buf)
    return STG_E_INVALIDPOINTER;
  unsigned n = 0;
  if (GetPkt(buf, len, &n)) {
    if (pRead)
      *pRead = n;
    return S_OK;
  }
  SemGuard g(*lock_);
  bool empty = main_->Empty() && (!audio_ || audio_->Empty());
  return empty ? STG_S_BLOCK : STG_E_INVALIDPOINTER;
}

HRESULT __stdcall SockMWBuffs::Write(void const *buf, unsigned len, unsigned *pWritten) {
  if (!write(buf, len))
    return STG_E_INVALIDPOINTER;
  if (pWritten)
    *pWritten = len;
  return S_OK;
}

int SockMWBuffs::SendPkt(void const *pkt, unsigned len) {
  if (IsAborted() || !pkt || len == 0)
    return 0;
  {
    SemGuard g(*lock_);
    pacer_->Count(len, shared::platform::TickCount());
  }
  bool ok = SendToSink(static_cast<char const *>(pkt), len);
  SemGuard g(*lock_);
  recent_->Add(shared::platform::TickMicros(), len);
  ok ? ++sent_ : ++sendErrors_;
  return ok ? 1 : 0;
}

bool SockMWBuffs::SendToSink(char const *pkt, unsigned len) {
  SemGuard g(*sinkLock_);
  bool ok;
  if (sink_) {
    unsigned written = 0;
    ok = sink_->Write(pkt, len, &written) == S_OK && written == len;
  } else {
    ok = opened_.load(std::memory_order_acquire) &&
         ctrl_->write(pkt, len, kNoSock, 1, 0, -1, 1, nullptr) == static_cast<int>(len);
    // A stream that lost bytes is out of step with its peer: start afresh
    // (the ping thread reconnects it).
    if (!ok && url_.kind == SockUrl::kTcp)
      CloseOwn();
  }
  unsigned written = 0;
  if (pktTap_)
    pktTap_->Write(pkt, len, &written);
  if (fileTap_)
    fileTap_->Write(pkt, len, &written);
  if (notify_ && len >= kHeaderBytes) {
    auto const *p = reinterpret_cast<unsigned char const *>(pkt);
    unsigned id = static_cast<unsigned>(p[0]) | static_cast<unsigned>(p[1]) << 8 |
                  static_cast<unsigned>(p[2]) << 16 | static_cast<unsigned>(p[3]) << 24;
    notify_->PktRead(cookie_, id, 0.0, p[11]);
  }
  return ok;
}
