// SocketCtrl.h: a group of sockets of one kind, driven by dispatch passes.
//
// A SocketCtrl creates its sockets (connect, connectMCast, listen), keeps the
// set of active sockets and the set of listening ones, waits for readiness
// through a SockEventsWrapper, accepts connections, reads incoming data and
// hands it to the caller's callbacks (ISocketCtrl or three plain functions),
// writes directly or through a SendQueue, and closes sockets with a reason.
// It has no thread: a dispatch pass (accept, acceptUDP, readall) runs on the
// caller's thread.
//
// Ownership
//   - Every socket the controller made or accepted and still holds in its
//     active set is its own: close, closeSSock or the destructor close it.
//     A socket connect left in progress (wait 0) is held as the master
//     socket only until TestWriteSock activates it; the destructor and
//     close(-1) close it too.
//   - The demultiplexer, the sets, the option table and the locks are owned
//     and freed by the destructor. The SendQueue is not owned (it serves
//     many controllers); it must outlive the controller.
//   - The callback object of a pass is not owned.
//
// Locks (all recursive kind-3 _SEMAPHOREs except the mark lock)
//   lock_      the active and listening sets, the master socket, the busy
//              flag, demultiplexer registrations.
//   optLock_   the SockOptions table (WaitSockOpt / SignalSockOpt).
//   markLock_  the write-error and close-pending sets and the default
//              address (a leaf lock: nothing else is taken while it is held).
//   Order: lock_, then a SendQueue's lock, then optLock_, then markLock_.
//   write, _write, CanSendData, the option calls and the ISendSink calls
//   never take lock_, so the send thread (queue lock -> option lock, through
//   ISendSink) cannot deadlock with a dispatch pass whose callbacks write
//   (lock_ -> queue lock).
//
// The send path runs one way: the controller owns each socket's send
// options and rate state and calls its SendQueue; the queue reaches the
// controller only through ISendSink (SendSink.h), registered with each
// record it queues.
//
// Threads
//   - One dispatch pass at a time (accept, acceptUDP and readall serialise
//     on their own mutex). The wait runs without lock_; from after the wait
//     to the end of the pass lock_ is held, so callbacks run with it held.
//     A pass started from a callback of a pass of the same controller is
//     refused (-1).
//   - Callbacks may call closeSSock, close, write, writeLine and the option
//     calls. They must not wait for another thread that needs this
//     controller's lock_.
//   - Any other member may be called from any thread. Registration changes
//     made by another thread while the pass waits are applied when the
//     wait ends (a new socket is watched from the next pass on).
//   - Destroy the controller only when no other thread uses it.
//
// A socket closed during a pass (closeSSock, or close while the busy flag is
// set) is marked close-pending and removed at the end of the pass, so the
// walk of ready sockets never meets a freed slot; it gets no callback from
// then on. Reasons passed to close callbacks are exactly kReasonWriteError,
// kReasonPeerClosed and kReasonCallback.
#pragma once

#include "platform/Export.h"
#include "platform/Readiness.h"
#include "platform/SockAddr.h"
#include "platform/Types.h"
#include "socket/SendSink.h"
#include "socket/SockEventsWrapper.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class _SEMAPHORE;
class IfdACtrl;
class IfdCtrl;
class SendQueue;
class SocketCtrl;
class fdVector;
namespace shared::socket::detail {
class PassReplies;
}

// Per-socket send options: ten 32-bit words, zeroed when made. Copies copy
// all ten; two records differ when word 0, 2 or 3 differs.
//
//   word 0  maxQueue     queue limit in bytes; non-zero marks the socket as
//                        queued (SetMaxSendQueue). The queue does not read it.
//   word 1  framed       queued records are runs of [4-byte length][bytes]
//   word 2  countOn      accounting switch: count bytes and apply rateLimit
//   word 3  countStart   accounting switch set by the first counted byte:
//                        the low 32 bits of its calendar second (0 = none yet)
//   word 4-5 second      calendar second of secondBytes (64-bit, low first)
//   word 6  secondBytes  bytes sent within that second
//   word 7-8 sent        bytes sent since counting began (64-bit, low first)
//   word 9  rateLimit    bytes per second, 0 = no limit
struct SHAREDLIB_API SockOptions {
  std::uint32_t maxQueue = 0;
  std::uint32_t framed = 0;
  std::uint32_t countOn = 0;
  std::uint32_t countStart = 0;
  std::uint32_t secondLo = 0;
  std::uint32_t secondHi = 0;
  std::uint32_t secondBytes = 0;
  std::uint32_t sentLo = 0;
  std::uint32_t sentHi = 0;
  std::uint32_t rateLimit = 0;

