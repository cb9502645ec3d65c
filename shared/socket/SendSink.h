// SendSink.h: what the send queue needs from the owner of a socket's
// outgoing bytes.
//
// The queue holds the bytes; the owner (a SocketCtrl) holds the socket, its
// marks and its send options (framing, the per-second rate state). Each
// queued record names the sink that queued it, and the queue's send thread
// and send passes reach the owner only through this interface, so the queue
// never depends on the controller; the controller calls the queue directly.
//
// Threads and locks: every call comes from a send pass, with the queue's
// lock held (the send thread, or a writer inside SendQueue::SendQueuedData).
// An implementation may take its own locks below the queue's but must not
// call back into the queue.
#pragma once

#include "platform/Export.h"

#include <cstdint>

namespace shared::platform {
struct SockPiece;
}

// How one turn of a socket may send: the allowance reserved for it and the
// options that shape it.
struct SendTerms {
  unsigned allow = 0;       // bytes reserved (the bytes asked for without a limit)
  unsigned rateLimit = 0;   // bytes per second, 0 = none
  std::int64_t second = 0;  // the second the allowance was taken from
  bool framed = false;      // records are runs of [4-byte length][bytes]
  bool accounting = false;  // allow was reserved and must be settled
};

class SHAREDLIB_API ISendSink {
public:
  // False while sock takes no data (a write error, a close under way): its
  // bytes stay queued.
  virtual bool AcceptsQueued(unsigned int sock) = 0;
  // Reserves up to want bytes of sock's allowance for this turn, so a
  // concurrent writer cannot spend them too.
  virtual SendTerms ReserveQueued(unsigned int sock, unsigned want) = 0;
  // Gives back what a turn reserved and did not send, and counts what it did.
  virtual void SettleQueued(unsigned int sock, SendTerms const &terms, unsigned sent) = 0;
  // One send of count pieces that never waits: the bytes taken, 0 when none
  // could be (a failure is the sink's to report). The queue gathers its
  // bytes already: nothing it sends should be held back for bytes to come.
  virtual unsigned SendQueued(unsigned int sock, shared::platform::SockPiece const *pieces, unsigned count) = 0;
  // Everything queued for sock went out.
  virtual void QueueDrained(unsigned int sock) = 0;

protected:
  ~ISendSink() = default;
};
