#include "socket/SendQueue.h"

#include "platform/Clock.h"
#include "platform/Readiness.h"
#include "platform/SocketApi.h"
#include "socket/detail/QueueFront.h"
#include "thread/Semaphore.h"
#include "thread/Thread.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <thread>

namespace sp = shared::platform;
using shared::SemGuard;

namespace {

constexpr unsigned kNoSocket = 0xFFFFFFFFu;
constexpr int kThreadResult = 31;
// The pause between cycles is taken in slices so a stop is seen quickly.
constexpr unsigned kPauseSliceMs = 50;

// Record id of a socket: descriptor 0 is a valid socket, id 0 is not.
unsigned KeyOf(unsigned sock) { return sock + 1; }
unsigned SockOf(unsigned key) { return key - 1; }

// A record's user data is the sink that queued it.
ISendSink *SinkOf(CLCtrlData const &rec) {
  return reinterpret_cast<ISendSink *>(static_cast<std::intptr_t>(rec.GetUserData()));
}

}  // namespace

SendQueue::SendQueue(unsigned int slotSize, unsigned int initialSlots, unsigned int growthSlots)
    : CLBuffer(slotSize, initialSlots, 0, 0, 1, 0, growthSlots),
      front_(std::make_unique<shared::socket::detail::QueueFront>()) {
  lock_ = new _SEMAPHORE(3, 1, 0, static_cast<unsigned long>(-1), -1);
  if (CLBuffer::IsOk() && lock_->IsOk())
    StartSendQueueThread();
  else
    stop_.store(1);
}

SendQueue::~SendQueue() {
  StopSendQueueThread();
  delete lock_;
}

void SendQueue::SetDebugDump(ISendQueueDump *dump) {
  SemGuard g(*lock_);
  dump_ = dump;
}

int SendQueue::StartSendQueueThread() {
  std::lock_guard<std::mutex> t(threadMutex_);
  if (thread_ && stop_.load(std::memory_order_acquire) && !OnSendThread()) {
    // A thread that stopped itself is collected before a new one starts.
    thread_->WaitForMe(IThread::kInfinite);
    delete thread_;
    thread_ = nullptr;
  }
  if (thread_ || !CLBuffer::IsOk())
    return 0;
  stop_.store(0, std::memory_order_release);
  // Made suspended and stored before it runs, so the handle is in place
  // whatever the thread does first.
  thread_ = CreateIThread(_DoSendQueueThread, this, 0, "SendQueue Thread");
  if (!thread_) {
    stop_.store(1, std::memory_order_release);
    return 0;
  }
  ok_.store(1, std::memory_order_release);
  thread_->Resume();
  return 1;
}

void SendQueue::StopSendQueueThread() {
  stop_.store(1, std::memory_order_release);
  wake_.Signal();
  if (OnSendThread()) {
    // Called from the send thread itself (a dump callback): it cannot wait
    // for its own end. It ends after this pass; the next start or stop from
    // another thread, or the destructor, collects it.
    ok_.store(0, std::memory_order_release);
    return;
  }
  std::lock_guard<std::mutex> t(threadMutex_);
  if (!thread_)
    return;
  // Waited for without the queue lock: the thread takes that lock once per
  // cycle, so holding it here could wait for ever.
  thread_->WaitForMe(IThread::kInfinite);
  delete thread_;
  thread_ = nullptr;
  ok_.store(0, std::memory_order_release);
}

int SendQueue::_DoSendQueueThread(IThread *thread, void *arg) {
  if (thread)
    thread->Register();
  auto *self = static_cast<SendQueue *>(arg);
  return self ? self->ThreadLoop() : kThreadResult;
}

void SendQueue::Gather(std::vector<std::uint32_t> *socks) {
  socks->clear();
  SemGuard g(*lock_);
  // From the start, next walks the records in id order.
  set_pos(0);
  for (unsigned id = next(nullptr, nullptr); id != 0; id = next(nullptr, nullptr))
    socks->push_back(SockOf(id));
}