  bool Accounting() const { return countOn != 0 || countStart != 0; }
  bool Queued() const { return maxQueue != 0; }
  std::int64_t Second() const {
    return static_cast<std::int64_t>((static_cast<std::uint64_t>(secondHi) << 32) | secondLo);
  }
  void SetSecond(std::int64_t s) {
    secondLo = static_cast<std::uint32_t>(static_cast<std::uint64_t>(s));
    secondHi = static_cast<std::uint32_t>(static_cast<std::uint64_t>(s) >> 32);
  }
  std::uint64_t Sent() const { return (static_cast<std::uint64_t>(sentHi) << 32) | sentLo; }
  void SetSent(std::uint64_t v) {
    sentLo = static_cast<std::uint32_t>(v);
    sentHi = static_cast<std::uint32_t>(v >> 32);
  }
  // Takes up to n bytes of second now's allowance (n without a limit) and
  // counts them as sent in that second, starting a new second when now
  // differs from the stored one. Returns the bytes taken.
  unsigned Reserve(unsigned n, std::int64_t now);
  // After a send of sent bytes of reserved ones: adds sent to the total
  // (noting the first byte's second) and gives back what was not used.
  void Settle(unsigned reserved, unsigned sent, std::int64_t now);

  bool operator==(SockOptions const &o) const {
    return maxQueue == o.maxQueue && countOn == o.countOn && countStart == o.countStart;
  }
};
static_assert(sizeof(SockOptions) == 40, "SockOptions is ten 32-bit words");

// Callback interface of the dispatch passes. Every default does nothing and
// returns 0 (so an object that does not override connectCallback refuses
// every connection). All of them run on the dispatch thread with the
// controller's lock held; see the class comment of SocketCtrl for what they
// may call. The interface has no virtual destructor: the controller never
// deletes a callback object.
class SHAREDLIB_API ISocketCtrl {
public:
  // Data on a connected socket: a chunk, or in text mode one line (NUL-ended,
  // len = its length + 1). 0 closes the socket (reason kReasonCallback).
  virtual int acceptCallback(SocketCtrl *ctrl, unsigned int sock, char *data, unsigned int len);
  // A listening socket accepted newSock. 0 refuses it (closed silently at
  // the end of the pass).
  virtual int connectCallback(SocketCtrl *ctrl, unsigned int listenSock, unsigned int newSock);
  // sock is being closed for reason.
  virtual void closeCallback(SocketCtrl *ctrl, unsigned int sock, char const *reason);
  // A datagram from *from on sock. 0 closes the socket.
  virtual int acceptUDPCallback(SocketCtrl *ctrl, unsigned int sock, sockaddr_in *from, char *data,
                                unsigned int len);
  // A datagram socket is being closed for reason.
  virtual void closeUDPCallback(SocketCtrl *ctrl, unsigned int sock, sockaddr_in *from, char const *reason);

protected:
  ~ISocketCtrl() = default;
};

// The plain-function form of the callbacks (same meaning as above).
using SockDataFn = int (*)(SocketCtrl *, unsigned int sock, char *data, unsigned int len);
using SockConnectFn = int (*)(SocketCtrl *, unsigned int listenSock, unsigned int newSock);
using SockCloseFn = void (*)(SocketCtrl *, unsigned int sock, char const *reason);
using SockUDPDataFn = int (*)(SocketCtrl *, unsigned int sock, sockaddr_in *from, char *data,
                              unsigned int len);
using SockUDPCloseFn = void (*)(SocketCtrl *, unsigned int sock, sockaddr_in *from, char const *reason);

