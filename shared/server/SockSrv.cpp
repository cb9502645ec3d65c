#include "server/SockSrv.h"

#include "platform/Clock.h"
#include "platform/Readiness.h"
#include "server/detail/IdleList.h"
#include "socket/SocketPrimitives.h"
#include "text/TextRoutines.h"
#include "thread/Semaphore.h"
#include "thread/Thread.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

namespace sp = shared::platform;
using shared::server::detail::IdleList;
using shared::server::detail::IdleNode;

namespace {

constexpr unsigned kNone = SockSrv::kNoSocket;
constexpr int kUserBufBytes = 16384;
constexpr int kBacklog = 1024;
constexpr unsigned kOwnSocketStepMs = 100;

// The bytes a write sends: the text up to len or its NUL for a line.
unsigned PayloadLength(char const *data, unsigned len, bool line) {
  if (!line)
    return len;
  void const *nul = std::memchr(data, '\0', len);
  return nul ? static_cast<unsigned>(static_cast<char const *>(nul) - data) : len;
}

}  // namespace

// --- SockSrvUser, ConnThreadCls ------------------------------------------------------

SockSrvUser::SockSrvUser(unsigned sock, char const *name, unsigned userData, std::int64_t now)
    : sock_(sock), userData_(userData), lastCmdTime_(now) {
  ajusta_str(name ? name : "", name_, 63);
  peer_[0] = '\0';
}

ConnThreadCls::ConnThreadCls(SocketCtrl *ctrl, unsigned sock, char const *name, SockSrv *server)
    : IThreadObj(name), ctrl_(ctrl), sock_(sock), server_(server) {}

int ConnThreadCls::ThreadFunc() {
  if (!ctrl_ || !ctrl_->isSockOk())
    return -1;
  unsigned s = sock_ == kNone ? ctrl_->GetMasterSocket() : sock_;
  if (s == kNone)
    return -1;
  if (!ctrl_->TestWriteSock(s, SockSrv::kConnectWaitSeconds, 1))
    return -1;
  if (server_)
    server_->WakeUp();
  return 0;
}

// --- Construction --------------------------------------------------------------------

SockSrv::SockSrv(ISockSrvCallback *cb, SendQueue *q, unsigned n, int flags, char const *name)
    : SVectorT<unsigned, SockSrvUser *>(1, 100), cb_(cb) {
  lock_ = new (std::nothrow) _SEMAPHORE(3, 1, 0, static_cast<unsigned long>(-1), -1);
  ctrl_ = new (std::nothrow) SocketCtrl(q, 1, n, 0, flags, name);
  idle_ = new (std::nothrow) IdleList;
  if (!cb_ || !lock_ || !lock_->IsOk() || !idle_ || !ctrl_ || !ctrl_->isSockOk())
    return;
  // The protocols are line based: the controller cuts the stream into lines.
  // Text mode also gathers the replies a pass writes to one socket into one
  // send (SocketCtrl::write).
  ctrl_->SetTxtMode();
  ok_ = 1;  // before the thread starts: its loop runs while ok
  if (!StartSockSrvThread())
    ok_ = 0;
}

SockSrv::~SockSrv() {
  exit_.store(1, std::memory_order_release);
  unsigned out = outgoing_.load();
  if (ctrl_ && out != kNone && !outgoingManaged_.load())
    close(out);
  StopSockSrvThread();
  if (lock_)
    DelUsers();
  delete pool_.exchange(nullptr);
  delete idle_;
  delete ctrl_;
  delete lock_;
}

int SockSrv::StartSockSrvThread() {
  if (thread_)
    return 0;
  exit_.store(0, std::memory_order_release);
  thread_ = CreateIThread(&DoSockSrvThread, this, 1, "SockSrv Thread");
  return thread_ ? 1 : 0;
}

void SockSrv::StopSockSrvThread() {
  exit_.store(1, std::memory_order_release);
  if (!thread_)
    return;
  WakeUp();
  thread_->WaitForMe(IThread::kInfinite);
  delete thread_;
  thread_ = nullptr;
}

int SockSrv::DoSockSrvThread(IThread *thread, void *self) {
  thread->Register();
  static_cast<SockSrv *>(self)->DoSockSrv();
  return 20;
}

bool SockSrv::OnServerThread() const { return threadId_.load(std::memory_order_acquire) == std::this_thread::get_id(); }

void SockSrv::WakeUp() {
  if (ctrl_)
    ctrl_->WakeUp();
}