bool SendQueue::OnSendThread() const {
  return threadId_.load(std::memory_order_acquire) == std::this_thread::get_id();
}

// Event-driven: the thread sleeps on the wake-up descriptor while nothing is
// queued, and otherwise on the writability of every socket with queued bytes
// (no count limit) plus the wake-up descriptor, which an insert or a stop
// signals. A writable socket is served at once. A socket that could take
// bytes but may not send them (its second's allowance is used up, its
// controller refuses data, a framed message waits for its tail) rests until
// the next insert or kPauseMs later, so it cannot spin the thread.
int SendQueue::ThreadLoop() {
  threadId_.store(std::this_thread::get_id(), std::memory_order_release);
  std::vector<std::uint32_t> socks;
  std::vector<sp::PollFd> fds;
  std::vector<std::uint32_t> resting;
  std::uint32_t restStart = 0;
  while (!stop_.load(std::memory_order_acquire)) {
    Gather(&socks);
    if (!resting.empty() && sp::TickCount() - restStart >= kPauseMs)
      resting.clear();
    fds.clear();
    fds.push_back(sp::PollFd{wake_.Fd(), sp::kPollIn, 0});
    for (std::uint32_t sock : socks) {
      if (std::find(resting.begin(), resting.end(), sock) == resting.end())
        fds.push_back(sp::PollFd{static_cast<int>(sock), sp::kPollOut, 0});
    }
    int const timeout = resting.empty() ? -1 : static_cast<int>(kPauseMs);
    int const n = sp::PollFds(fds.data(), static_cast<std::uint32_t>(fds.size()), timeout);
    if (stop_.load(std::memory_order_acquire))
      break;
    if (fds[0].revents != 0) {
      wake_.Drain();
      resting.clear();  // new bytes: every socket gets another look
    }
    if (n <= 0) {
      if (n < 0)
        sp::SleepMs(kPauseSliceMs);  // a descriptor closed under the poll: try again soon
      continue;
    }
    for (std::size_t i = 1; i < fds.size(); ++i) {
      if (fds[i].revents == 0)
        continue;
      std::uint32_t const sock = static_cast<std::uint32_t>(fds[i].fd);
      bool progress = false;
      {
        SemGuard g(*lock_);
        SendSocket(sock, &progress);
      }
      if (!progress && HasData(sock)) {
        if (resting.empty())
          restStart = sp::TickCount();
        resting.push_back(sock);
      }
    }
  }
  threadId_.store(std::thread::id(), std::memory_order_release);
  return kThreadResult;
}

unsigned int SendQueue::insert(unsigned int sock, char const *data, unsigned int len, unsigned int arg,
                               ISendSink *ctrl, int flag) {
  if (sock == kNoSocket || !data || len == 0 || arg == 0 || !ctrl || !IsOk())
    return 0;
  SemGuard g(*lock_);
  unsigned stored = CLBuffer::insert(KeyOf(sock), data, len, arg, nullptr,
                                     static_cast<__int64>(reinterpret_cast<std::intptr_t>(ctrl)), nullptr, flag);
  if (stored != 0 && stored < len) {
    // All or nothing: a record cut short by the limit would leave a framed
    // message in part, and a caller could not tell where its bytes ended.
    DropBack(KeyOf(sock), stored);
    stored = 0;
  }
  if (stored && dump_ && CanDebug())
    dump_->Dump(sock, data, stored, 0);
  if (stored)
    wake_.Signal();
  return stored;
}

int SendQueue::erase(unsigned int sock) {
  if (sock == kNoSocket)
    return 0;
  SemGuard g(*lock_);
  return CLBuffer::erase(KeyOf(sock));
}

int SendQueue::EraseFor(unsigned int sock, ISendSink const *ctrl) {
  if (sock == kNoSocket)
    return 0;
  SemGuard g(*lock_);
  CLCtrlData const *rec = FindRecord(KeyOf(sock));
  if (!rec || SinkOf(*rec) != ctrl)
    return 0;
  return CLBuffer::erase(KeyOf(sock));
}

