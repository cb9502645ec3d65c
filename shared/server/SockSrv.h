// SockSrv.h: a listening TCP server for line-oriented text protocols.
//
//   ISockSrvCallback  what the application implements: messages, idle
//                     warnings and the end of users.
//   SockSrvUser       one connection held by the server (accepted, or
//                     added with AddUser), keyed by its socket.
//   ConnThreadCls     a connection-pool job that completes an outgoing
//                     connection (writability within 40 s).
//   SockSrv           the server: a SocketCtrl in text mode driven by the
//                     "SockSrv Thread", the users in a sorted table, the
//                     idle list in activity order and the idle policy.
//
// Idle policy: every 5 s (calendar seconds of the clock seam) the server
// thread walks the users from the longest silent; a user silent for 15 s is
// offered to OnSockSrvIdle (a non-zero answer means it was warned), a warned
// user silent for 30 s is dropped and OnSockSrvClose follows. The walk stops
// at the first user silent for less than 15 s, so it costs the users it
// looks at, not all users.
//
// Ownership: the server owns its users, its controller, its thread, its
// lock, and the connection pool once given (SetConnPool). It does not own
// the callback object or the SendQueue (both must outlive it).
//
// Threads
//   - The server thread runs every controller callback: OnSockSrvData runs
//     there without the server lock (with the controller's lock held);
//     OnSockSrvIdle and OnSockSrvClose from the idle check run there with the
//     server lock held; OnSockSrvClose for a peer close runs inside a pass.
//     Callbacks may call write, DelUser, SetName, AddUser and close of this
//     server; they must not wait for another thread that needs its lock.
//   - Any other member may be called from any thread.
//   - Destroy the server from a thread other than its own; destruction
//     calls no callback.
//
// Locks: the server lock (recursive) guards the table, the idle list and
// the idle-walk cursors. A pass holds the controller's lock while it calls
// in, so the server thread takes the controller's lock before the server's;
// the server itself never takes the controller's lock while holding its own
// (it only marks sockets for closing), so no other thread can close a cycle.
//
// Writes made on the server thread during a pass (replies) are gathered per
// socket by the controller and leave together when the pass is done with
// that socket; writes from other threads go out at once (SocketCtrl::write).
#pragma once

#include "platform/Export.h"
#include "socket/SocketCtrl.h"
#include "thread/SVectorT.h"
#include "thread/ThreadPool.h"

#include <atomic>
#include <cstdint>
#include <thread>

class IThread;
class SendQueue;
class SockSrv;
class _SEMAPHORE;

namespace shared::server::detail {
struct IdleNode;
class IdleList;
}  // namespace shared::server::detail

// Implemented by the application; every operation is called on the server
// thread (see the contract above). No destructor slot: the server never
// deletes it.
class SHAREDLIB_API ISockSrvCallback {
public:
  // A message (one line, NUL-terminated, len characters, at most 16383)
  // from sock. Non-zero: understood, which counts as activity. 0: not
  // understood, and the controller closes the connection (OnSockSrvClose
  // follows).
  virtual int OnSockSrvData(char const *data, unsigned len, unsigned sock) = 0;
  // sock has been silent for 15 s; non-zero when a warning was sent, which
  // arms the drop at 30 s.
  virtual int OnSockSrvIdle(unsigned sock) = 0;
  // sock is gone (peer closed, refused message, or idle drop); the user is
  // already removed. Not called for a drop after a failed write.
  virtual void OnSockSrvClose(unsigned sock) = 0;

protected:
  ~ISockSrvCallback() = default;
};

// One user. Fields are read by the server under its lock; the application
// reads them through the idle walk (GetFirstIdleUser) under that lock too.
class SHAREDLIB_API SockSrvUser {
public:
  SockSrvUser(unsigned sock, char const *name, unsigned userData, std::int64_t now);

  unsigned GetSocket() const { return sock_; }
  unsigned GetUserData() const { return userData_; }
  int IsWarned() const { return warned_; }
  std::int64_t GetLastCmdTime() const { return lastCmdTime_; }
  char const *GetName() const { return name_; }
  char const *GetPeerAddress() const { return peer_; }

private:
  friend class SockSrv;
  unsigned sock_;
  unsigned userData_;
  int warned_ = 0;
  std::int64_t lastCmdTime_;
  shared::server::detail::IdleNode *idleNode_ = nullptr;
  char name_[64];
  char peer_[16];
};

// Completes an outgoing connection on a pool thread: 0 when the socket
// became writable within 40 s, -1 otherwise (the controller then closes it).
class SHAREDLIB_API ConnThreadCls : public IThreadObj {
public:
  // server (may be null) is woken once the socket is watched, so its data
  // is read from then on.
  ConnThreadCls(SocketCtrl *ctrl, unsigned sock, char const *name, SockSrv *server = nullptr);
  int ThreadFunc() override;

private:
  SocketCtrl *ctrl_;
  unsigned sock_;    // the socket to complete (the controller's own when -1)
  SockSrv *server_;  // not owned; outlives the job (it deletes the pool first)
};

