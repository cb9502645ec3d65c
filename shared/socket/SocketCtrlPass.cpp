// The dispatch pass (wait, walk, accept, read, deliver, close what is
// due) and the reads outside a pass (readall, read, getmsg).
#include "socket/SocketCtrl.h"

#include "platform/Clock.h"
#include "platform/Readiness.h"
#include "platform/SocketApi.h"
#include "socket/FdCtrl.h"
#include "socket/PassReplies.h"
#include "socket/SendQueue.h"
#include "socket/detail/SocketCtrlInternal.h"
#include "socket/SocketPrimitives.h"
#include "socket/TxtBuf_reg.h"
#include "thread/Semaphore.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace sp = shared::platform;
using shared::SemGuard;
using shared::socket::detail::kNone;
using shared::socket::detail::WaitOne;

namespace {

// A time-out in seconds as milliseconds: negative is no limit (-1), a huge
// value saturates instead of overflowing.
long SecondsToMs(long seconds) {
  constexpr long kMax = std::numeric_limits<long>::max() / 1000;
  if (seconds < 0)
    return -1;
  return seconds > kMax ? kMax * 1000 : seconds * 1000;
}

// Milliseconds left of a time-out of ms (< 0: no limit, returned as -1)
// that started at tick start; 0 when it has run out.
long TimeLeft(long ms, std::uint32_t start) {
  if (ms < 0)
    return -1;
  long const spent = static_cast<long>(static_cast<std::uint32_t>(sp::TickCount() - start));
  return spent >= ms ? 0 : ms - spent;
}

}  // namespace

int ISocketCtrl::acceptCallback(SocketCtrl *, unsigned int, char *, unsigned int) { return 0; }

int ISocketCtrl::connectCallback(SocketCtrl *, unsigned int, unsigned int) { return 0; }

void ISocketCtrl::closeCallback(SocketCtrl *, unsigned int, char const *) {}

int ISocketCtrl::acceptUDPCallback(SocketCtrl *, unsigned int, sockaddr_in *, char *, unsigned int) { return 0; }

void ISocketCtrl::closeUDPCallback(SocketCtrl *, unsigned int, sockaddr_in *, char const *) {}

// inWait_ was set with waiting_ under lock_, so a change recorded after that
// always signals, even one made before the wait itself began.
int SocketCtrl::WaitForEvents(long ms) {
  int n = demux_->EventHandler(kSewRead, ms, static_cast<int>(kSewSelectMaxSockets));
  inWait_.store(false, std::memory_order_release);
  // A signal that raced the end of the wait is drained by the next wait at
  // the latest, so the descriptor never stays readable for ever.
  if (wakes_.exchange(0, std::memory_order_acq_rel) != 0)
    wake_.Drain();
  return n;
}

int SocketCtrl::accept(ISocketCtrl *cb, long seconds) {
  Callbacks c;
  c.obj = cb;
  return Pass(c, seconds, false);
}

int SocketCtrl::accept(SockDataFn dataFn, SockConnectFn connectFn, SockCloseFn closeFn, int maxEvents,
                       long seconds) {
  Callbacks c;
  c.dataFn = dataFn;
  c.connectFn = connectFn;
  c.closeFn = closeFn;
  c.maxEvents = maxEvents;
  return Pass(c, seconds, false);
}

int SocketCtrl::acceptUDP(ISocketCtrl *cb, long seconds) {
  Callbacks c;
  c.obj = cb;
  return Pass(c, seconds, true);
}

int SocketCtrl::acceptUDP(SockUDPDataFn dataFn, SockUDPCloseFn closeFn, long seconds) {
  Callbacks c;
  c.udpDataFn = dataFn;
  c.udpCloseFn = closeFn;
  return Pass(c, seconds, true);
}

