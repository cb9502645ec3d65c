// SockEventsWrapper.h: readiness demultiplexers behind one interface.
//
// A socket controller does not wait on its sockets itself. It registers them
// with a SockEventsWrapper (set/clr), waits once per dispatch pass
// (EventHandler) and walks the sockets found ready (firstEvent/nextEvent).
// Four backends share the interface, one per file:
//
//   mode 1  SelectWrapper   select semantics: at most 2048 registrations,
//                           whole-second time-outs, walk in the owner's order
//   mode 2  PollWrapper     poll(): millisecond time-outs, no socket limit
//   mode 4  KQueueWrapper   not available on this platform (answers nothing)
//   mode 8  EPollWrapper    the Linux mode: epoll, a pass costs O(ready)
//
// InitSockEventsWrapper (the factory, in its own file) picks one.
//
// Ownership: the caller owns the wrapper it got from the factory. The wrapper
// never owns the iterator it is given, nor the sockets it watches: it never
// closes or unregisters a socket by itself.
//
// Threads: no locks inside. One owner (a SocketCtrl) serialises set/clr with
// the wait and the walk. clr may be called while a walk is under way (from a
// callback of the pass): the socket is then invalidated in the current
// results and never reported again, and the walk goes on safely.
#pragma once

#include "platform/Export.h"

// Event mask bits (OR-ed), used by EventHandler, firstEvent and nextEvent.
constexpr unsigned long kSewRead = 1;   // readable (or end of stream / error)
constexpr unsigned long kSewWrite = 2;  // writable
constexpr unsigned long kSewError = 4;  // error or exceptional condition

// Mode numbers: GetMode() answers one; InitSockEventsWrapper takes an OR.
constexpr unsigned long kSewModeSelect = 1;
constexpr unsigned long kSewModePoll = 2;
constexpr unsigned long kSewModeKQueue = 4;
constexpr unsigned long kSewModeLinux = 8;

// The select wrapper's (and Myfd_set's) fixed capacity.
constexpr unsigned kSewSelectMaxSockets = 2048;

// How a demultiplexer walks its owner's sockets (the owner is its own
// iterator). Both return the socket, or 0xFFFFFFFF at the end, and store the
// socket's 1-based position in the owner's active set in *pos (0 at the end).
class SHAREDLIB_API ISEWIterator {
public:
  virtual unsigned int firstActiveSocket(unsigned int *pos) = 0;
  virtual unsigned int nextActiveSocket(unsigned int *pos) = 0;
  // Declared after the two walks so they keep the first two slots.
  virtual ~ISEWIterator();
};

class SHAREDLIB_API SockEventsWrapper {
public:
  // name: a label of at most 63 characters (null = empty).
  explicit SockEventsWrapper(char const *name);
  virtual ~SockEventsWrapper();
  SockEventsWrapper(SockEventsWrapper const &) = delete;
  SockEventsWrapper &operator=(SockEventsWrapper const &) = delete;

  // The mode number of the backend (kSewMode*).
  virtual unsigned long GetMode() = 0;
  // Registers fd; 1 on success, 0 on refusal. ctx is handed back by
  // firstEvent/nextEvent where the backend supports it (poll, epoll); events
  // is ignored: every registered socket is watched for what the wait asks.
  // Setting a socket twice counts twice (getnfds) but watches it once.
  virtual int set(unsigned int fd, void *ctx, int events) = 0;
  // Undoes one set; the socket stops being watched at once.
  virtual void clr(unsigned int fd) = 0;
  // For a socket to be closed while another thread is in EventHandler:
  // unwatch stops the system watching it at once and may run alongside that
  // wait; the waiting thread later calls forget, which undoes the set in the
  // bookkeeping only, because by then the number may belong to a new socket.
  virtual void unwatch(unsigned int fd);
  virtual void forget(unsigned int fd);
  // Unregisters everything.
  virtual void zero() = 0;
  // Waits up to timeoutMs for any registered socket to be ready for a kind in
  // events (kSewRead | kSewWrite | kSewError). Returns the number of ready
  // sockets, 0 on time-out, -1 on error. nfds is the select-style upper
  // bound, passed through by the select backend and ignored by the others.
  // With nothing registered it sleeps the time-out (100 ms for -1), returns 0.
  virtual int EventHandler(unsigned long events, long timeoutMs, int nfds) = 0;
  // Walk of the sockets found ready by the last wait: the socket, or
  // 0xFFFFFFFF at the end; *events receives its ready mask, *pos a 1-based
  // position (0 at the end), *ctx the registration context (or null).
  // Any pointer may be null.
  virtual unsigned int firstEvent(unsigned long *events, unsigned int *pos, void **ctx) = 0;
  virtual unsigned int nextEvent(unsigned long *events, unsigned int *pos, void **ctx) = 0;

  void SetIterator(ISEWIterator *iterator) { iterator_ = iterator; }
  ISEWIterator *GetIterator() const { return iterator_; }
  // The number of set calls not yet undone by clr, zero or reset.
  int getnfds() const { return nfds_; }
  char const *GetName() const { return name_; }

protected:
  // Allocates the working storage; 1 when usable. The base has none.
  virtual int init();
  // Forgets every registration and frees per-wait storage.
  virtual void reset();

  // Shared by the backends: the readiness mask (kSew*) of a socket whose
  // system flags (platform kPoll* values) are pollFlags, for a wait that asked
  // for the kinds in asked. An error or hang-up makes the socket ready for
  // every kind asked for, so the owner's next read or write sees the failure;
  // it also sets kSewError when that was asked for.
  static unsigned long ReadyMask(unsigned pollFlags, unsigned long asked);
  // The system interest flags (kPoll*) for the kinds in asked.
  static short InterestFlags(unsigned long asked);
  // A time-out for poll/epoll: any negative value is no limit (-1), larger
  // values are clamped to what the system call takes.
  static int SystemTimeout(long timeoutMs);
  // The end of a walk: clears whichever outputs are given, returns 0xFFFFFFFF.
  static unsigned int EndOfWalk(unsigned long *events, unsigned int *pos, void **ctx);
  // The wait of a pass with nothing to watch: sleeps timeoutMs through the
  // library clock (100 ms for -1, nothing for other negatives).
  static void IdleWait(long timeoutMs);

  int nfds_ = 0;                  // registration count
  char name_[64];                 // label only
  ISEWIterator *iterator_ = nullptr;  // not owned
};

// Picks and builds a demultiplexer from the OR of mode numbers in modes,
// testing in this order and taking the first that matches:
//   8 when the system is Linux; 4 when Linux or Apple; 2 when Linux, Apple or
//   Windows Vista or later; 1 always.
// Here modes 8, 2 and 1 build EPollWrapper, PollWrapper and SelectWrapper;
// mode 4 (kqueue) and no match give null. The result, owned by the caller,
// has its iterator set to iterator and is named name (null = "").
SHAREDLIB_API SockEventsWrapper *InitSockEventsWrapper(unsigned char modes, ISEWIterator *iterator,
                                                       char const *name);
