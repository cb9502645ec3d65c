// The three threads of SockMWBuffs, and stopping them.
#include "sockbuf/SockMWBuffs.h"

#include "media/MediaFrag.h"
#include "platform/Clock.h"
#include "platform/SocketApi.h"
#include "socket/SocketCtrl.h"
#include "sockbuf/MWPacer.h"
#include "sockbuf/detail/MWPacketFifo.h"
#include "sockbuf/detail/MWRecentSends.h"
#include "thread/Semaphore.h"
#include "thread/Thread.h"

#include <algorithm>
#include <vector>

using shared::SemGuard;
using shared::detail::MWPacketFifo;
namespace sp = shared::platform;

namespace {
// Longest sleep of the writer with nothing to send: write wakes it anyway,
// this only bounds how long a lost wake-up could cost.
constexpr unsigned kIdleWaitMs = 500;
// While the send queue holds bytes for the connection the pacing advises a
// whole window; the queue drains as soon as the socket takes bytes, so the
// writer looks again soon rather than give up that much sending time.
constexpr unsigned kQueuePollMs = 5;
}  // namespace

bool SockMWBuffs::Stopping() const {
  return stop_.load(std::memory_order_acquire) != 0 || aborted_.load(std::memory_order_acquire) != 0;
}

void SockMWBuffs::Wake() { wake_->Signal(); }

int SockMWBuffs::StartThread(IThread **slot, int (*fn)(IThread *, void *), char const *name) {
  std::lock_guard<std::mutex> g(threadMutex_);
  if (!ok_ || Stopping() || *slot)
    return 0;
  IThread *t = CreateIThread(fn, this, 0, name);
  if (!t)
    return 0;
  *slot = t;
  t->Resume();
  return 1;
}

int SockMWBuffs::StartWriteThread() {
  return StartThread(&writer_, &SockMWBuffs::WriteThread, "SockMWBuffs: SockMWWrite Thread");
}

int SockMWBuffs::StartDefragThread() {
  if (!frag_)
    return 0;
  {
    // From now on write leaves the queue to the thread.
    SemGuard g(*lock_);
    if (defragRunning_)
      return 0;
    defragRunning_ = true;
  }
  if (StartThread(&defrag_, &SockMWBuffs::DefragThread, "SockMWBuffs: Defrag Thread"))
    return 1;
  SemGuard g(*lock_);
  defragRunning_ = false;
  return 0;
}

int SockMWBuffs::StartTCPPingThread() {
  {
    SemGuard g(*sinkLock_);
    if (!ctrl_ || !urlSet_ || url_.kind != SockUrl::kTcp)
      return 0;
  }
  pingOn_.store(1, std::memory_order_release);
  return StartThread(&ping_, &SockMWBuffs::PingThread, "SockMWBuffs: TCP Ping Thread");
}

void SockMWBuffs::JoinThread(IThread **slot) {
  IThread *t;
  {
    std::lock_guard<std::mutex> g(threadMutex_);
    t = *slot;
    *slot = nullptr;
  }
  if (!t)
    return;
  t->WaitForMe(IThread::kInfinite);
  delete t;
}

void SockMWBuffs::Abort() {
  aborted_.store(1, std::memory_order_release);
  stop_.store(1, std::memory_order_release);
  Wake();
  if (frag_)
    frag_->GetQueue()->Close();  // releases the defrag thread's blocking read
  {
    // Ends a ping read or a send blocked on the connection.
    std::lock_guard<std::mutex> fd(fdMutex_);
    if (sock_ != SocketCtrl::kNoSocket)
      sp::SockShutdown(sock_, 2);
  }
  JoinThread(&writer_);
  JoinThread(&defrag_);
  JoinThread(&ping_);
  SemGuard g(*sinkLock_);
  CloseOwn();
}

int SockMWBuffs::WriteThread(IThread *t, void *arg) {
  t->Register();
  static_cast<SockMWBuffs *>(arg)->WriteLoop();
  return 0;
}

int SockMWBuffs::DefragThread(IThread *t, void *arg) {
  t->Register();
  static_cast<SockMWBuffs *>(arg)->DefragLoop();
  return 0;
}

int SockMWBuffs::PingThread(IThread *t, void *arg) {
  t->Register();
  static_cast<SockMWBuffs *>(arg)->PingLoop();
  return 0;
}