// Line ends of writeLine: 0 CR LF, anything else LF.
enum EolFormat { EOL_CRLF = 0, EOL_LF = 1 };

class SHAREDLIB_API SocketCtrl : public ISEWIterator, public ISendSink {
public:
  static constexpr SOCKET kNoSocket = 0xFFFFFFFFu;
  static char const *const kReasonWriteError;  // "Socket write error. Disconnected!"
  static char const *const kReasonPeerClosed;  // "Connection closed by peer. Disconnected!"
  static char const *const kReasonCallback;    // "Connection closed by acceptCallBack(). Disconnected!"

  // queue: not owned, may be null. ownerFlag: kept unchanged and returned by
  // GetOwnerFlag (no behaviour attached). rcvBufSize: bytes read per socket
  // per pass (0 means 65535). noWait: no demultiplexer (passes only sleep).
  // linuxMode: ask for the Linux mode (epoll) with select as fall-back;
  // otherwise select. name: a label of up to 63 characters.
  SocketCtrl(SendQueue *queue, int ownerFlag, unsigned int rcvBufSize, int noWait, int linuxMode,
             char const *name);
  // Closes every socket still held (no callbacks), then frees the sets, the
  // demultiplexer and the locks. Queued data of its sockets is dropped.
  virtual ~SocketCtrl();
  SocketCtrl(SocketCtrl const &) = delete;
  SocketCtrl &operator=(SocketCtrl const &) = delete;

  // ISEWIterator: walk of the active set (dispatch thread, lock_ held).
  unsigned int firstActiveSocket(unsigned int *pos) override;
  unsigned int nextActiveSocket(unsigned int *pos) override;

  // --- State ---------------------------------------------------------------
  int isSockOk() const;
  SOCKET GetMasterSocket() const { return master_.load(std::memory_order_acquire); }
  void SetMasterSocket(SOCKET s);
  SendQueue *GetSendQueue() const { return queue_; }
  // The active set. Use it under the controller's lock only (Wait/Signal).
  IfdACtrl *GetActiveFDs() const { return active_; }
  IfdCtrl *GetListenFdSel() const;
  int IsUDP() const { return udp_.load(std::memory_order_acquire); }
  void SetDefUDP(int udp) { udp_.store(udp ? 1 : 0, std::memory_order_release); }
  int IsMasterSockRdy() const { return masterRdy_.load(std::memory_order_acquire); }
  int GetNumListenSocks();
  int IsListenSock(SOCKET s);
  int IsConnected(SOCKET s);
  int GetOwnerFlag() const { return ownerFlag_; }
  char const *GetName() const { return name_; }
  // The mode of the demultiplexer (1 select, 2 poll, 8 epoll), 0 with none.
  unsigned long GetEventsMode();
  // Replaces the demultiplexer by one built from modes (an OR of mode
  // numbers, as for InitSockEventsWrapper). Only while no socket is active
  // and no pass runs; 1 on success.
  int SetEventsModes(unsigned char modes);
  void SetNoWait(int noWait);
  // Ends the wait of the pass in progress at once, or the next pass's wait
  // when none is in progress (any thread, no lock).
  void WakeUp();
  void SetDefSin(sockaddr_in const *sin);
  void GetDefSin(sockaddr_in *sin);
  void SetTxtMode();
  void SetBinMode();
  int IsTxtMode() const { return txtMode_.load(std::memory_order_acquire); }
  // Level of the controller's debug notices ("Connect to host:port"); -1
  // (the initial value) emits none. See text/DebugOutput.h for the gate.
  void SetMinLogLevel(int level) { logLevel_.store(level, std::memory_order_relaxed); }
  int GetLogLevel() const { return logLevel_.load(std::memory_order_relaxed); }
  // The controller's lock, for callers that walk GetActiveFDs. Do not start
  // a pass (accept, acceptUDP, readall) while holding it: a pass takes its
  // pass mutex before this lock.
  int Wait(char const *who = nullptr);
  int Signal(char const *who = nullptr);