int SockSrv::Wait(char const *tag) { return lock_ ? lock_->Wait(1, tag) : 0; }
int SockSrv::Signal(char const *tag) { return lock_ ? lock_->Signal(tag) : 0; }

void SockSrv::SetConnPool(ThreadPool *pool) { delete pool_.exchange(pool); }

// --- The server thread ------------------------------------------------------------------

void SockSrv::DoSockSrv() {
  threadId_.store(std::this_thread::get_id(), std::memory_order_release);
  std::int64_t nextCheck = sp::NowSeconds() + kCheckEverySeconds;
  while (ok_ && !DoExit()) {
    // Out of descriptors, the controller rests the listener by itself, so
    // this loop cannot spin on a listener that stays ready.
    int r = ctrl_->accept(this, kPassSeconds);
    if (r == 0)
      break;
    if (r < 0)
      sp::SleepMs(kOwnSocketStepMs);  // a failing wait must not spin
    if (sp::NowSeconds() >= nextCheck) {
      VerifyIdleUsers();
      nextCheck = sp::NowSeconds() + kCheckEverySeconds;
    }
  }
}

// --- Controller callbacks (server thread, inside a pass) --------------------------------------

int SockSrv::acceptCallback(SocketCtrl *, unsigned int sock, char *data, unsigned int len) {
  // A line comes NUL-ended with len = its length + 1; the application gets
  // its length, cut to kMaxMessage characters.
  unsigned chars = len > 0 ? len - 1 : 0;
  if (chars > kMaxMessage) {
    data[kMaxMessage] = '\0';
    chars = kMaxMessage;
  }
  if (chars == 0)
    return 1;  // an empty line carries nothing; it is not a fault of the peer
  if (!cb_)
    return 0;
  int understood = cb_->OnSockSrvData(data, chars, sock);
  if (understood)
    UpdateLastCmdTime(sock);
  return understood;
}

int SockSrv::connectCallback(SocketCtrl *, unsigned int, unsigned int newSock) {
  // A user still filed under this number belongs to a connection that is
  // gone (the system reuses only closed numbers): forget it without closing
  // the new socket.
  SockSrvUser *stale = nullptr;
  Wait("SockSrv::AddUser");
  if (search(newSock, &stale) && stale) {
    erase(newSock, 0);
    idle_->Remove(stale->idleNode_);
    delete stale;
  }
  Signal("SockSrv::AddUser");
  if (stale && cb_ && !DoExit())
    cb_->OnSockSrvClose(newSock);
  char peer[16];
  GetPeerName(newSock, peer, 15, nullptr);
  return AddUser(newSock, peer, 0);
}

void SockSrv::closeCallback(SocketCtrl *, unsigned int sock, char const *reason) {
  if (sock == outgoing_.load()) {
    outgoing_.store(kNone);
    outgoingManaged_.store(0);
  }
  DelUser(sock);
  // A failed write ends a user silently, whether the failure was seen by
  // write (the user is already gone) or marked for this pass to close.
  bool const writeFailed = reason && std::strcmp(reason, SocketCtrl::kReasonWriteError) == 0;
  if (cb_ && !DoExit() && !writeFailed)
    cb_->OnSockSrvClose(sock);
}

// --- Users ---------------------------------------------------------------------------------

int SockSrv::AddUser(unsigned sock, char const *name, unsigned userData) {
  if (!ok_ || sock == kNone)
    return 0;
  ctrl_->SetSndBufSize(kUserBufBytes, sock);
  ctrl_->SetRcvBufSize(kUserBufBytes, sock);
  ctrl_->SetTCPNoDelay(1, sock);
  ctrl_->set_non_blocking(sock);
  std::int64_t const now = sp::NowSeconds();
  auto *user = new (std::nothrow) SockSrvUser(sock, name, userData, now);
  if (!user)
    return 0;
  GetPeerName(sock, user->peer_, 15, nullptr);
  int added = 0;
  Wait("SockSrv::AddUser");
  if (search(sock, nullptr) == 0) {
    user->idleNode_ = idle_->Append(user, now);
    if (user->idleNode_ && insert(sock, user) != 0) {
      added = 1;
      unsigned const count = get_nitens();
      if (count > peakUsers_.load(std::memory_order_relaxed))
        peakUsers_.store(count, std::memory_order_relaxed);
    } else if (user->idleNode_) {
      idle_->Remove(user->idleNode_);
    }
  }
  Signal("SockSrv::AddUser");
  if (!added)
    delete user;
  return added;
}

