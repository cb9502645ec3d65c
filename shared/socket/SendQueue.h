// SendQueue.h: data a socket could not take at once, sent later by the
// "SendQueue Thread".
//
// One queue serves many sockets of many SocketCtrl objects. Each socket's
// queued bytes are one CLBuffer record (a byte stream over slots, split when
// an insert is longer than a slot); the record's user data is the sink
// (ISendSink, the controller) that queued them. The record id is the socket
// handle plus one, because descriptor 0 is a valid socket and id 0 is not.
//
// Calls run one way: the controller calls the queue; the queue knows only
// the ISendSink interface, through which a pass asks whether a socket takes
// data, reserves and settles its rate allowance, sends and reports a
// drained socket. The controller owns the socket and its send options.
//
// The thread is event-driven: it sleeps until an insert or a stop wakes it
// or a socket with queued bytes can take some (poll over every such socket,
// any number, any descriptor), and serves each writable socket at once. A
// socket that could take bytes but may not (rate limit, framing, a refusing
// sink) rests until the next insert or kPauseMs later.
//
// A send goes straight from the slots: a view of up to 65535 bytes at the
// front of the socket's record, cut into at most 64 pieces, leaves in one
// gathered call; nothing is copied under the lock. Framed records (runs of
// [4-byte length in host order][bytes]) are sent without their prefixes,
// whole messages only (see PlanFramed). The front loses exactly what went
// out, so a partial send keeps its unsent tail first (for a framed message,
// under a rewritten prefix).
//
// Ownership: the queue owns its store, its lock and its thread. It never owns
// a sink; a controller drops its sockets' records (EraseFor) before it
// forgets them, so the queue never calls a dead controller.
//
// Locks: lock_ guards the store and a whole send pass. The sink's calls run
// with lock_ held, so the order is always the queue's lock, then the
// controller's option lock (and then its mark lock). The thread never holds
// lock_ while it waits or pauses, and the stop waits for the thread without
// holding lock_, so a stop cannot deadlock with it.
//
// Threads: any thread may call insert, erase, HasData, GetSendQueueSize and
// SendQueuedData. The CLBuffer members inherited are not locked: use the
// queue's own members only.
#pragma once

#include "media/CLBuffer.h"
#include "platform/Export.h"
#include "platform/Readiness.h"
#include "socket/SendSink.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class IThread;
namespace shared::socket::detail {
class QueueFront;
}
class _SEMAPHORE;

// Receives a copy of every chunk queued (sent 0) and sent (sent 1) while
// set. Called with the queue's lock held: it must not call into the queue.
class SHAREDLIB_API ISendQueueDump {
public:
  virtual void Dump(unsigned int sock, char const *data, unsigned int len, int sent) = 0;

protected:
  ~ISendQueueDump() = default;
};

class SHAREDLIB_API SendQueue : public CLBuffer {
public:
  static constexpr unsigned kMaxReadBytes = 65535;  // bytes read per record per send
  static constexpr unsigned kPauseMs = 300;         // rest of a socket that may not send yet

  // The store is CLBuffer(slotSize, initialSlots, 0, 0, 1, 0, growthSlots):
  // byte streams per socket, split over slots. Starts the thread when the
  // store and the lock exist.
  SendQueue(unsigned int slotSize, unsigned int initialSlots, unsigned int growthSlots);
  // Stops the thread (waiting for it), then frees the store.
  ~SendQueue() override;
  SendQueue(SendQueue const &) = delete;
  SendQueue &operator=(SendQueue const &) = delete;

  // 1 while the thread runs.
  int IsOk() const { return ok_.load(std::memory_order_acquire); }
  int CanDebug() const { return debug_.load(std::memory_order_relaxed); }
  void SetDebug(int on) { debug_.store(on, std::memory_order_relaxed); }
  // Not owned; null turns the dump off.
  void SetDebugDump(ISendQueueDump *dump);