  // --- Making sockets --------------------------------------------------------
  // 1 on success with *outSock set; 0 on failure (nothing left open).
  int connect(char const *host, char const *proto, int port, char const *service, unsigned int *outSock,
              char const *bindAddr, int wait, int makeMaster);
  int listen(char const *proto, int backlog, int port, char const *localAddr, char const *service,
             unsigned int *outSock, int noListen, int *outPort);
  // A datagram socket bound to the group's port on any address and joined
  // to the group on iface (blank: default interface) with the given TTL. The
  // group address becomes the default address. 1 on success.
  int connectMCast(sockaddr_in const *group, char const *iface, int ttl, unsigned int *outSock,
                   int makeMaster);
  int connectMCast(char const *group, int port, char const *iface, int ttl, unsigned int *outSock,
                   int makeMaster);
  // Adds a socket made elsewhere to the active set (and the listening set).
  int AddActiveSock(SOCKET s, int listening = 0);

  // --- Dispatch (one pass) ---------------------------------------------------
  // seconds -1: no limit (the select backend cannot wait without a limit and
  // fails such a wait at once). Returns 1 after a pass (time-outs included),
  // -1 when the wait failed, 0 when the controller is not usable.
  int accept(ISocketCtrl *cb, long seconds);
  // maxEvents: at most this many ready sockets are served in the pass (0: all).
  int accept(SockDataFn dataFn, SockConnectFn connectFn, SockCloseFn closeFn, int maxEvents, long seconds);
  int acceptUDP(ISocketCtrl *cb, long seconds);
  int acceptUDP(SockUDPDataFn dataFn, SockUDPCloseFn closeFn, long seconds);
  // Waits up to timeout seconds for any active socket and reads it:
  //   > 0  bytes read from *outSock (*from: the source address);
  //   0    with *outSock = a new socket: a listening socket accepted it;
  //   0    with *outSock = -1: time-out;
  //   -1   the wait failed (*outSock -1) or *outSock ended or failed (it is
  //        then closed and removed).
  // all: read exactly size bytes (so_read's all-or-nothing). keepOpen: leave
  // a socket whose stream ended open for the caller to close.
  // A socket whose last read filled the buffer is read again first, without
  // a wait, up to kStreakReads times in a row: a stream that keeps the
  // reader busy costs one system call per buffer instead of two, and the
  // demultiplexer still chooses among all sockets every ninth call or sooner.
  static constexpr unsigned kStreakReads = 8;
  int readall(char *buf, unsigned int size, int all, int keepOpen, long timeout, unsigned int *outSock,
              sockaddr_in *from);
  // One socket (-1: the master), as the primitives of the same names.
  int read(char *buf, unsigned int size, sockaddr_in *from, unsigned int sock, int all);
  int readLine(char *buf, unsigned int size, unsigned int sock);
  int readInt(unsigned int sock);
  // Waits up to timeout seconds (-1: no limit) for a line of at most
  // size - 1 bytes, however it arrives, and takes nothing past its end: its
  // length (>= 0) when one was read, 0 on time-out with nothing received, -1
  // when the stream ended or failed or the time ran out in mid-line.
  int getmsg(char *buf, unsigned int size, long timeout, unsigned int sock);

