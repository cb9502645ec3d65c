#include "socket/SocketCtrl.h"

#include "platform/Clock.h"
#include "platform/Compat.h"
#include "platform/Readiness.h"
#include "platform/SocketApi.h"
#include "socket/FdCtrl.h"
#include "socket/PassReplies.h"
#include "socket/SendQueue.h"
#include "socket/SocketPrimitives.h"
#include "socket/TxtBuf_reg.h"
#include "text/DebugOutput.h"
#include "text/TextRoutines.h"
#include "thread/Semaphore.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace sp = shared::platform;
using shared::SemGuard;

char const *const SocketCtrl::kReasonWriteError = "Socket write error. Disconnected!";
char const *const SocketCtrl::kReasonPeerClosed = "Connection closed by peer. Disconnected!";
char const *const SocketCtrl::kReasonCallback = "Connection closed by acceptCallBack(). Disconnected!";

namespace {

constexpr SOCKET kNone = SocketCtrl::kNoSocket;
constexpr unsigned kDefaultRcvSize = 65535;
constexpr unsigned kMaxLine = 65535;
constexpr unsigned kDefaultFrag = 1400;
// Bound of the retry loop of _write (about 1 ms each): a peer that takes no
// byte for this long is treated as failed instead of hanging the caller.
constexpr int kMaxRetries = 30000;

bool IsUdpProto(char const *proto) { return proto && _stricmp(proto, "udp") == 0; }

// A time-out in seconds as milliseconds: negative is no limit (-1), a huge
// value saturates instead of overflowing.
long SecondsToMs(long seconds) {
  constexpr long kMax = std::numeric_limits<long>::max() / 1000;
  if (seconds < 0)
    return -1;
  return seconds > kMax ? kMax * 1000 : seconds * 1000;
}

// Waits up to ms for s to be ready for kinds (1 read, 2 write); the ready
// mask (4 for error), 0 on time-out, -1 on failure.
int WaitOne(SOCKET s, unsigned kinds, long ms) {
  std::uint32_t one = s;
  unsigned char ready = 0;
  int r = sp::WaitSockets(&one, 1, kinds | 4u, ms, &ready);
  return r > 0 ? ready : r;
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

// Holds the pass mutex for one pass. A pass started from a callback of a
// pass of the same controller (same thread) is refused instead of
// deadlocking or corrupting the outer walk.
class SocketCtrl::PassGuard {
public:
  explicit PassGuard(SocketCtrl &c) : c_(c) {
    c_.passMutex_.lock();
    nested_ = c_.passDepth_ > 0;
    ++c_.passDepth_;
  }
  ~PassGuard() {
    --c_.passDepth_;
    c_.passMutex_.unlock();
  }
  bool Nested() const { return nested_; }
  PassGuard(PassGuard const &) = delete;
  PassGuard &operator=(PassGuard const &) = delete;

private:
  SocketCtrl &c_;
  bool nested_ = false;
};

// --- SockOptions -------------------------------------------------------------

unsigned SockOptions::Reserve(unsigned n, std::int64_t now) {
  if (Second() != now) {
    SetSecond(now);
    secondBytes = 0;
  }
  unsigned allow = n;
  if (rateLimit != 0)
    allow = secondBytes >= rateLimit ? 0 : std::min(n, rateLimit - secondBytes);
  secondBytes += allow;
  return allow;
}

void SockOptions::Settle(unsigned reserved, unsigned sent, std::int64_t now) {
  if (sent > 0) {
    if (countStart == 0) {
      countStart = static_cast<std::uint32_t>(now);
      if (countStart == 0)
        countStart = 1;
    }
    SetSent(Sent() + sent);
  }
  // What a short send did not use goes back to the second it was taken from.
  if (reserved > sent && Second() == now)
    secondBytes -= std::min(reserved - sent, secondBytes);
}

// --- ISocketCtrl defaults ------------------------------------------------------

int ISocketCtrl::acceptCallback(SocketCtrl *, unsigned int, char *, unsigned int) { return 0; }
int ISocketCtrl::connectCallback(SocketCtrl *, unsigned int, unsigned int) { return 0; }
void ISocketCtrl::closeCallback(SocketCtrl *, unsigned int, char const *) {}
int ISocketCtrl::acceptUDPCallback(SocketCtrl *, unsigned int, sockaddr_in *, char *, unsigned int) { return 0; }
void ISocketCtrl::closeUDPCallback(SocketCtrl *, unsigned int, sockaddr_in *, char const *) {}

// --- Construction ----------------------------------------------------------------

SocketCtrl::SocketCtrl(SendQueue *queue, int ownerFlag, unsigned int rcvBufSize, int noWait, int linuxMode,
                       char const *name)
    : queue_(queue), noWait_(noWait), rcvBufSize_(rcvBufSize ? rcvBufSize : kDefaultRcvSize),
      ownerFlag_(ownerFlag) {
  ajusta_str(name ? name : "", name_, 63);
  lock_ = new _SEMAPHORE(3, 1, 0, static_cast<unsigned long>(-1), -1);
  optLock_ = new _SEMAPHORE(3, 1, 0, static_cast<unsigned long>(-1), -1);
  auto *active = new fdATxtSVector();
  // Only sockets that carry text get a register, when their first bytes come.
  active->SetLazyRegisters(true);
  active_ = active;
  listen_ = new fdVector();
  closePending_ = new fdVector();
  writeError_ = new fdVector();
  if (!noWait) {
    demux_ = InitSockEventsWrapper(linuxMode ? 9 : 1, this, name_);
    WatchWakeFd();
  }
  // One spare byte: a binary-mode callback handed a full buffer may end it
  // with a NUL at data[len].
  rxBuf_.resize(static_cast<std::size_t>(rcvBufSize_) + 1);
  replies_ = std::make_unique<shared::socket::detail::PassReplies>(&SendGathered, this);
  lineBuf_.resize(kMaxLine + 1);
}

SocketCtrl::~SocketCtrl() {
  if (lock_) {
    SemGuard g(*lock_);
    CloseAll();
    ApplyDemuxChanges();
  }
  if (demux_)
    demux_->zero();
  delete demux_;
  delete active_;
  delete listen_;
  delete closePending_;
  delete writeError_;
  delete optLock_;
  delete lock_;
}

int SocketCtrl::isSockOk() const {
  return lock_ && lock_->IsOk() && optLock_ && optLock_->IsOk() && active_ && listen_ && closePending_ &&
         writeError_;
}

unsigned int SocketCtrl::firstActiveSocket(unsigned int *pos) {
  if (!active_) {
    if (pos)
      *pos = 0;
    return kNone;
  }
  return active_->first(pos);
}

unsigned int SocketCtrl::nextActiveSocket(unsigned int *pos) {
  if (!active_) {
    if (pos)
      *pos = 0;
    return kNone;
  }
  return active_->next(pos);
}

void SocketCtrl::SetMasterSocket(SOCKET s) {
  SemGuard g(*lock_);
  master_.store(s, std::memory_order_release);
}

IfdCtrl *SocketCtrl::GetListenFdSel() const { return listen_; }

int SocketCtrl::GetNumListenSocks() {
  SemGuard g(*lock_);
  return listen_->count();
}

int SocketCtrl::IsListenSock(SOCKET s) {
  SemGuard g(*lock_);
  return s != kNone && listen_->isset(s) ? 1 : 0;
}

int SocketCtrl::IsConnected(SOCKET s) {
  s = Resolve(s);
  if (s == kNone)
    return 0;
  SemGuard g(*lock_);
  return active_->isset(s) ? 1 : 0;
}

unsigned long SocketCtrl::GetEventsMode() {
  SemGuard g(*lock_);
  return demux_ ? demux_->GetMode() : 0;
}

int SocketCtrl::SetEventsModes(unsigned char modes) {
  PassGuard pass(*this);
  SemGuard g(*lock_);
  if (pass.Nested() || active_->count() != 0)
    return 0;
  SockEventsWrapper *w = InitSockEventsWrapper(modes, this, name_);
  if (!w)
    return 0;
  if (demux_)
    demux_->zero();
  delete demux_;
  demux_ = w;
  WatchWakeFd();
  return 1;
}

void SocketCtrl::WatchWakeFd() {
  if (demux_ && wake_.IsOpen())
    demux_->set(static_cast<SOCKET>(wake_.Fd()), nullptr, static_cast<int>(kSewRead));
}

void SocketCtrl::Wake() {
  if (!inWait_.load(std::memory_order_acquire))
    return;
  wake_.Signal();
  wakes_.fetch_add(1, std::memory_order_release);
}

// Unlike Wake, signals even outside a wait: the caller may have changed
// something the pass thread looks at between passes (a clock, a flag), and
// the next wait must not sleep through it.
void SocketCtrl::WakeUp() {
  if (!wake_.IsOpen())
    return;
  wake_.Signal();
  wakes_.fetch_add(1, std::memory_order_release);
}

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

void SocketCtrl::SetNoWait(int noWait) { noWait_.store(noWait, std::memory_order_release); }

void SocketCtrl::SetDefSin(sockaddr_in const *sin) {
  if (!sin)
    return;
  std::lock_guard<std::mutex> m(markLock_);
  defSin_ = *sin;
}

void SocketCtrl::GetDefSin(sockaddr_in *sin) {
  if (!sin)
    return;
  std::lock_guard<std::mutex> m(markLock_);
  *sin = defSin_;
}

void SocketCtrl::SetTxtMode() { txtMode_.store(1, std::memory_order_release); }
void SocketCtrl::SetBinMode() { txtMode_.store(0, std::memory_order_release); }

int SocketCtrl::Wait(char const *who) { return lock_->Wait(1, who); }
int SocketCtrl::Signal(char const *who) { return lock_->Signal(who); }

SOCKET SocketCtrl::Resolve(unsigned int sock) const {
  return sock == kNone ? master_.load(std::memory_order_acquire) : sock;
}

// --- Registration ---------------------------------------------------------------

bool SocketCtrl::DemuxSet(SOCKET s) {
  if (!demux_)
    return true;
  if (waiting_) {
    demuxPending_.emplace_back(s, true);
    Wake();
    return true;
  }
  return demux_->set(s, nullptr, static_cast<int>(kSewRead)) != 0;
}

void SocketCtrl::DemuxClr(SOCKET s) {
  if (!demux_)
    return;
  if (waiting_) {
    // The socket may be closed as soon as this returns and its number
    // reused before the pass applies the change: the system must let go of
    // it now, and the pass only forgets it.
    demux_->unwatch(s);
    demuxPending_.emplace_back(s, false);
    Wake();
  } else
    demux_->clr(s);
}

void SocketCtrl::ApplyDemuxChanges() {
  if (demux_) {
    for (auto const &[s, add] : demuxPending_) {
      if (add && !demux_->set(s, nullptr, static_cast<int>(kSewRead)))
        closeSSock(s);  // the backend is full (select): the socket cannot be watched
      else if (!add)
        demux_->forget(s);
    }
  }
  demuxPending_.clear();
}

bool SocketCtrl::AddActiveLocked(SOCKET s, bool listening) {
  if (s == kNone)
    return false;
  if (!active_->isset(s)) {
    if (active_->set(s) == 0)
      return false;
    if (!DemuxSet(s)) {
      active_->clr(s);  // e.g. select's 2048 sockets: refuse rather than hold it unwatched
      return false;
    }
  }
  if (listening && !listen_->isset(s) && listen_->set(s) == 0) {
    active_->clr(s);
    DemuxClr(s);
    return false;
  }
  return true;
}

int SocketCtrl::AddActiveSock(SOCKET s, int listening) {
  SemGuard g(*lock_);
  return AddActiveLocked(s, listening != 0) ? 1 : 0;
}

// --- Making sockets ---------------------------------------------------------------

// The socket of a connect or listen: 0 refuses (blank protocol, or a stream
// socket on a datagram controller), otherwise the handle (kNone on failure).
int SocketCtrl::MakeSocket(char const *proto, bool *udp) {
  *udp = IsUdpProto(proto);
  if (!*udp && IsUDP())
    return -1;
  int number = sp::SockProtocolByName(*udp ? "udp" : proto);
  if (number < 0)
    number = 0;
  SOCKET s = sp::SockOpen(*udp ? sp::kSockDatagram : sp::kSockStream, number);
  return s == kNone ? -1 : static_cast<int>(s);
}

int SocketCtrl::connect(char const *host, char const *proto, int port, char const *service,
                        unsigned int *outSock, char const *bindAddr, int wait, int makeMaster) {
  if (outSock)
    *outSock = kNone;
  if (comp_branco(proto) || !isSockOk())
    return 0;
  bool udp = IsUdpProto(proto);
  if (!udp && IsUDP())
    return 0;
  if (comp_branco(host)) {
    if (!udp)
      return 0;
    host = "0.0.0.0";
  }
  unsigned addr = IPStrToLong(host);
  if (addr == 0xFFFFFFFFu) {
    addr = sp::SockResolveHost(host);
    if (addr == 0xFFFFFFFFu)
      return 0;
  }
  std::uint16_t portNet = sp::SockServicePort(service, udp ? "udp" : "tcp");
  if (portNet == 0)
    portNet = sp::SockHtons(static_cast<std::uint16_t>(port));
  int level = GetLogLevel();
  if (level >= 0)
    _DebugNotifyOnly(level, name_, "Connect to %s:%d", host, static_cast<int>(sp::SockNtohs(portNet)));

  int made = MakeSocket(proto, &udp);
  if (made < 0)
    return 0;
  SOCKET s = static_cast<SOCKET>(made);
  unsigned bindTo = IPStrToLong(bindAddr);
  if (bindTo != 0xFFFFFFFFu) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = bindTo;
    if (sp::SockBind(s, &local) != 0) {
      _closesocket(s);
      return 0;
    }
  }
  if (!wait)
    sp::SockSetNonBlocking(s);
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = portNet;
  peer.sin_addr.s_addr = addr;
  // The socket is registered only once connected: a pass that saw it
  // earlier would read an unconnected socket, take that for an end of
  // stream and close it under the connecting thread's feet. Until then
  // this thread alone holds the descriptor and alone may close it.
  if (!udp && sp::SockConnect(s, &peer) != 0) {
    bool inProgress = !wait && SocketWouldBlock(-1);
    if (!inProgress) {
      _closesocket(s);
      return 0;
    }
  }
  SetDefSin(&peer);
  SemGuard g(*lock_);
  if (wait && !AddActiveLocked(s, false)) {
    _closesocket(s);
    return 0;
  }
  if (outSock)
    *outSock = s;
  if (GetMasterSocket() != kNone && !makeMaster)
    return 1;
  master_.store(s, std::memory_order_release);
  masterRdy_.store(wait ? 1 : 0, std::memory_order_release);
  if (udp)
    udp_.store(1, std::memory_order_release);
  return 1;
}

int SocketCtrl::listen(char const *proto, int backlog, int port, char const *localAddr, char const *service,
                       unsigned int *outSock, int noListen, int *outPort) {
  if (outSock)
    *outSock = kNone;
  if (outPort)
    *outPort = 0;
  if (comp_branco(proto) || !isSockOk())
    return 0;
  bool udp = false;
  int made = MakeSocket(proto, &udp);
  if (made < 0)
    return 0;
  SOCKET s = static_cast<SOCKET>(made);
  unsigned local = IPStrToLong(localAddr);
  if (local == 0xFFFFFFFFu)
    local = 0;  // any address
  unsigned chosen = static_cast<unsigned>(port);
  std::uint16_t portNet = sp::SockServicePort(service, udp ? "udp" : "tcp");
  if (portNet != 0)
    chosen = sp::SockNtohs(portNet);
  else
    portNet = sp::SockHtons(static_cast<std::uint16_t>(port));

  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  sin.sin_port = portNet;
  sin.sin_addr.s_addr = local;
  bool ok = sp::SockSetOptInt(s, sp::SockOpt::kReuseAddr, 1) == 0 && sp::SockBind(s, &sin) == 0;
  bool listening = !udp && !noListen;
  if (ok && listening)
    ok = sp::SockListen(s, backlog) == 0;
  // The pass accepts only when the socket is reported ready; a connection
  // reset in between must not block the dispatch thread in accept.
  if (ok && listening)
    sp::SockSetNonBlocking(s);
  if (ok) {
    SemGuard g(*lock_);
    ok = AddActiveLocked(s, listening);
    if (ok) {
      if (GetMasterSocket() == kNone) {
        master_.store(s, std::memory_order_release);
        masterRdy_.store(1, std::memory_order_release);
        udp_.store(udp ? 1 : 0, std::memory_order_release);
      }
    }
  }
  if (ok && chosen == 0)
    ok = GetSockName(s, nullptr, 0, &chosen) == 1;
  if (!ok) {
    {
      SemGuard g(*lock_);
      RemoveActiveSock(s, 0, 0, 0);
    }
    _closesocket(s);
    return 0;
  }
  if (outSock)
    *outSock = s;
  if (outPort)
    *outPort = static_cast<int>(chosen);
  return 1;
}

int SocketCtrl::connectMCast(sockaddr_in const *group, char const *iface, int ttl, unsigned int *outSock,
                             int makeMaster) {
  if (outSock)
    *outSock = kNone;
  if (!group || !isSockOk())
    return 0;
  bool udp = true;
  int made = MakeSocket("udp", &udp);
  if (made < 0)
    return 0;
  SOCKET s = static_cast<SOCKET>(made);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = group->sin_port;
  char groupText[16];
  GetSinIP(const_cast<sockaddr_in *>(group), groupText, 15);
  bool ok = sp::SockSetOptInt(s, sp::SockOpt::kReuseAddr, 1) == 0 && sp::SockBind(s, &local) == 0 &&
            ::AddMembership(groupText, iface, s) == 1 && ::SetMulticast(ttl, iface, s) == 1;
  if (ok) {
    SemGuard g(*lock_);
    ok = AddActiveLocked(s, false);
    if (ok) {
      SetDefSin(group);
      if (GetMasterSocket() == kNone || makeMaster) {
        master_.store(s, std::memory_order_release);
        masterRdy_.store(1, std::memory_order_release);
        udp_.store(1, std::memory_order_release);
      }
    }
  }
  if (!ok) {
    _closesocket(s);
    return 0;
  }
  if (outSock)
    *outSock = s;
  return 1;
}

int SocketCtrl::connectMCast(char const *group, int port, char const *iface, int ttl, unsigned int *outSock,
                             int makeMaster) {
  if (outSock)
    *outSock = kNone;
  sockaddr_in sin{};
  if (SetSockAddrIn(&sin, group, port) == 0xFFFFFFFFu)
    return 0;
  return connectMCast(&sin, iface, ttl, outSock, makeMaster);
}

// --- Dispatch -----------------------------------------------------------------------

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
  SemGuard g(*lock_);
  if (ended && !keepOpen && RemoveActiveSock(ready, 0, 0, 0))
    _closesocket(ready);
  ProcessCloseSSocks();
  busy_ = 0;
  return r;
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

// --- Writing ---------------------------------------------------------------------

int SocketCtrl::_write(char const *buf, unsigned int n, unsigned int sock, int /*mode*/, int all, int markError,
                       int markOnBlock, int *err, int datagram, int retry, sockaddr_in *to) {
  if (err)
    *err = 0;
  if (!buf)
    return -1;
  if (n == 0)
    n = static_cast<unsigned>(std::strlen(buf));
  SOCKET s = Resolve(sock);
  if (s == kNone || n == 0)
    return -1;
  sockaddr_in dest{};
  if (datagram) {
    if (to)
      dest = *to;
    else
      GetDefSin(&dest);
  }
  unsigned total = 0;
  int lastErr = 0;
  int retries = 0;
  for (;;) {
    int r;
    if (datagram) {
      r = sp::SockSendTo(s, buf, n, &dest);
      if (r >= 0 && static_cast<unsigned>(r) < n) {
        sp::SockSetLastError(11);  // a datagram sent short is lost: try again later
        r = -1;
      }
    } else {
      r = sp::SockSend(s, buf + total, n - total);
    }
    if (r > 0) {
      total += static_cast<unsigned>(r);
      if (!all || total >= n)
        break;
      continue;
    }
    lastErr = r < 0 ? sp::SockLastError() : 0;
    bool wouldBlock = r < 0 && SocketWouldBlock(lastErr);
    if (all && retry && !markOnBlock && wouldBlock && ++retries < kMaxRetries) {
      WaitOne(s, 2u, 1);
      continue;
    }
    if (!datagram && r < 0 && (wouldBlock ? markOnBlock : markError))
      MarkWriteError(s);
    break;
  }
  if (err)
    *err = lastErr;
  // A message that went out in part leaves the stream torn: whatever is
  // written next would be glued to its head, so the socket is failed.
  if (all && !datagram && total > 0 && total < n)
    MarkWriteError(s);
  if (total == 0 && lastErr != 0 && !SocketWouldBlock(lastErr))
    return -1;
  return static_cast<int>(total);
}

int SocketCtrl::write(char const *buf, unsigned int n, unsigned int sock, int all, int markError, int datagram,
                      int retry, sockaddr_in *to) {
  SOCKET s = Resolve(sock);
  if (!buf || n == 0 || s == kNone || !CanSendData(s))
    return -1;
  int dgram = datagram == -1 ? IsUDP() : datagram;
  if (OnWalkThread()) {
    if (Gatherable(s, all, markError, dgram))
      return replies_->Add(s, buf, n, retry != 0) ? static_cast<int>(n) : -1;
    FlushGathered(s);  // bytes gathered earlier go first
  }
  SockOptions o;
  if (!GetSockOptions(s, &o))
    return _write(buf, n, s, 0, all, markError, 0, nullptr, dgram, retry, to);
  if (o.Queued() && queue_ != nullptr && !dgram)
    return WriteQueued(buf, n, s, markError);
  // Not queued: the message goes whole within the allowance or not at all.
  unsigned reserved = n;
  std::int64_t const now = sp::NowSeconds();
  if (o.Accounting())
    reserved = ReserveAllowance(s, n, now);
  int sent = 0;
  if (reserved == n)
    sent = _write(buf, n, s, 0, all, markError, 0, nullptr, dgram, retry, to);
  if (o.Accounting())
    SettleAllowance(s, reserved, sent > 0 ? static_cast<unsigned>(sent) : 0, now);
  return sent;
}

// Text-mode controllers carry line protocols over TCP, where a callback's
// replies can be glued without changing what the peer reads. Sockets with
// send options (queue, rate) keep their per-message rules, so they are not
// gathered; neither are datagrams nor foreign or listening descriptors.
bool SocketCtrl::Gatherable(SOCKET s, int all, int markError, int dgram) {
  if (!all || !markError || dgram || !IsTxtMode() || IsUDP())
    return false;
  if (!active_->isset(s) || listen_->isset(s))  // lock_ is held by the walk
    return false;
  if (optionCount_.load(std::memory_order_acquire) == 0)
    return true;
  SemGuard og(*optLock_);
  return options_.find(s) == options_.end();
}

bool SocketCtrl::SendGathered(void *self, std::uint32_t sock, char const *data, unsigned len, bool retry) {
  auto *c = static_cast<SocketCtrl *>(self);
  int const sent = c->_write(data, len, sock, 0, 1, 1, 0, nullptr, 0, retry ? 1 : 0, nullptr);
  if (sent == static_cast<int>(len))
    return true;
  // The writers were told their bytes went out: the socket cannot go on.
  c->MarkWriteError(sock);
  return false;
}

void SocketCtrl::FlushGathered(SOCKET s) {
  if (!replies_->Empty() && OnWalkThread())
    replies_->Flush(s);
}

void SocketCtrl::FlushAllGathered() {
  if (!replies_->Empty())
    replies_->FlushAll();
}

// A queued socket's bytes leave in order and each message whole: the queue's
// lock is held from the flush of older bytes to the queueing of the new
// message's rest, so two writers cannot interleave, and the direct send
// never waits (a full socket only means the rest is queued).
int SocketCtrl::WriteQueued(char const *buf, unsigned n, SOCKET s, int markError) {
  SendQueue::Hold hold(*queue_);
  // Older bytes go first; with none queued the message goes straight out.
  if (queue_->HasData(s))
    queue_->SendQueuedData(0, s);
  if (queue_->HasData(s))
    return static_cast<int>(EnqueueData(s, buf, n));
  std::int64_t const now = sp::NowSeconds();
  unsigned const allow = ReserveAllowance(s, n, now);
  unsigned done = 0;
  int err = 0;
  if (allow > 0) {
    int r = sp::SockSend(s, buf, allow, true);
    if (r > 0)
      done = static_cast<unsigned>(r);
    else
      err = sp::SockLastError();
  }
  SettleAllowance(s, allow, done, now);
  if (err != 0 && !SocketWouldBlock(err)) {
    if (markError)
      MarkWriteError(s);
    return done > 0 ? static_cast<int>(done) : -1;
  }
  if (done == n)
    return static_cast<int>(n);
  unsigned const queued = EnqueueData(s, buf + done, n - done);
  if (queued == 0 && done > 0)
    MarkWriteError(s);  // the queue refused the rest: the message is torn
  return static_cast<int>(done + queued);
}

// Takes up to n bytes of sock's allowance for second now at once, so that
// concurrent writers can never spend one allowance twice. n when the socket
// has no record or counts without a limit.
unsigned SocketCtrl::ReserveAllowance(SOCKET s, unsigned n, std::int64_t now) {
  SemGuard g(*optLock_);
  auto it = options_.find(s);
  if (it == options_.end() || !it->second.Accounting())
    return n;
  return it->second.Reserve(n, now);
}

void SocketCtrl::SettleAllowance(SOCKET s, unsigned reserved, unsigned sent, std::int64_t now) {
  SemGuard g(*optLock_);
  auto it = options_.find(s);
  if (it != options_.end() && it->second.Accounting())
    it->second.Settle(reserved, sent, now);
}

bool SocketCtrl::AcceptsQueued(unsigned int sock) { return CanSendData(sock) != 0; }

SendTerms SocketCtrl::ReserveQueued(unsigned int sock, unsigned want) {
  SendTerms t;
  t.allow = want;
  if (optionCount_.load(std::memory_order_acquire) == 0)
    return t;
  SemGuard g(*optLock_);
  auto it = options_.find(sock);
  if (it == options_.end())
    return t;
  t.framed = it->second.framed != 0;
  t.rateLimit = it->second.rateLimit;
  if (it->second.Accounting()) {
    t.accounting = true;
    t.second = sp::NowSeconds();
    t.allow = it->second.Reserve(want, t.second);
  }
  return t;
}

void SocketCtrl::SettleQueued(unsigned int sock, SendTerms const &terms, unsigned sent) {
  if (terms.accounting)
    SettleAllowance(sock, terms.allow, sent, terms.second);
}

unsigned SocketCtrl::SendQueued(unsigned int sock, sp::SockPiece const *pieces, unsigned count) {
  int r = sp::SockSendPieces(sock, pieces, count, true);
  if (r >= 0)
    return static_cast<unsigned>(r);
  if (!SocketWouldBlock(-1))
    MarkWriteError(sock);
  return 0;
}

int SocketCtrl::writeLine(char const *text, unsigned int sock, EolFormat eol) {
  if (!text)
    return 0;
  std::size_t len = std::min<std::size_t>(std::strlen(text), kMaxLine);
  // One buffer per thread, kept: a steady stream of lines allocates nothing.
  thread_local std::vector<char> line;
  line.assign(text, text + len);
  if (eol == EOL_CRLF)
    line.push_back('\r');
  line.push_back('\n');
  unsigned n = static_cast<unsigned>(line.size());
  return write(line.data(), n, sock, 1, 1, -1, 0, nullptr) == static_cast<int>(n) ? 1 : 0;
}

int SocketCtrl::writeFrag(char const *buf, unsigned int n, unsigned int fragSize, unsigned int sock,
                          sockaddr_in *to) {
  if (!buf || n == 0)
    return -1;
  if (fragSize == 0) {
    int max = GetMaxMsgSize(sock);
    fragSize = max > 0 ? static_cast<unsigned>(max) : kDefaultFrag;
  }
  unsigned total = 0;
  while (total < n) {
    unsigned piece = std::min(fragSize, n - total);
    int r = write(buf + total, piece, sock, 1, 1, -1, 0, to);
    if (r > 0)
      total += static_cast<unsigned>(r);
    if (r != static_cast<int>(piece))
      break;
  }
  return total > 0 ? static_cast<int>(total) : -1;
}

int SocketCtrl::_writeto(char const *buf, int len, sockaddr_in *to, unsigned int sock) {
  return so_writeto(buf, len, to, Resolve(sock));
}

bool SocketCtrl::IsClosePending(SOCKET s) {
  std::lock_guard<std::mutex> m(markLock_);
  return closePending_->isset(s) != 0;
}

void SocketCtrl::MarkWriteError(SOCKET s) {
  {
    std::lock_guard<std::mutex> m(markLock_);
    if (writeError_->isset(s))
      return;
    writeError_->set(s);
    NoteMarks();
  }
  Wake();  // the close is due at the start of the next pass, not seconds later
}

int SocketCtrl::CanSendData(unsigned int sock) {
  SOCKET s = Resolve(sock);
  if (s == kNone)
    return 0;
  if (marks_.load(std::memory_order_acquire) == 0)
    return 1;  // the common case takes no lock
  std::lock_guard<std::mutex> m(markLock_);
  return writeError_->isset(s) || closePending_->isset(s) ? 0 : 1;
}

int SocketCtrl::isSockSndBufFull(unsigned int sock) {
  SOCKET s = Resolve(sock);
  return queue_ && s != kNone && queue_->HasData(s) ? 1 : 0;
}

unsigned int SocketCtrl::GetSndQueuedDataSize(unsigned int sock, unsigned int *count) {
  if (count)
    *count = 0;
  SOCKET s = Resolve(sock);
  if (!queue_ || s == kNone)
    return 0;
  return queue_->GetSendQueueSize(s, count);
}

unsigned int SocketCtrl::EnqueueData(unsigned int sock, char const *data, unsigned int n) {
  SOCKET s = Resolve(sock);
  SockOptions o;
  if (!queue_ || s == kNone || !data || n == 0 || !GetSockOptions(s, &o) || !o.Queued())
    return 0;
  if (!o.framed)
    return queue_->insert(s, data, n, o.maxQueue, this, 0);
  // A framed socket's queue holds whole messages, [length][bytes], packed
  // into its slots (the sender reads across slots). The queue takes a
  // message whole or not at all.
  if (n > 0xFFFFFFFFu - 4)
    return 0;
  std::vector<char> msg(4 + static_cast<std::size_t>(n));
  std::uint32_t len = n;
  std::memcpy(msg.data(), &len, 4);
  std::memcpy(msg.data() + 4, data, n);
  return queue_->insert(s, msg.data(), 4 + n, o.maxQueue, this, 0) == 4 + n ? n : 0;
}

// --- Per-socket options ------------------------------------------------------------

int SocketCtrl::SetMaxSendQueue(unsigned int maxBytes, int framed, unsigned int sock) {
  SOCKET s = Resolve(sock);
  if (s == kNone)
    return 0;
  SemGuard g(*optLock_);
  SockOptions &o = options_[s];
  NoteOptions();
  o.maxQueue = maxBytes;
  o.framed = framed ? 1 : 0;
  return 1;
}

int SocketCtrl::SetBytesCount(int on, unsigned int bytesPerSecond, unsigned int sock) {
  SOCKET s = Resolve(sock);
  if (s == kNone)
    return 0;
  SemGuard g(*optLock_);
  SockOptions &o = options_[s];
  NoteOptions();
  o.countOn = (on || bytesPerSecond) ? 1 : 0;
  o.rateLimit = bytesPerSecond;
  o.countStart = 0;
  o.SetSent(0);
  o.SetSecond(0);
  o.secondBytes = 0;
  return 1;
}

unsigned int SocketCtrl::GetBitRate(int reset, unsigned int sock) {
  SOCKET s = Resolve(sock);
  if (s == kNone)
    return 0;
  SemGuard g(*optLock_);
  auto it = options_.find(s);
  if (it == options_.end() || it->second.countStart == 0)
    return 0;
  SockOptions &o = it->second;
  std::uint32_t now = static_cast<std::uint32_t>(sp::NowSeconds());
  std::uint32_t elapsed = now - o.countStart;  // modulo 2^32, like the stored start
  if (elapsed == 0)
    elapsed = 1;
  std::uint64_t bits = o.Sent() * 8 / elapsed;
  if (reset) {
    o.countStart = 0;
    o.SetSent(0);
  }
  return bits > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<unsigned>(bits);
}

void SocketCtrl::NoteMarks() {
  marks_.store(static_cast<unsigned>(writeError_->count() + closePending_->count()), std::memory_order_release);
}

void SocketCtrl::NoteOptions() { optionCount_.store(static_cast<unsigned>(options_.size()), std::memory_order_release); }

void SocketCtrl::InitSockOptVector() {
  SemGuard g(*optLock_);
  options_.clear();
  NoteOptions();
}

int SocketCtrl::GetSockOptions(unsigned int sock, SockOptions *out) {
  if (optionCount_.load(std::memory_order_acquire) == 0)
    return 0;  // no record anywhere: no lock for the common write
  SemGuard g(*optLock_);
  auto it = options_.find(sock);
  if (it == options_.end())
    return 0;
  if (out)
    *out = it->second;
  return 1;
}

int SocketCtrl::UpdateSockOptions(unsigned int sock, SockOptions const *opts) {
  if (sock == kNone || !opts)
    return 0;
  SemGuard g(*optLock_);
  options_[sock] = *opts;
  NoteOptions();
  return 1;
}

void SocketCtrl::WaitSockOpt() { optLock_->Wait(1); }
void SocketCtrl::SignalSockOpt() { optLock_->Signal(); }

// --- Completing a connection ---------------------------------------------------------

int SocketCtrl::TestWriteSock(unsigned int sock, unsigned int seconds, int activate) {
  SOCKET s = Resolve(sock);
  if (s == kNone)
    return 0;
  // The wait is for the connection, so it is a readiness wait with the
  // time-out as its limit, not a timed sleep.
  int w = WaitOne(s, 2u, static_cast<long>(seconds) * 1000);
  int err = 0;
  bool ok = w > 0 && !(w & 4) && sp::SockGetOptInt(s, sp::SockOpt::kError, &err) == 0 && err == 0;
  SemGuard g(*lock_);
  if (ok && activate && !AddActiveLocked(s, false))
    ok = false;
  if (ok && s == GetMasterSocket())
    masterRdy_.store(1, std::memory_order_release);
  if (ok)
    return 1;
  if (!busy_) {
    RemoveActiveSock(s, 0, 0, 0);
    CloseUnlisted(s);
  } else if (active_->isset(s)) {
    closeSSock(s);
  } else {
    CloseUnlisted(s);
  }
  if (s == GetMasterSocket()) {
    master_.store(kNone, std::memory_order_release);
    masterRdy_.store(0, std::memory_order_release);
  }
  return 0;
}

// --- Options -------------------------------------------------------------------------

int SocketCtrl::GetMaxMsgSize(unsigned int sock) { return ::GetMaxMsgSize(Resolve(sock)); }
int SocketCtrl::GetRcvBufSize(unsigned int sock) { return ::GetRcvBufSize(Resolve(sock)); }
int SocketCtrl::GetSndBufSize(unsigned int sock) { return ::GetSndBufSize(Resolve(sock)); }
int SocketCtrl::SetRcvBufSize(int bytes, unsigned int sock) {
  return ::SetRcvBufSize(static_cast<unsigned>(bytes), Resolve(sock));
}
int SocketCtrl::SetSndBufSize(int bytes, unsigned int sock) {
  return ::SetSndBufSize(static_cast<unsigned>(bytes), Resolve(sock));
}
int SocketCtrl::SetTCPNoDelay(int on, unsigned int sock) { return ::SetTCPNoDelay(on, Resolve(sock)); }
int SocketCtrl::SetMulticast(int ttl, char const *iface, unsigned int sock) {
  return ::SetMulticast(ttl, iface, Resolve(sock));
}
int SocketCtrl::AddMembership(char const *group, char const *iface, unsigned int sock) {
  return ::AddMembership(group, iface, Resolve(sock));
}
int SocketCtrl::DropMembership(char const *group, char const *iface, unsigned int sock) {
  return ::DropMembership(group, iface, Resolve(sock));
}
int SocketCtrl::set_non_blocking(unsigned int sock) { return ::set_non_blocking(Resolve(sock)); }
int SocketCtrl::set_dont_linger(unsigned int sock) { return ::set_dont_linger(Resolve(sock)); }

// --- Closing -------------------------------------------------------------------------

void SocketCtrl::closeSSock(unsigned int sock) {
  SOCKET s = Resolve(sock);
  if (s == kNone)
    return;
  {
    std::lock_guard<std::mutex> m(markLock_);
    if (closePending_->isset(s))
      return;
    closePending_->set(s);
    NoteMarks();
  }
  Wake();
}

int SocketCtrl::RemoveActiveSock(unsigned int sock, int lock, int keepClosePending, int keepWriteError) {
  SOCKET s = Resolve(sock);
  if (s == kNone)
    return 0;
  if (lock)
    lock_->Wait(1);
  int was = active_->isset(s) ? 1 : 0;
  if (was) {
    FlushGathered(s);  // written before the removal: they leave first
    ForgetSendState(s);
    ForgetDraining(s);
    closedSincePause_ = true;
    RemoveListenSock(s);
    active_->clr(s);
    DemuxClr(s);
    {
      std::lock_guard<std::mutex> m(markLock_);
      if (!keepClosePending)
        closePending_->clr(s);
      if (!keepWriteError)
        writeError_->clr(s);
      NoteMarks();
    }
    if (s == GetMasterSocket()) {
      master_.store(kNone, std::memory_order_release);
      masterRdy_.store(0, std::memory_order_release);
    }
  }
  if (lock)
    lock_->Signal();
  return was;
}

int SocketCtrl::close(unsigned int sock, int defer) {
  SemGuard g(*lock_);
  if (busy_ || defer) {
    if (sock == kNone) {
      for (SOCKET s : ActiveSnapshot())
        closeSSock(s);
      return 1;
    }
    closeSSock(sock);
    return 1;
  }
  if (sock == kNone) {
    CloseAll();
    return 1;
  }
  if (!RemoveActiveSock(sock, 0, 1, 1))
    return 0;
  _closesocket(sock);
  {
    std::lock_guard<std::mutex> m(markLock_);
    closePending_->clr(sock);
    NoteMarks();
    writeError_->clr(sock);
    NoteMarks();
  }
  return 1;
}

int SocketCtrl::closesocket(unsigned int sock) {
  SOCKET s = Resolve(sock);
  if (s == kNone)
    return 0;
  if (IsConnected(s))
    return close(s, 0);
  SemGuard g(*lock_);
  if (s == GetMasterSocket()) {
    master_.store(kNone, std::memory_order_release);
    masterRdy_.store(0, std::memory_order_release);
  }
  return CloseUnlisted(s) == 0 ? 1 : 0;
}

void SocketCtrl::ForgetSendState(SOCKET s) {
  if (queue_)
    queue_->EraseFor(s, this);
  SemGuard og(*optLock_);
  options_.erase(s);
  NoteOptions();
}

// Closes a socket that is in no set (a connection left in progress, for
// one). Its queued bytes and options go with it, or the next socket given
// the same number would send them and inherit its rate limit.
int SocketCtrl::CloseUnlisted(SOCKET s) {
  ForgetSendState(s);
  return _closesocket(s);
}

// By position, not through the set's cursor: the cursor belongs to the
// demultiplexer's walk of a pass, which this may run inside of.
std::vector<SOCKET> SocketCtrl::ActiveSnapshot() {
  std::vector<SOCKET> all;
  int n = active_->count();
  all.reserve(static_cast<size_t>(n));
  for (int i = 1; i <= n; ++i)
    all.push_back(active_->getfd(static_cast<unsigned>(i)));
  return all;
}

void SocketCtrl::CloseAll() {
  // Data queued for a socket that never became active (a connection in
  // progress, for one) must not outlive the controller in the queue.
  if (queue_) {
    std::vector<SOCKET> withOptions;
    {
      SemGuard og(*optLock_);
      for (auto const &entry : options_)
        withOptions.push_back(entry.first);
    }
    for (SOCKET s : withOptions)
      queue_->EraseFor(s, this);
  }
  InitSockOptVector();
  std::vector<SOCKET> all = ActiveSnapshot();
  SOCKET master = GetMasterSocket();
  // A connection still in progress is held only as the master socket.
  if (master != kNone && !active_->isset(master))
    CloseUnlisted(master);
  ResetActiveSocks();
  for (SOCKET s : all)
    _closesocket(s);
  {
    std::lock_guard<std::mutex> m(markLock_);
    closePending_->zero();
    NoteMarks();
    writeError_->zero();
    NoteMarks();
  }
  master_.store(kNone, std::memory_order_release);
  masterRdy_.store(0, std::memory_order_release);
}

void SocketCtrl::ResetActiveSocks() {
  SemGuard g(*lock_);
  std::vector<SOCKET> all = ActiveSnapshot();
  for (SOCKET s : all) {
    if (queue_)
      queue_->EraseFor(s, this);
    DemuxClr(s);
    ForgetDraining(s);
  }
  pausedListeners_.clear();
  {
    SemGuard og(*optLock_);
    for (SOCKET s : all)
      options_.erase(s);
    NoteOptions();
  }
  active_->zero();
  listen_->zero();
}

int SocketCtrl::RemoveListenSock(unsigned int sock) {
  SOCKET s = Resolve(sock);
  SemGuard g(*lock_);
  if (s == kNone || !listen_->isset(s))
    return 0;
  listen_->clr(s);
  return 1;
}