int SockSrv::DelUser(unsigned sock) {
  if (!lock_ || !idle_)
    return 0;
  int removed = 0;
  Wait(sock == kNone ? "SockSrv::DelUser2" : "SockSrv::DelUser1");
  if (sock == kNone) {
    while (get_nitens() != 0)
      removed |= eraseIndex(1, 1);
  } else {
    removed = erase(sock, 1);
  }
  Signal(sock == kNone ? "SockSrv::DelUser2" : "SockSrv::DelUser1");
  // The sockets are marked for closing; the controller ends a waiting pass
  // for that itself, and the next pass does not wait while marks are due.
  return removed;
}

int SockSrv::DelUser(SockSrvUser *user) {
  if (!user || !lock_)
    return 0;
  Wait("SockSrv::DelUser1");
  SockSrvUser *held = nullptr;
  unsigned sock = kNone;
  if (search(user->sock_, &held) && held == user)
    sock = user->sock_;
  Signal("SockSrv::DelUser1");
  return sock == kNone ? 0 : DelUser(sock);
}

int SockSrv::DelUsers() { return DelUser(kNone); }

void SockSrv::kill_elem(unsigned sock, SockSrvUser *user) {
  if (sock != kNone && ctrl_)
    ctrl_->closeSSock(sock);
  if (user) {
    if (user->idleNode_)
      idle_->Remove(user->idleNode_);
    delete user;
  }
}

int SockSrv::SetName(unsigned sock, char const *name) {
  if (!ok_ || sock == kNone)
    return 0;
  SockSrvUser *user = nullptr;
  Wait("SockSrv::SetName");
  if (search(sock, &user) && user)
    ajusta_str(name ? name : "", user->name_, 63);
  Signal("SockSrv::SetName");
  return user ? 1 : 0;
}

void SockSrv::UpdateLastCmdTime(unsigned sock) {
  std::int64_t const now = sp::NowSeconds();
  SockSrvUser *user = nullptr;
  Wait("SockSrv::UpdateLastCmdTime");
  if (search(sock, &user) && user) {
    user->lastCmdTime_ = now;
    user->warned_ = 0;
    idle_->Touch(user->idleNode_, now);
  }
  Signal("SockSrv::UpdateLastCmdTime");
}

SockSrvUser *SockSrv::GetFirstIdleUser() {
  if (!ok_ || DoExit())
    return nullptr;
  Wait("SockSrv::GetFirstIdleUser");
  IdleNode *node = idle_->First(IdleList::kUserCursor);
  Signal("SockSrv::GetFirstIdleUser");
  return node ? node->user : nullptr;
}

SockSrvUser *SockSrv::GetNextIdleUser() {
  if (!ok_ || DoExit())
    return nullptr;
  Wait("SockSrv::GetNextIdleUser");
  IdleNode *node = idle_->Next(IdleList::kUserCursor);
  Signal("SockSrv::GetNextIdleUser");
  return node ? node->user : nullptr;
}

void SockSrv::VerifyIdleUsers() {
  if (!ok_ || DoExit())
    return;
  Wait("SockSrv::VerifyIdleUsers");
  std::int64_t const now = sp::NowSeconds();
  for (IdleNode *node = idle_->First(IdleList::kCheckCursor); node && !DoExit();
       node = idle_->Next(IdleList::kCheckCursor)) {
    std::int64_t const idle = now - node->time;
    if (idle < kWarnAfterSeconds)
      break;  // every later user was active more recently
    SockSrvUser *user = node->user;
    unsigned const sock = user->sock_;
    if (!user->warned_ && cb_) {
      int warned = cb_->OnSockSrvIdle(sock);
      // The callback may have removed the user (a failed ping write does).
      SockSrvUser *still = nullptr;
      if (!search(sock, &still) || still != user)
        continue;
      if (warned)
        user->warned_ = 1;
    }
    if (user->warned_ && idle >= kDropAfterSeconds) {
      DelUser(sock);
      if (cb_)
        cb_->OnSockSrvClose(sock);
    }
  }
  Signal("SockSrv::VerifyIdleUsers");
}

// --- Sockets -------------------------------------------------------------------------------

int SockSrv::listen(int port, char const *addr, unsigned *outSock) {
  if (outSock)
    *outSock = kNone;
  if (!ok_ || port == 0)
    return 0;
  // A socket added during a pass's wait ends that wait (controller).
  return ctrl_->listen("TCP", kBacklog, port, addr, nullptr, outSock, 0, nullptr);
}