  // --- Writing -------------------------------------------------------------
  // Sends directly; returns the bytes sent (0 when none could be), -1 for bad
  // arguments or a failure before any byte went out. See the class docs.
  int _write(char const *buf, unsigned int n, unsigned int sock, int mode, int all, int markError,
             int markOnBlock, int *err, int datagram, int retry, sockaddr_in *to);
  // The public write: bytes sent or queued; -1 without sending when the
  // socket cannot take data, buf is null, n is 0 or there is no socket.
  // Inside a pass of a text-mode controller, a callback's whole-message
  // write (all and markError) to an active socket without send options is
  // gathered and counted as sent: the socket's gathered bytes leave in one
  // send when the pass moves to another socket, before the socket closes,
  // and at the end of the pass; if that send fails the socket is marked
  // write-failed. Writes from other threads are never gathered.
  // all: send everything (the rest of a short send is queued for a queued
  // socket); markError: a failed send marks the socket write-failed (closed
  // with kReasonWriteError by the next pass); datagram: 1 sendto, 0 send,
  // -1 the controller's UDP flag; retry: with all, wait for room and retry a
  // would-block send (not for queued sockets, whose rest is queued).
  int write(char const *buf, unsigned int n, unsigned int sock, int all, int markError, int datagram,
            int retry, sockaddr_in *to);
  // text cut at 65535 characters plus CR LF (eol 0) or LF; 1 when all sent.
  int writeLine(char const *text, unsigned int sock, EolFormat eol);
  // Sends buf in pieces of at most fragSize bytes (0: GetMaxMsgSize of a
  // datagram socket, else 1400) through write; the total sent, stopping at
  // the first short piece.
  int writeFrag(char const *buf, unsigned int n, unsigned int fragSize, unsigned int sock, sockaddr_in *to);
  int _writeto(char const *buf, int len, sockaddr_in *to, unsigned int sock);
  int CanSendData(unsigned int sock);
  // Datagrams dropped by acceptUDP because they were longer than the
  // receive size.
  unsigned GetTruncatedDatagrams() const { return truncated_.load(std::memory_order_relaxed); }
  int isSockSndBufFull(unsigned int sock);
  unsigned int GetSndQueuedDataSize(unsigned int sock, unsigned int *count);
  // Appends data to sock's send queue (framed sockets get a length prefix);
  // the bytes queued, 0 when refused (no queue, over the queue limit).
  unsigned int EnqueueData(unsigned int sock, char const *data, unsigned int n);

  // --- Per-socket send options -------------------------------------------------
  // Makes sock queued with a queue limit of maxBytes (0: not queued) and sets
  // framing. Creates the record when needed. 1 on success.
  int SetMaxSendQueue(unsigned int maxBytes, int framed, unsigned int sock);
  // Turns byte counting on or off (on restarts the counters) and sets the
  // limit in bytes per second (0 none; a limit turns counting on).
  int SetBytesCount(int on, unsigned int bytesPerSecond, unsigned int sock);
  // Bits per second since the first counted byte: sent * 8 / elapsed seconds
  // (at least 1 second); reset non-zero restarts the counting. 0 without a
  // record or before any byte.
  unsigned int GetBitRate(int reset, unsigned int sock);
  // Drops every option record.
  void InitSockOptVector();
  // 1 and *out filled when sock has a record.
  int GetSockOptions(unsigned int sock, SockOptions *out);
  // Stores *opts as sock's record (creating it). 1 on success.
  int UpdateSockOptions(unsigned int sock, SockOptions const *opts);
  void WaitSockOpt();
  void SignalSockOpt();

  // Completes a connection left in progress by connect(wait 0): waits up to
  // seconds for it to become writable. activate non-zero adds it to the
  // active set (watched by the passes); 0 only tests it. Non-zero when
  // connected; on failure the socket is closed.
  int TestWriteSock(unsigned int sock, unsigned int seconds, int activate);

  // --- Options (value first, socket last; -1 the master) ------------------------
  int GetMaxMsgSize(unsigned int sock);
  int GetRcvBufSize(unsigned int sock);
  int GetSndBufSize(unsigned int sock);
  int SetRcvBufSize(int bytes, unsigned int sock);
  int SetSndBufSize(int bytes, unsigned int sock);
  int SetTCPNoDelay(int on, unsigned int sock);
  int SetMulticast(int ttl, char const *iface, unsigned int sock);
  int AddMembership(char const *group, char const *iface, unsigned int sock);
  int DropMembership(char const *group, char const *iface, unsigned int sock);
  int set_non_blocking(unsigned int sock);
  int set_dont_linger(unsigned int sock);