int SocketCtrl::Pass(Callbacks const &cb, long seconds, bool udp) {
  if (!isSockOk())
    return 0;
  long ms = SecondsToMs(seconds);
  PassGuard pass(*this);
  if (pass.Nested())
    return -1;
  bool canWait = false;
  {
    SemGuard g(*lock_);
    canWait = demux_ != nullptr && !noWait_.load(std::memory_order_acquire);
    if (canWait) {
      ms = ResumeListeners(ms);
      if (!draining_.empty())
        ms = ms < 0 ? kDrainCheckMs : std::min<long>(ms, kDrainCheckMs);
      std::lock_guard<std::mutex> m(markLock_);
      if (writeError_->count() != 0 || closePending_->count() != 0)
        ms = 0;  // marks made since the last pass are due now, not after a wait
    }
    waiting_ = canWait;
    inWait_.store(canWait, std::memory_order_release);
  }
  if (!canWait) {
    // Nothing to wait on: the pass is a pause (through the clock seam).
    sp::SleepMs(ms < 0 ? 100u : static_cast<std::uint32_t>(ms));
    return 1;
  }
  // The wait runs without the lock so other threads can write, close and
  // connect meanwhile; their registration changes wake it and are applied
  // below.
  int n = WaitForEvents(ms);

  SemGuard g(*lock_);
  waiting_ = false;
  ApplyDemuxChanges();
  busy_ = 1;
  if (!udp)
    walker_.store(std::this_thread::get_id(), std::memory_order_release);
  if (n < 0)
    ForgetClosedBehindUs();
  if (n >= 0) {
    ProcessWriteError(cb, udp);
    int served = 0;
    unsigned long events = 0;
    for (unsigned s = n > 0 ? demux_->firstEvent(&events, nullptr, nullptr) : kNone; s != kNone;
         s = demux_->nextEvent(&events, nullptr, nullptr)) {
      if (!active_->isset(s) || IsClosePending(s))
        continue;  // the wake-up descriptor, or closed or marked earlier in this pass
      FlushAllGathered();  // the replies to the socket served before leave together
      if (listen_->isset(s))
        AcceptSocket(s, cb);
      else if (udp)
        ProcessUDPData(s, cb);
      else
        ProcessSocketData(s, cb);
      if (cb.maxEvents > 0 && ++served >= cb.maxEvents)
        break;
    }
    FlushAllGathered();
    ProcessDraining(cb);
  }
  // Replies go out before their sockets are closed, as direct writes would.
  FlushAllGathered();
  walker_.store(std::thread::id{}, std::memory_order_release);
  ProcessCloseSSocks();
  busy_ = 0;
  return n < 0 ? -1 : 1;
}

// A descriptor closed behind the controller's back would fail every later
// select wait. Such sockets are forgotten (not closed: the number is no
// longer ours), so the next passes work again.
void SocketCtrl::ForgetClosedBehindUs() {
  for (SOCKET s : ActiveSnapshot()) {
    if (!sp::SockIsOpen(s))
      RemoveActiveSock(s, 0, 0, 0);
  }
}

void SocketCtrl::ProcessWriteError(Callbacks const &cb, bool udp) {
  std::vector<SOCKET> failed;
  {
    std::lock_guard<std::mutex> m(markLock_);
    unsigned pos = 0;
    for (unsigned s = writeError_->first(&pos); s != kNone; s = writeError_->next(&pos))
      failed.push_back(s);
  }
  // Each socket leaves the set on its own: marks added by callbacks or other
  // threads meanwhile stay for the next pass. A number that is no longer
  // active gets no callback (it may be someone else's by now).
  for (SOCKET s : failed) {
    if (!active_->isset(s) || listen_->isset(s)) {
      std::lock_guard<std::mutex> m(markLock_);
      writeError_->clr(s);
      NoteMarks();
      continue;
    }
    if (cb.obj) {
      if (udp)
        cb.obj->closeUDPCallback(this, s, nullptr, kReasonWriteError);
      else
        cb.obj->closeCallback(this, s, kReasonWriteError);
    } else if (udp && cb.udpCloseFn) {
      cb.udpCloseFn(this, s, nullptr, kReasonWriteError);
    } else if (cb.closeFn) {
      cb.closeFn(this, s, kReasonWriteError);
    }
    if (RemoveActiveSock(s, 0, 0, 0))
      _closesocket(s);
  }
}

// Out of descriptors, a listening socket stays readable: accepting again at
// once would spin. It is left unwatched until a socket of this controller
// closes or kAcceptPauseMs pass (clock seam), while the other sockets are
// served as usual.
void SocketCtrl::PauseListener(SOCKET s) {
  DemuxClr(s);
  pausedListeners_.push_back(s);
  pausedAt_ = sp::TickCount();
  closedSincePause_ = false;
}