SendQueue::Hold::Hold(SendQueue &q) : q_(q) { q_.lock_->Wait(1); }
SendQueue::Hold::~Hold() { q_.lock_->Signal(); }

int SendQueue::HasData(unsigned int sock) {
  if (sock == kNoSocket)
    return 0;
  SemGuard g(*lock_);
  unsigned size = 0;
  return getszdata(KeyOf(sock), &size) != 0 && size != 0 ? 1 : 0;
}

unsigned int SendQueue::GetSendQueueSize(unsigned int sock, unsigned int *count) {
  if (count)
    *count = 0;
  if (sock == kNoSocket || !IsOk())
    return 0;
  SemGuard g(*lock_);
  unsigned size = 0;
  if (getszdata(KeyOf(sock), &size) == 0)
    return 0;
  if (count)
    *count = size;
  return size;
}

// mode is kept for callers; every send of the queue is the same non-waiting
// send, so it changes nothing.
int SendQueue::SendQueuedData(int /*mode*/, unsigned int sock) {
  SemGuard g(*lock_);
  if (sock != kNoSocket)
    return SendSocket(sock, nullptr) ? 1 : 0;
  // A snapshot of the ids: a pass erases records it empties.
  ids_.clear();
  set_pos(0);
  for (unsigned id = next(nullptr, nullptr); id != 0; id = next(nullptr, nullptr))
    ids_.push_back(id);
  bool complete = true;
  for (unsigned id : ids_)
    complete = SendSocket(SockOf(id), nullptr) && complete;
  return complete ? 1 : 0;
}

void SendQueue::DropFront(unsigned key, unsigned n) {
  while (n > 0) {
    unsigned take = n;
    int done = 0;
    if (CLBuffer::first(key, nullptr, &take, nullptr, 1, &done) != key || take == 0)
      return;
    n -= take;
  }
}

void SendQueue::SetFrontLength(unsigned key, std::uint32_t length) {
  CLCtrlData *rec = FindRecord(key);
  char bytes[4];
  std::memcpy(bytes, &length, 4);
  unsigned at = 0;
  for (CLDataBuf *slot = rec ? rec->GetFirstSlot() : nullptr; slot && at < 4; slot = slot->next) {
    for (unsigned i = 0; i < slot->used && at < 4; ++i)
      slot->data[i] = bytes[at++];
  }
}

void SendQueue::DropBack(unsigned key, unsigned n) {
  CLCtrlData *rec = FindRecord(key);
  while (rec && n > 0) {
    CLDataBuf *slot = rec->GetLastSlot();
    if (!slot)
      break;
    unsigned take = std::min(n, slot->used);
    rec->RemoveData(slot, nullptr, take, slot->used - take);
    n -= take;
    if (slot->used == 0) {
      rec->RemoveSlot(slot);
      RecycleSlot(slot);
    }
  }
  if (rec && !rec->GetFirstSlot())
    CLBuffer::erase(key);
}

// Unframed bytes: as many as the allowance lets go, in one gathered send.
// True when the socket must wait even if every planned byte goes out.
bool SendQueue::PlanStream(unsigned allow) {
  unsigned const planned = front_->AddRange(0, allow);
  return planned == allow && allow < front_->Bytes();
}

// Framed messages, payloads only: every whole message that fits the
// allowance and the gather bound, in one send. A message goes whole or
// waits, except one that can never go whole in one read or within one
// second's limit: it goes in pieces (of the read, of the allowance). A
// message cut only by the gather bound is judged whole against the
// allowance and finished by the next send of the same turn. True when the
// socket must wait even if every planned byte goes out.
bool SendQueue::PlanFramed(unsigned held, unsigned allow, unsigned rateLimit) {
  unsigned const len = front_->Bytes();
  unsigned pos = 0;
  unsigned left = allow;
  for (;;) {
    if (pos == len)
      return false;  // read on
    std::uint32_t msgLen = 0;
    if (!front_->ReadLength(pos, &msgLen))
      return held == len;  // a prefix cut by the read: read on from it
    unsigned const have = len - pos - 4;
    unsigned piece = msgLen;
    if (msgLen > have) {
      if (held - pos - 4 < msgLen)
        return true;  // its bytes are not all queued
      if (have == 0)
        return false;  // read on from its prefix
      piece = have;    // held whole but longer than this read
    }
    if (piece > left) {
      if (left == 0 || msgLen <= rateLimit)
        return true;  // waits for a second with room for it whole
      piece = left;   // longer than a whole second's allowance
    }
    unsigned const covered = front_->AddRange(pos + 4, piece);
    if (covered > 0 || msgLen == 0)
      msgs_.push_back(PlannedMessage{pos, msgLen, covered});
    if (covered < msgLen)
      return covered == piece && piece == left;
    left -= covered;
    pos += 4 + msgLen;
  }
}