class SHAREDLIB_API SockSrv : public SVectorT<unsigned, SockSrvUser *>, public ISocketCtrl {
public:
  static constexpr unsigned kNoSocket = 0xFFFFFFFFu;
  static constexpr int kCheckEverySeconds = 5;
  static constexpr int kWarnAfterSeconds = 15;
  static constexpr int kDropAfterSeconds = 30;
  static constexpr unsigned kMaxMessage = 16383;  // characters handed to OnSockSrvData
  static constexpr int kMaxWrite = 65535;
  static constexpr unsigned kConnectWaitSeconds = 40;
  static constexpr long kPassSeconds = 3;

  // cb: not owned. q: the controller's send queue (not owned, may be null).
  // n: bytes read per socket per pass. flags non-zero: Linux mode (epoll).
  SockSrv(ISockSrvCallback *cb, SendQueue *q, unsigned n, int flags, char const *name);
  // Stops the thread, closes the outgoing socket and every user without
  // callbacks, deletes the pool, the controller and the lock.
  ~SockSrv() override;
  SockSrv(SockSrv const &) = delete;
  SockSrv &operator=(SockSrv const &) = delete;

  // Listens on TCP port (not 0) of addr (blank: any), backlog 1024.
  int listen(int port, char const *addr, unsigned *outSock);
  // An outgoing connection (becomes the controller's own socket); sync: wait
  // up to 40 s for it here, else check it on the connection pool if any.
  int connect(char const *host, int port, unsigned maxQueue, char const *bindAddr, unsigned *outSock,
              int proxyFlags, int sync);
  // Non-zero when sock becomes writable within timeout seconds; maxQueue
  // non-zero then gives it a send-queue limit.
  int testConn(unsigned sock, unsigned timeout, unsigned maxQueue);
  void close(unsigned sock);
  // len bytes of data to sock (-1: the controller's own socket), cut at
  // 65535; asLine: the text up to len or its NUL, plus CR LF. 1 when sent
  // (or gathered as a reply); 0 when refused or failed (the user is then
  // dropped without OnSockSrvClose).
  int write(char const *data, int len, unsigned sock, int asLine);

  int AddUser(unsigned sock, char const *name, unsigned userData);
  int DelUser(unsigned sock);  // -1: every user
  int DelUser(SockSrvUser *user);
  int DelUsers();
  int SetName(unsigned sock, char const *name);
  // The idle walk, oldest activity first, each call under the lock.
  SockSrvUser *GetFirstIdleUser();
  SockSrvUser *GetNextIdleUser();
  // One idle check now (the server thread runs one every 5 s).
  void VerifyIdleUsers();
  // Refreshes the activity of sock (understood message).
  void UpdateLastCmdTime(unsigned sock);

  // Gives the server the pool on which asynchronous connects are checked.
  // The server owns it from then on (a pool given before is deleted, which
  // waits for its running checks). Null removes it.
  void SetConnPool(ThreadPool *pool);
  ThreadPool *GetConnPool() const { return pool_; }
  // Ends the current pass of the server thread at once (any thread): closes
  // requested from other threads take effect now, and a test clock that was
  // moved is looked at now.
  void WakeUp();

  unsigned GetMaxUsers() const { return peakUsers_.load(std::memory_order_relaxed); }
  std::int64_t GetLastConnTime() const { return lastConnTime_.load(std::memory_order_relaxed); }
  SocketCtrl *GetSocketCtrl() const { return ctrl_; }
  int IsOk() const { return ok_; }
  int DoExit() const { return exit_.load(std::memory_order_acquire); }
  int Wait(char const *tag);
  int Signal(char const *tag);

  // ISocketCtrl (server thread, inside a pass).
  int acceptCallback(SocketCtrl *ctrl, unsigned int sock, char *data, unsigned int len) override;
  int connectCallback(SocketCtrl *ctrl, unsigned int listenSock, unsigned int newSock) override;
  void closeCallback(SocketCtrl *ctrl, unsigned int sock, char const *reason) override;
  // SVectorT: closes the user's socket, unlinks it from the idle list and
  // deletes it (server lock held).
  void kill_elem(unsigned sock, SockSrvUser *user) override;

private:
  static int DoSockSrvThread(IThread *thread, void *self);
  int StartSockSrvThread();
  void StopSockSrvThread();
  void DoSockSrv();
  bool OnServerThread() const;
  int SendNow(char const *data, unsigned len, unsigned sock, bool line);
  bool WaitOwnSocket(unsigned sock);

  int ok_ = 0;
  std::atomic<int> exit_{0};
  std::atomic<std::int64_t> lastConnTime_{0};
  std::atomic<unsigned> peakUsers_{0};     // written under lock_
  std::atomic<unsigned> outgoing_{kNoSocket};
  std::atomic<int> outgoingManaged_{0};
  _SEMAPHORE *lock_ = nullptr;
  SocketCtrl *ctrl_ = nullptr;
  ISockSrvCallback *cb_;
  IThread *thread_ = nullptr;
  std::atomic<ThreadPool *> pool_{nullptr};
  shared::server::detail::IdleList *idle_ = nullptr;  // guarded by lock_

  std::atomic<std::thread::id> threadId_{};  // the server thread, set as its body starts
};