// Takes the next packet (audio first) when the pacing lets it go, sends it
// outside the main lock, and otherwise sleeps on the wake signal (which write
// releases) until the tick it may go. Every decision is taken afresh at the
// tick count of the moment, so a late wake-up never shifts what follows.
void SockMWBuffs::WriteLoop() {
  while (!Stopping()) {
    std::uint64_t waitUs = std::uint64_t{kIdleWaitMs} * 1000;
    std::vector<char> pkt;
    if (!idle_.load(std::memory_order_acquire) && IsOpened()) {
      bool const queueFull = ctrl_ && ctrl_->isSockSndBufFull(SocketCtrl::kNoSocket);
      SemGuard g(*lock_);
      MWPacketFifo *from = audio_ && !audio_->Empty() ? audio_.get() : main_.get();
      if (!from->Empty()) {
        unsigned long const now = sp::TickCount();
        unsigned const len = from->FrontSize();
        waitUs = queueFull ? std::uint64_t{kQueuePollMs} * 1000
                           : shared::detail::MWWriterWaitUs(*pacer_, *recent_, len, now, sp::TickMicros());
        if (waitUs == 0) {
          pkt = from->Pop();
          pacer_->Count(len, now);
        }
      }
    }
    if (!pkt.empty()) {
      // Looked at again just before the send: a writer preempted since its
      // decision would otherwise let the packet out late, next to the ones
      // the span already holds.
      HoldForRecentSends();
      bool ok = SendToSink(pkt.data(), static_cast<unsigned>(pkt.size()));
      SemGuard g(*lock_);
      // Stamped once the send is done, so the span it counts in is never
      // shorter than the real one.
      recent_->Add(sp::TickMicros(), static_cast<unsigned>(pkt.size()));
      ok ? ++sent_ : ++sendErrors_;
      continue;
    }
    Nap(waitUs);
  }
}

// Whole milliseconds on the wake signal (write and Stop end them early);
// a rest under a millisecond, which only the recent sends ask for, as a
// plain short sleep: the next decision comes at once after either.
void SockMWBuffs::Nap(std::uint64_t us) {
  if (us >= 1000) {
    wake_->SetTimeout(static_cast<unsigned long>(us / 1000));
    wake_->Wait(1);
  } else {
    sp::SleepMicros(static_cast<std::uint32_t>(us));
  }
}

void SockMWBuffs::HoldForRecentSends() {
  for (;;) {
    std::uint64_t waitUs;
    {
      SemGuard g(*lock_);
      waitUs = recent_->WaitUs(sp::TickMicros());
    }
    if (waitUs == 0 || Stopping())
      return;
    Nap(waitUs);
  }
}

void SockMWBuffs::DefragLoop() {
  std::vector<char> buf(4096);
  while (!Stopping()) {
    unsigned n = 0;
    if (!frag_->GetData(buf.data(), static_cast<unsigned>(buf.size()), &n))
      continue;
    SemGuard g(*lock_);
    PushFragment(buf.data(), n);
    Wake();
  }
}

int SockMWBuffs::VerifyTCPPing() {
  std::uint32_t const now = sp::TickCount();
  std::uint32_t const last = lastPing_.load(std::memory_order_acquire);
  std::uint32_t start;
  {
    SemGuard g(*lock_);
    start = static_cast<std::uint32_t>(pacer_->WindowStart());
  }
  // Differences of the wrapping tick count, read as signed.
  auto const sinceLast = static_cast<std::int32_t>(now - last);
  auto const startAfterLast = static_cast<std::int32_t>(start - last);
  bool const recent = sinceLast >= 0 && static_cast<std::uint32_t>(sinceLast) <= kPingSilenceMs;
  bool const windowOk = startAfterLast <= 0 || static_cast<std::uint32_t>(startAfterLast) <= kPingAfterWindowMs;
  return recent && windowOk ? 1 : 0;
}

void SockMWBuffs::PingLoop() {
  std::vector<char> buf(kPingReadBytes);
  while (!Stopping()) {
    if (!IsOpened()) {
      sp::SleepMs(kReopenDelayMs);
      if (!Stopping())
        OpenUrl();
      continue;
    }
    unsigned int from = SocketCtrl::kNoSocket;
    int n = ctrl_->readall(buf.data(), kPingReadBytes, 0, 1, pingReadSeconds_.load(std::memory_order_relaxed),
                           &from, nullptr);
    if (Stopping())
      break;
    if (n > 0)
      lastPing_.store(sp::TickCount(), std::memory_order_release);
    else if (n < 0 || !VerifyTCPPing())
      Reconnect();
  }
}