  // --- Closing ----------------------------------------------------------------
  // Marks sock for closing at the end of the current (or next) pass; closed
  // silently. Safe from callbacks and from any thread.
  void closeSSock(unsigned int sock);
  // Takes sock out of every set without closing it (see the docs for the
  // steps); 1 when it was active.
  int RemoveActiveSock(unsigned int sock, int lock, int keepClosePending, int keepWriteError);
  // Closes sock (-1: every socket) at once, or marks it close-pending when a
  // pass runs or defer is set. No close callback. 1 when something was done.
  int close(unsigned int sock, int defer);
  // An active socket is closed as by close(sock, 0); any other handle is
  // closed directly.
  int closesocket(unsigned int sock);
  // Forgets every active and listening socket without closing them: drops
  // their queued data, option records and text registers, and unregisters
  // them from the demultiplexer.
  void ResetActiveSocks();
  int RemoveListenSock(unsigned int sock);

protected:
  struct Callbacks {
    ISocketCtrl *obj = nullptr;
    SockDataFn dataFn = nullptr;
    SockConnectFn connectFn = nullptr;
    SockCloseFn closeFn = nullptr;
    SockUDPDataFn udpDataFn = nullptr;
    SockUDPCloseFn udpCloseFn = nullptr;
    int maxEvents = 0;
  };
  // The steps of a pass, each with lock_ held (dispatch thread only).
  int Pass(Callbacks const &cb, long seconds, bool udp);
  void ProcessWriteError(Callbacks const &cb, bool udp);
  void AcceptSocket(SOCKET listenSock, Callbacks const &cb);
  void ProcessSocketData(SOCKET s, Callbacks const &cb);
  void ProcessUDPData(SOCKET s, Callbacks const &cb);
  void ProcessCloseSSocks();
  void ProcessDraining(Callbacks const &cb);

private:
  // ISendSink: the send queue's view of this controller (queue lock held).
  // The send never waits; a failure other than a full socket marks the
  // socket write-failed. QueueDrained takes no lock: a socket that waits
  // for its bytes before it closes is looked at again at once.
  bool AcceptsQueued(unsigned int sock) override;
  SendTerms ReserveQueued(unsigned int sock, unsigned want) override;
  void SettleQueued(unsigned int sock, SendTerms const &terms, unsigned sent) override;
  unsigned SendQueued(unsigned int sock, shared::platform::SockPiece const *pieces, unsigned count) override;
  void QueueDrained(unsigned int sock) override;

  static constexpr std::uint32_t kDrainMs = 30000;      // longest flush after the peer's end
  static constexpr long kDrainCheckMs = 1000;          // wait cap while sockets drain
  static constexpr std::uint32_t kAcceptPauseMs = 500;  // listener rest when out of descriptors

  void WatchWakeFd();
  void Wake();  // ends a wait in progress; no lock
  int WaitForEvents(long ms);
  void ForgetClosedBehindUs();
  void PauseListener(SOCKET s);
  long ResumeListeners(long ms);  // the wait time, cut to the end of a listener's rest
  bool DeliverLines(SOCKET s, Callbacks const &cb);  // false when the socket was closed
  void PeerFinished(SOCKET s, Callbacks const &cb);
  void ForgetDraining(SOCKET s);
  int ReadReady(SOCKET s, char *buf, unsigned size, bool all, sockaddr_in *from, long ms, std::uint32_t start,
                bool *ended);
  bool ReadStreak(char *buf, unsigned size, int keepOpen, unsigned *outSock, int *result);
  void EndRead(SOCKET s, int keepOpen, bool ended);
  void NoteRead(SOCKET s, unsigned size, int r, bool ended);
  int WriteQueued(char const *buf, unsigned n, SOCKET s, int markError);
  int SendInBufferSizedCalls(SOCKET s, shared::platform::SockPiece const *pieces, unsigned count, bool push);
  unsigned ReserveAllowance(SOCKET s, unsigned n, std::int64_t now);
  void SettleAllowance(SOCKET s, unsigned reserved, unsigned sent, std::int64_t now);
  void ForgetSendState(SOCKET s);
  void NoteMarks();    // markLock_ held: publishes the number of marks
  void NoteOptions();  // optLock_ held: publishes the number of option records
  SockOptions &RecordOf(SOCKET s);  // optLock_ held: s's record, made when missing
  int CloseUnlisted(SOCKET s);
  SOCKET Resolve(unsigned int sock) const;
  bool IsClosePending(SOCKET s);
  void MarkWriteError(SOCKET s);
  void CloseWithReason(SOCKET s, Callbacks const &cb, char const *reason, bool udp, sockaddr_in *from);
  bool Deliver(SOCKET s, Callbacks const &cb, char *data, unsigned len);
  // Demultiplexer registration, deferred while a pass waits (lock_ held).
  bool DemuxSet(SOCKET s);  // false when the backend refused the socket
  void DemuxClr(SOCKET s);
  void ApplyDemuxChanges();
  void CloseAll();
  std::vector<SOCKET> ActiveSnapshot();  // lock_ held
  int MakeSocket(char const *proto, bool *udp);
  bool AddActiveLocked(SOCKET s, bool listening);
  int FinishConnect(SOCKET s, bool activate);
  bool OnWalkThread() const { return walker_.load(std::memory_order_acquire) == std::this_thread::get_id(); }
  bool Gatherable(SOCKET s, int all, int markError, int dgram);  // walk thread only
  static bool SendGathered(void *self, std::uint32_t sock, char const *data, unsigned len, bool retry);
  void FlushGathered(SOCKET s);  // walk thread: s's gathered bytes leave now
  void FlushAllGathered();