long SocketCtrl::ResumeListeners(long ms) {
  if (pausedListeners_.empty())
    return ms;
  std::uint32_t const spent = sp::TickCount() - pausedAt_;
  if (closedSincePause_ || spent >= kAcceptPauseMs) {
    for (SOCKET s : pausedListeners_) {
      if (active_->isset(s) && listen_->isset(s) && !DemuxSet(s))
        closeSSock(s);
    }
    pausedListeners_.clear();
    return ms;
  }
  long const left = static_cast<long>(kAcceptPauseMs - spent);
  return ms < 0 ? left : std::min(ms, left);
}

void SocketCtrl::AcceptSocket(SOCKET listenSock, Callbacks const &cb) {
  SOCKET ns = sp::SockAccept(listenSock, nullptr);
  if (ns == kNone) {
    int const err = sp::SockLastError();
    if (err == sp::SockErrors::kProcFiles || err == sp::SockErrors::kSysFiles)
      PauseListener(listenSock);
    return;  // or the connection went away before it was taken
  }
  if (!AddActiveLocked(ns, false)) {
    _closesocket(ns);
    return;
  }
  int keep = 1;
  if (cb.obj)
    keep = cb.obj->connectCallback(this, listenSock, ns);
  if (keep && cb.connectFn)
    keep = cb.connectFn(this, listenSock, ns);
  if (!keep)
    closeSSock(ns);
}

bool SocketCtrl::Deliver(SOCKET s, Callbacks const &cb, char *data, unsigned len) {
  if (cb.obj)
    return cb.obj->acceptCallback(this, s, data, len) != 0;
  if (cb.dataFn)
    return cb.dataFn(this, s, data, len) != 0;
  return true;
}

void SocketCtrl::CloseWithReason(SOCKET s, Callbacks const &cb, char const *reason, bool udp, sockaddr_in *from) {
  if (udp) {
    if (cb.obj)
      cb.obj->closeUDPCallback(this, s, from, reason);
    else if (cb.udpCloseFn)
      cb.udpCloseFn(this, s, from, reason);
  } else {
    if (cb.obj)
      cb.obj->closeCallback(this, s, reason);
    else if (cb.closeFn)
      cb.closeFn(this, s, reason);
  }
  if (RemoveActiveSock(s, 0, 0, 0))
    _closesocket(s);
}

void SocketCtrl::ProcessSocketData(SOCKET s, Callbacks const &cb) {
  bool text = IsTxtMode() != 0;
  unsigned want = rcvBufSize_;
  if (text) {
    unsigned room = 0;
    if (!active_->GetTxtRoom(s, &room)) {
      if (!active_->AddTxtBuf(s)) {  // no memory for its text: the socket cannot go on
        closeSSock(s);
        return;
      }
      active_->GetTxtRoom(s, &room);
    }
    if (room < want)
      want = room;
  }
  int r = 0;
  if (want > 0) {
    // Never blocks: a stale readiness (the descriptor was reused meanwhile)
    // only yields a would-block, which is not an end of stream.
    r = sp::SockRecv(s, rxBuf_.data(), want, false, true);
    if (r < 0 && SocketWouldBlock(-1))
      return;
    if (r == 0) {
      PeerFinished(s, cb);
      return;
    }
    if (r < 0) {
      CloseWithReason(s, cb, kReasonPeerClosed, false, nullptr);
      return;
    }
  }
  if (!text) {
    if (!Deliver(s, cb, rxBuf_.data(), static_cast<unsigned>(r)))
      CloseWithReason(s, cb, kReasonCallback, false, nullptr);
    return;
  }
  if (r > 0)
    active_->PutTxt(s, rxBuf_.data(), static_cast<unsigned>(r));
  DeliverLines(s, cb);
}

bool SocketCtrl::DeliverLines(SOCKET s, Callbacks const &cb) {
  for (;;) {
    int len = active_->GetTxtLine(s, lineBuf_.data(), static_cast<unsigned>(lineBuf_.size()));
    if (len <= 0)
      return true;
    if (!Deliver(s, cb, lineBuf_.data(), static_cast<unsigned>(len))) {
      CloseWithReason(s, cb, kReasonCallback, false, nullptr);
      return false;
    }
    // A callback that closed its socket (or any closed it) gets no more lines.
    if (!active_->isset(s) || IsClosePending(s))
      return false;
  }
}

