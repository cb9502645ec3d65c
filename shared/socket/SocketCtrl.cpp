// The controller's life: construction, registration with the
// demultiplexer, making sockets, marks, completing connections and closing.
#include "socket/SocketCtrl.h"

#include "platform/Clock.h"
#include "platform/Compat.h"
#include "platform/Readiness.h"
#include "platform/SocketApi.h"
#include "socket/FdCtrl.h"
#include "socket/PassReplies.h"
#include "socket/SendQueue.h"
#include "socket/detail/SocketCtrlInternal.h"
#include "socket/SocketPrimitives.h"
#include "socket/TxtBuf_reg.h"
#include "text/DebugOutput.h"
#include "text/TextRoutines.h"
#include "thread/Semaphore.h"

#include <algorithm>
#include <cstring>

namespace sp = shared::platform;
using shared::SemGuard;
using shared::socket::detail::kMaxLine;
using shared::socket::detail::kNone;
using shared::socket::detail::WaitOne;

char const *const SocketCtrl::kReasonWriteError = "Socket write error. Disconnected!";
char const *const SocketCtrl::kReasonPeerClosed = "Connection closed by peer. Disconnected!";
char const *const SocketCtrl::kReasonCallback = "Connection closed by acceptCallBack(). Disconnected!";

namespace shared::socket::detail {

int WaitOne(SOCKET s, unsigned kinds, long ms) {
  std::uint32_t one = s;
  unsigned char ready = 0;
  int r = sp::WaitSockets(&one, 1, kinds | 4u, ms, &ready);
  return r > 0 ? ready : r;
}

}  // namespace shared::socket::detail

namespace {

constexpr unsigned kDefaultRcvSize = 65535;

bool IsUdpProto(char const *proto) { return proto && _stricmp(proto, "udp") == 0; }

}  // namespace

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

void SocketCtrl::NoteMarks() {
  marks_.store(static_cast<unsigned>(writeError_->count() + closePending_->count()), std::memory_order_release);
}

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
