// Writing: direct sends, replies gathered within a pass, and the hand-off
// of what a socket cannot take to the send queue (which sends it back
// through this controller's ISendSink calls).
#include "socket/SocketCtrl.h"

#include "platform/Clock.h"
#include "platform/SocketApi.h"
#include "socket/FdCtrl.h"
#include "socket/PassReplies.h"
#include "socket/SendQueue.h"
#include "socket/detail/SocketCtrlInternal.h"
#include "socket/SocketPrimitives.h"
#include "thread/Semaphore.h"

#include <algorithm>
#include <cstring>

namespace sp = shared::platform;
using shared::SemGuard;
using shared::socket::detail::kMaxLine;
using shared::socket::detail::kNone;
using shared::socket::detail::WaitOne;

namespace {

constexpr unsigned kDefaultFrag = 1400;
// Bound of the retry loop of _write (about 1 ms each): a peer that takes no
// byte for this long is treated as failed instead of hanging the caller.
constexpr int kMaxRetries = 30000;

}  // namespace

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
    // Cut to the send buffer, as the queue's sends are (SendQueued).
    sp::SockPiece const piece{buf, allow};
    int r = SendInBufferSizedCalls(s, &piece, 1, false);
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

bool SocketCtrl::AcceptsQueued(unsigned int sock) { return CanSendData(sock) != 0; }

// Calls of at most what the send buffer holds, never waiting: a send far
// beyond it leaves a short last segment that waits for the peer's delayed
// acknowledgement (tens of ms per turn with an 8 KiB buffer); sends sized to
// the buffer keep it full. A send cut short means the caller will wait for
// room: what the socket holds back goes first, as before a blocking send's
// sleep, or the wait may last until the peer's acknowledgement timer.
// The queue's sends (push) push every time: the queue gathers its bytes
// already, and a segment held back to coalesce with the next stalled a
// backed-up socket for 40 ms now and then (pushing only when a turn of the
// queue ended left some of those stalls).
int SocketCtrl::SendInBufferSizedCalls(SOCKET s, sp::SockPiece const *pieces, unsigned count, bool push) {
  unsigned const room = sp::SockSendBufferBytes(s);
  int const r = sp::SockSendPieces(s, pieces, count, true, room == 0 ? 0xFFFFFFFFu : room);
  std::size_t asked = 0;
  for (unsigned i = 0; i < count && i < sp::kMaxSendPieces; ++i)
    asked += pieces[i].len;
  if (push || r < 0 || static_cast<std::size_t>(r) < asked)
    sp::SockPushPending(s);
  return r;
}

unsigned SocketCtrl::SendQueued(unsigned int sock, sp::SockPiece const *pieces, unsigned count) {
  int r = SendInBufferSizedCalls(sock, pieces, count, true);
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