// After a framed send that took out bytes: the bytes to take off the front.
// A message the peer took only in part keeps its unsent tail first in line:
// dropping the sent bytes counted from its prefix leaves 4 bytes in front
// of the tail, which become its new prefix (*rest).
unsigned SendQueue::FramedDrop(unsigned out, std::uint32_t *rest, bool *begun) const {
  unsigned drop = 0;
  for (PlannedMessage const &m : msgs_) {
    unsigned const took = std::min(out, m.covered);
    out -= took;
    if (took == m.length) {
      drop = m.at + 4 + m.length;
      continue;
    }
    drop = m.at + took;
    if (took > 0) {
      *rest = m.length - took;
      *begun = true;
    }
    break;
  }
  return drop;
}

bool SendQueue::SendSocket(unsigned int sock, bool *progress) {
  unsigned const key = KeyOf(sock);
  for (;;) {
    CLCtrlData const *rec = FindRecord(key);
    unsigned const held = rec ? rec->GetBytes() : 0;
    if (held == 0) {
      if (rec)
        CLBuffer::erase(key);
      return true;  // nothing queued
    }
    ISendSink *sink = SinkOf(*rec);
    if (!sink || !sink->AcceptsQueued(sock))
      return true;  // kept for a later pass; nothing was attempted
    // The front of the socket's bytes, in place across slots: a framed
    // message longer than a slot is seen whole (up to the read size).
    front_->Load(*rec, kMaxReadBytes);
    // Reserved before the send and settled after it, so a writer of the
    // same socket cannot spend the same allowance.
    SendTerms const terms = sink->ReserveQueued(sock, front_->Bytes());

    msgs_.clear();
    bool const mustWait = terms.framed ? PlanFramed(held, terms.allow, terms.rateLimit) : PlanStream(terms.allow);
    unsigned const planned = front_->Planned();
    unsigned out = 0;
    if (planned > 0 && sink->AcceptsQueued(sock)) {
      out = std::min(planned, sink->SendQueued(sock, front_->Pieces(), front_->PieceCount()));
      // Refused by a full socket (another writer filled it since the
      // poll): the next writability report is worth acting on, so the
      // socket must not rest as one that may not send.
      if (out == 0 && progress)
        *progress = true;
    }
    if (out > 0 && dump_ && CanDebug())
      DumpSent(sock, out);
    sink->SettleQueued(sock, terms, out);

    std::uint32_t rest = 0;
    bool begun = false;
    unsigned const drop = terms.framed ? FramedDrop(out, &rest, &begun) : out;
    if (drop > 0) {
      DropFront(key, drop);
      if (progress)
        *progress = true;
    }
    if (drop == held)
      sink->QueueDrained(sock);
    if (begun)
      SetFrontLength(key, rest);
    if (out < planned || mustWait || drop == 0)
      return false;
  }
}

void SendQueue::DumpSent(unsigned sock, unsigned out) {
  sp::SockPiece const *pieces = front_->Pieces();
  for (unsigned i = 0; i < front_->PieceCount() && out > 0; ++i) {
    unsigned const n = std::min(out, pieces[i].len);
    dump_->Dump(sock, static_cast<char const *>(pieces[i].data), n, 1);
    out -= n;
  }
}