  // 1 when a thread was started; 0 when one exists already or none could be
  // made (the stop flag is then set).
  int StartSendQueueThread();
  // Stops the thread and waits for it to end. Any thread but the send
  // thread itself may call it.
  void StopSendQueueThread();

  // Appends len bytes for sock, written later through ctrl. arg is the
  // record's byte limit (fixed by the insert that creates the record), flag
  // starts a slot of its own. All or nothing: returns len, or 0 when
  // refused (bad arguments, queue not running, the limit or the slots would
  // be exceeded) with nothing queued.
  unsigned int insert(unsigned int sock, char const *data, unsigned int len, unsigned int arg, ISendSink *ctrl,
                      int flag);
  // Drops everything queued for sock; 1 when something was.
  int erase(unsigned int sock) override;
  // Drops sock's bytes only when they were queued through ctrl (a number
  // closed by one controller may already be another's); 1 when dropped.
  int EraseFor(unsigned int sock, ISendSink const *ctrl);
  // 1 when bytes are queued for sock.
  int HasData(unsigned int sock);
  // Bytes queued for sock (*count too); 0 when not running or sock is -1.
  unsigned int GetSendQueueSize(unsigned int sock, unsigned int *count);
  // One send pass over sock, or over every socket for -1. 1 when everything
  // attempted went out whole, 0 when some socket kept data. Never waits for
  // a socket to take bytes.
  int SendQueuedData(int mode, unsigned int sock);

  // Holds the queue's lock for a scope: a writer keeps a message and the
  // bytes queued before it in order (SocketCtrl::write).
  class SHAREDLIB_API Hold {
  public:
    explicit Hold(SendQueue &q);
    ~Hold();
    Hold(Hold const &) = delete;
    Hold &operator=(Hold const &) = delete;

  private:
    SendQueue &q_;
  };

private:
  static int _DoSendQueueThread(IThread *thread, void *arg);
  int ThreadLoop();
  // One socket of a pass (lock_ held): true when nothing was left behind.
  // *progress (when given) is set when bytes left the queue, or a send was
  // tried and the socket had no room.
  bool SendSocket(unsigned int sock, bool *progress);
  bool OnSendThread() const;
  // Takes n bytes off the front of record key.
  void DropFront(unsigned key, unsigned n);
  // Overwrites the first 4 bytes of record key (a framed message's prefix).
  void SetFrontLength(unsigned key, std::uint32_t length);
  // Takes n bytes off the back of record key: undoes an insert in part.
  void DropBack(unsigned key, unsigned n);
  void Gather(std::vector<std::uint32_t> *socks);

  std::atomic<int> ok_{0};
  std::atomic<int> stop_{0};
  std::atomic<int> debug_{0};
  std::atomic<std::thread::id> threadId_{};  // the running send thread's id
  ISendQueueDump *dump_ = nullptr;   // guarded by lock_
  IThread *thread_ = nullptr;        // guarded by threadMutex_; owned
  _SEMAPHORE *lock_ = nullptr;       // owned
  std::mutex threadMutex_;           // serialises start and stop
  shared::platform::WakeFd wake_;    // signalled by insert and stop
  // A framed message of a planned send: its offset in the front view, its
  // length and the payload bytes the planned pieces cover.
  struct PlannedMessage {
    unsigned at;
    std::uint32_t length;
    unsigned covered;
  };
  bool PlanStream(unsigned allow);
  bool PlanFramed(unsigned held, unsigned allow, unsigned rateLimit);
  unsigned FramedDrop(unsigned out, std::uint32_t *rest, bool *begun) const;
  void DumpSent(unsigned sock, unsigned out);

  std::unique_ptr<shared::socket::detail::QueueFront> front_;  // guarded by lock_: a send's view and pieces
  std::vector<PlannedMessage> msgs_;                           // guarded by lock_: a framed send's plan
  std::vector<std::uint32_t> ids_;   // guarded by lock_: ids of a pass
};