  std::atomic<SOCKET> master_{kNoSocket};  // written under lock_
  SendQueue *queue_;                        // not owned
  IfdACtrl *active_ = nullptr;              // guarded by lock_; owned (fdATxtSVector)
  fdVector *listen_ = nullptr;              // guarded by lock_; owned
  fdVector *closePending_ = nullptr;        // guarded by markLock_; owned
  fdVector *writeError_ = nullptr;          // guarded by markLock_; owned
  SockEventsWrapper *demux_ = nullptr;      // guarded by lock_ (the wait itself runs unlocked); owned
  sockaddr_in defSin_{};                    // guarded by markLock_
  std::map<SOCKET, SockOptions> options_;   // guarded by optLock_
  int busy_ = 0;                            // guarded by lock_
  SOCKET streakSock_ = kNoSocket;           // guarded by lock_: see kStreakReads
  unsigned streakLeft_ = 0;                 // guarded by lock_
  bool waiting_ = false;                    // guarded by lock_: a pass is in its wait
  std::vector<std::pair<SOCKET, bool>> demuxPending_;  // guarded by lock_: (socket, set?) during a wait
  std::atomic<int> udp_{0};
  std::atomic<int> masterRdy_{0};           // written under lock_
  std::atomic<int> txtMode_{0};
  std::atomic<int> noWait_;
  unsigned rcvBufSize_;
  int const ownerFlag_;
  _SEMAPHORE *lock_ = nullptr;
  _SEMAPHORE *optLock_ = nullptr;
  std::mutex markLock_;
  // Lock-free views for the write fast path: zero means no socket has a mark
  // (or an option record), so the common write takes neither lock.
  std::atomic<unsigned> marks_{0};        // written under markLock_
  std::atomic<unsigned> optionCount_{0};  // written under optLock_
  class PassGuard;
  std::recursive_mutex passMutex_;          // one pass (wait + walk) at a time
  int passDepth_ = 0;                       // guarded by passMutex_: passes of the holding thread
  std::vector<char> rxBuf_;                 // guarded by passMutex_: one read of a pass (+1 spare byte)
  std::unique_ptr<shared::socket::detail::PassReplies> replies_;  // walk thread only
  std::atomic<std::thread::id> walker_{};   // the thread walking a stream pass's ready sockets
  std::vector<char> lineBuf_;               // guarded by passMutex_: one text line
  std::atomic<int> logLevel_{-1};
  shared::platform::WakeFd wake_;           // registered with every demultiplexer made
  std::atomic<bool> inWait_{false};         // a pass or readall is in its wait
  std::atomic<unsigned> wakes_{0};          // signals since the last drain
  std::map<SOCKET, std::uint32_t> draining_;  // guarded by lock_: ended by the peer, flushing (tick)
  std::atomic<unsigned> drainingCount_{0};  // written under lock_
  std::vector<SOCKET> pausedListeners_;     // guarded by lock_
  std::uint32_t pausedAt_ = 0;              // guarded by lock_
  bool closedSincePause_ = false;           // guarded by lock_
  std::atomic<unsigned> truncated_{0};
  char name_[64];
};