// The peer will send no more. Its last line counts even without a line end,
// and replies already accepted into the send queue still go out (for up to
// kDrainMs) before the socket is closed with the peer-closed reason.
void SocketCtrl::PeerFinished(SOCKET s, Callbacks const &cb) {
  if (IsTxtMode()) {
    if (!DeliverLines(s, cb))
      return;
    fdATxtSVector *set = static_cast<fdATxtSVector *>(active_);
    TxtBuf_reg *reg = set->GetTxtBuf(s);
    unsigned const pending = reg ? reg->Pending() : 0;
    if (pending > 0) {
      int len = reg->TakeRest(lineBuf_.data(), static_cast<unsigned>(lineBuf_.size()));
      if (len > 0 && !Deliver(s, cb, lineBuf_.data(), static_cast<unsigned>(len))) {
        CloseWithReason(s, cb, kReasonCallback, false, nullptr);
        return;
      }
      if (!active_->isset(s) || IsClosePending(s))
        return;
    }
  }
  FlushGathered(s);  // replies to the last lines may still go to the queue
  if (queue_ && queue_->HasData(s) && CanSendData(s)) {
    DemuxClr(s);  // nothing more to read: an end of stream would wake every wait
    draining_[s] = sp::TickCount();
    drainingCount_.fetch_add(1, std::memory_order_release);
    return;
  }
  CloseWithReason(s, cb, kReasonPeerClosed, false, nullptr);
}

void SocketCtrl::ProcessDraining(Callbacks const &cb) {
  if (draining_.empty())
    return;
  std::vector<SOCKET> done;
  std::uint32_t const now = sp::TickCount();
  for (auto const &[s, since] : draining_) {
    bool const flushed = !queue_ || !queue_->HasData(s);
    if (flushed || now - since >= kDrainMs || !CanSendData(s))
      done.push_back(s);
  }
  for (SOCKET s : done) {
    if (!CanSendData(s)) {
      ForgetDraining(s);  // a write error or close mark: closed by its own path
      continue;
    }
    CloseWithReason(s, cb, kReasonPeerClosed, false, nullptr);
  }
}

void SocketCtrl::ForgetDraining(SOCKET s) {
  if (draining_.erase(s) != 0)
    drainingCount_.fetch_sub(1, std::memory_order_release);
}

void SocketCtrl::QueueDrained(unsigned int sock) {
  (void)sock;
  if (drainingCount_.load(std::memory_order_acquire) != 0)
    Wake();
}