int SockSrv::connect(char const *host, int port, unsigned maxQueue, char const *bindAddr, unsigned *outSock,
                     int /*proxyFlags*/, int sync) {
  if (outSock)
    *outSock = kNone;
  lastConnTime_.store(sp::NowSeconds(), std::memory_order_relaxed);
  if (!ok_ || comp_branco(host) || port == 0)
    return 0;
  char desc[64];
  std::snprintf(desc, sizeof desc, "Connect to %s:%d", host, port);
  unsigned previous = outgoing_.load();
  if (previous != kNone)
    close(previous);
  unsigned s = kNone;
  if (!ctrl_->connect(host, "TCP", port, nullptr, &s, bindAddr, 0, 1))
    return 0;
  outgoing_.store(s);
  outgoingManaged_.store(0);
  if (outSock)
    *outSock = s;
  if (sync)
    return testConn(s, kConnectWaitSeconds, maxQueue);
  if (ThreadPool *pool = pool_.load()) {
    auto *job = new (std::nothrow) ConnThreadCls(ctrl_, s, desc, this);
    if (!job || !pool->StartThread(job)) {
      delete job;
      return 0;
    }
  }
  return 1;
}

int SockSrv::testConn(unsigned sock, unsigned timeout, unsigned maxQueue) {
  if (!ok_)
    return 0;
  bool const outgoing = sock != kNone && sock == outgoing_.load();
  if (outgoing)
    outgoingManaged_.store(1);
  int r = ctrl_->TestWriteSock(sock, timeout, 1);
  if (r && maxQueue)
    ctrl_->SetMaxSendQueue(maxQueue, 0, sock);
  if (!r && outgoing) {  // the controller closed it
    outgoing_.store(kNone);
    outgoingManaged_.store(0);
  }
  return r;
}

void SockSrv::close(unsigned sock) {
  if (!ctrl_ || sock == kNone)
    return;
  if (sock == outgoing_.load()) {
    // A connection the pool gave up on was closed by the controller: only a
    // socket it still holds is ours to close.
    if (outgoingManaged_.load() || ctrl_->GetMasterSocket() == sock || ctrl_->IsConnected(sock))
      ctrl_->closesocket(sock);
    outgoing_.store(kNone);
    outgoingManaged_.store(0);
    return;
  }
  // A user leaves the table as it is closed, so it is not left behind.
  if (!DelUser(sock))
    ctrl_->closeSSock(sock);
}

// --- Writing ----------------------------------------------------------------------------------

bool SockSrv::WaitOwnSocket(unsigned sock) {
  for (unsigned waited = 0; waited < kConnectWaitSeconds * 1000; waited += kOwnSocketStepMs) {
    if (DoExit() || ctrl_->GetMasterSocket() != sock)
      return false;
    if (ctrl_->IsMasterSockRdy())
      return true;
    sp::SleepMs(kOwnSocketStepMs);
  }
  return false;
}

int SockSrv::write(char const *data, int len, unsigned sock, int asLine) {
  if (sock == kNone && ctrl_)
    sock = ctrl_->GetMasterSocket();
  if (!ok_ || DoExit() || sock == kNone || !data || len < 1)
    return 0;
  unsigned const n = PayloadLength(data, static_cast<unsigned>(std::min(len, kMaxWrite)), asLine != 0);
  if (sock == ctrl_->GetMasterSocket() && !ctrl_->IsMasterSockRdy() && !WaitOwnSocket(sock)) {
    DelUser(sock);
    return 0;
  }
  if (!ctrl_->CanSendData(sock)) {
    DelUser(sock);
    return 0;
  }
  return SendNow(data, n, sock, asLine != 0);
}

int SockSrv::SendNow(char const *data, unsigned len, unsigned sock, bool line) {
  // Another thread may wait for room in a full socket; the server thread
  // must not, or every other user would wait with it.
  int const retry = OnServerThread() ? 0 : 1;
  int sent;
  if (line) {
    // One buffer per thread, kept: replies allocate nothing once it grew.
    thread_local std::string text;
    text.assign(data, len);
    text.append("\r\n", 2);
    sent = ctrl_->write(text.data(), static_cast<unsigned>(text.size()), sock, 1, 1, 0, retry, nullptr);
    len = static_cast<unsigned>(text.size());
  } else {
    sent = ctrl_->write(data, len, sock, 1, 1, 0, retry, nullptr);
  }
  if (sent != static_cast<int>(len)) {
    DelUser(sock);
    return 0;
  }
  return 1;
}