void SocketCtrl::ProcessUDPData(SOCKET s, Callbacks const &cb) {
  sockaddr_in from{};
  int r = sp::SockRecvFrom(s, rxBuf_.data(), rcvBufSize_, &from, true);
  if (r < 0 && SocketWouldBlock(-1))
    return;
  if (r < 0) {
    // A datagram longer than the receive size lost its tail: counted, never
    // handed on as if whole. Any other error is an earlier send's failure
    // (port unreachable) reported late; neither ends the socket.
    if (sp::SockLastError() == sp::SockErrors::kMsgSize)
      truncated_.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  int keep = 1;
  if (cb.obj)
    keep = cb.obj->acceptUDPCallback(this, s, &from, rxBuf_.data(), static_cast<unsigned>(r));
  else if (cb.udpDataFn)
    keep = cb.udpDataFn(this, s, &from, rxBuf_.data(), static_cast<unsigned>(r));
  if (!keep)
    CloseWithReason(s, cb, kReasonCallback, true, &from);
}

void SocketCtrl::ProcessCloseSSocks() {
  std::vector<SOCKET> pending;
  {
    std::lock_guard<std::mutex> m(markLock_);
    if (closePending_->count() == 0)
      return;
    unsigned pos = 0;
    for (unsigned s = closePending_->first(&pos); s != kNone; s = closePending_->next(&pos))
      pending.push_back(s);
  }
  for (SOCKET s : pending) {
    if (RemoveActiveSock(s, 0, 1, 0))
      _closesocket(s);
  }
  std::lock_guard<std::mutex> m(markLock_);
  for (SOCKET s : pending)
    closePending_->clr(s);
  NoteMarks();
}

int SocketCtrl::readall(char *buf, unsigned int size, int all, int keepOpen, long timeout, unsigned int *outSock,
                        sockaddr_in *from) {
  if (outSock)
    *outSock = kNone;
  if (!buf || size == 0 || !isSockOk())
    return -1;
  long const ms = SecondsToMs(timeout);
  std::uint32_t const start = sp::TickCount();
  PassGuard pass(*this);
  if (pass.Nested())
    return -1;
  SOCKET ready = kNone;
  bool listening = false;
  bool useDemux = false;
  {
    SemGuard g(*lock_);
    useDemux = demux_ && !noWait_.load(std::memory_order_acquire);
    if (!useDemux) {
      ready = GetMasterSocket();
      if (ready == kNone)
        return -1;
    }
  }
  int streakResult = 0;
  if (useDemux && !all && !from && ReadStreak(buf, size, keepOpen, outSock, &streakResult))
    return streakResult;
  if (useDemux) {
    // A wake-up (a socket added or closed by another thread) ends the wait
    // early; the wait then goes on for the time left.
    for (;;) {
      {
        SemGuard g(*lock_);
        waiting_ = true;
        inWait_.store(true, std::memory_order_release);
      }
      int n = WaitForEvents(TimeLeft(ms, start));
      SemGuard g(*lock_);
      waiting_ = false;
      ApplyDemuxChanges();
      if (n < 0) {
        ForgetClosedBehindUs();
        return -1;
      }
      unsigned long events = 0;
      for (unsigned s = n > 0 ? demux_->firstEvent(&events, nullptr, nullptr) : kNone; s != kNone;
           s = demux_->nextEvent(&events, nullptr, nullptr)) {
        if (active_->isset(s) && !IsClosePending(s)) {
          ready = s;
          listening = listen_->isset(s) != 0;
          break;
        }
      }
      if (ready != kNone || n == 0 || TimeLeft(ms, start) == 0)
        break;
    }
    if (ready == kNone)
      return 0;
  } else {
    int w = WaitOne(ready, 1u, ms);
    if (w < 0)
      return -1;
    if (w == 0)
      return 0;
  }
  if (listening) {
    SOCKET ns = sp::SockAccept(ready, nullptr);
    if (ns == kNone)
      return 0;
    SemGuard g(*lock_);
    if (!AddActiveLocked(ns, false)) {
      _closesocket(ns);
      return 0;
    }
    if (outSock)
      *outSock = ns;
    return 0;
  }
  if (outSock)
    *outSock = ready;
  // While the read runs without the lock, a close of this socket by another
  // thread is only marked (busy flag), so its number cannot be reused under
  // the read; the mark is carried out below.
  {
    SemGuard g(*lock_);
    busy_ = 1;
  }
  bool ended = false;
  int r = ReadReady(ready, buf, size, all != 0, from, ms, start, &ended);
  EndRead(ready, keepOpen, ended);
  if (useDemux && !all && !from)
    NoteRead(ready, size, r, ended);
  return r;
}

// Reads the socket of a streak without waiting. false when there is none or
// it had nothing after all: the caller waits as usual.
bool SocketCtrl::ReadStreak(char *buf, unsigned size, int keepOpen, unsigned *outSock, int *result) {
  SOCKET s = kNone;
  {
    SemGuard g(*lock_);
    s = streakSock_;
    streakSock_ = kNone;
    if (s == kNone || streakLeft_ == 0 || !active_->isset(s) || listen_->isset(s) || IsClosePending(s))
      return false;
    --streakLeft_;
    busy_ = 1;  // as for any read without the lock: a close is only marked
  }
  bool ended = false;
  int const r = ReadReady(s, buf, size, false, nullptr, 0, 0, &ended);
  EndRead(s, keepOpen, ended);
  if (r == 0)
    return false;
  if (outSock)
    *outSock = s;
  SemGuard g(*lock_);
  if (r == static_cast<int>(size) && streakLeft_ != 0)
    streakSock_ = s;
  *result = r;
  return true;
}

// After a read made without the lock: closes an ended socket (unless the
// caller keeps it) and carries out the closes marked meanwhile.
void SocketCtrl::EndRead(SOCKET s, int keepOpen, bool ended) {
  SemGuard g(*lock_);
  if (ended && !keepOpen && RemoveActiveSock(s, 0, 0, 0))
    _closesocket(s);
  ProcessCloseSSocks();
  busy_ = 0;
}

// A read after a wait that filled the buffer starts a streak.
void SocketCtrl::NoteRead(SOCKET s, unsigned size, int r, bool ended) {
  SemGuard g(*lock_);
  streakSock_ = !ended && r == static_cast<int>(size) ? s : kNone;
  streakLeft_ = kStreakReads;
}

// Reads s without ever blocking past the time-out. Bytes once taken are
// never dropped: with all, a stream that ends or a time-out that comes part
// way returns what arrived. *ended: the stream ended or failed.
int SocketCtrl::ReadReady(SOCKET s, char *buf, unsigned size, bool all, sockaddr_in *from, long ms,
                          std::uint32_t start, bool *ended) {
  unsigned total = 0;
  for (;;) {
    int r = from ? sp::SockRecvFrom(s, buf + total, size - total, from, true)
                 : sp::SockRecv(s, buf + total, size - total, false, true);
    if (r > 0) {
      total += static_cast<unsigned>(r);
      if (!all || from || total >= size)
        return static_cast<int>(total);
      continue;
    }
    if (r < 0 && SocketWouldBlock(-1)) {
      if (!all && total == 0)
        return 0;  // a stale readiness: nothing to read after all
      long const left = TimeLeft(ms, start);
      if (left != 0 && WaitOne(s, 1u, left) > 0)
        continue;
      return static_cast<int>(total);
    }
    if (total > 0)
      return static_cast<int>(total);  // the end is reported by the next read
    // A cut datagram is an error of that datagram only, not of the socket.
    *ended = !(from && r < 0 && sp::SockLastError() == sp::SockErrors::kMsgSize);
    return -1;
  }
}

int SocketCtrl::read(char *buf, unsigned int size, sockaddr_in *from, unsigned int sock, int all) {
  return so_read(buf, size, from, Resolve(sock), all);
}

int SocketCtrl::readLine(char *buf, unsigned int size, unsigned int sock) {
  return so_readLine(buf, size, Resolve(sock));
}

int SocketCtrl::readInt(unsigned int sock) { return so_readInt(Resolve(sock)); }

// Byte by byte, so nothing after the line leaves the socket (the caller may
// read raw data next), and never blocking: each byte is awaited for the time
// left, so a line that arrives in pieces is joined (a non-blocking socket
// included) and a peer that stops in the middle of a line cannot hold the
// caller past the time-out.
int SocketCtrl::getmsg(char *buf, unsigned int size, long timeout, unsigned int sock) {
  SOCKET s = Resolve(sock);
  if (!buf || size == 0 || s == kNone)
    return -1;
  buf[0] = '\0';
  long const limit = SecondsToMs(timeout);
  std::uint32_t const start = sp::TickCount();
  unsigned n = 0;
  while (n < size - 1) {  // a longer line is cut; its rest stays in the socket
    // Block reads that take nothing past the line, so the socket's next
    // reader (a pass, another getmsg) gets every later byte.
    char end = 0;
    int r = so_readLineStep(buf + n, size - 1 - n, s, true, &end);
    if (r >= 0) {
      n += static_cast<unsigned>(r);
      if (end == '\r')
        so_takePairedLf(s, true);
      if (end != 0)
        break;
      continue;
    }
    if (r == -2 || !SocketWouldBlock(-1)) {
      buf[n] = '\0';
      return -1;  // the stream ended or failed
    }
    long const left = TimeLeft(limit, start);
    int w = left == 0 ? 0 : WaitOne(s, 1u, left);
    if (w <= 0) {
      buf[n] = '\0';
      // Nothing at all: a time-out. Part of a line: the line is lost, which
      // a line protocol cannot recover from.
      return w == 0 && n == 0 ? 0 : -1;
    }
  }
  buf[n] = '\0';
  return static_cast<int>(n);
}
