#include "socket/SendQueue.h"

#include "platform/Clock.h"
#include "platform/Readiness.h"
#include "socket/SocketCtrl.h"
#include "thread/Semaphore.h"
#include "thread/Thread.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

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

}  // namespace

SendQueue::SendQueue(unsigned int slotSize, unsigned int initialSlots, unsigned int growthSlots)
    : CLBuffer(slotSize, initialSlots, 0, 0, 1, 0, growthSlots) {
  lock_ = new _SEMAPHORE(3, 1, 0, static_cast<unsigned long>(-1), -1);
  readBuf_.resize(kMaxReadBytes);
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
  for (unsigned id = next(nullptr, nullptr); id != 0 && socks->size() < kMaxSockets;
       id = next(nullptr, nullptr))
    socks->push_back(SockOf(id));
}

int SendQueue::ThreadLoop() {
  std::vector<std::uint32_t> socks;
  socks.reserve(kMaxSockets);
  while (!stop_.load(std::memory_order_acquire)) {
    Gather(&socks);
    if (!socks.empty()) {
      int ready = sp::WaitSockets(socks.data(), static_cast<std::uint32_t>(socks.size()), 2u, kWaitMs, nullptr);
      if (ready > 0 && !stop_.load(std::memory_order_acquire))
        SendQueuedData(0, kNoSocket);
    }
    for (unsigned slept = 0; slept < kPauseMs && !stop_.load(std::memory_order_acquire); slept += kPauseSliceMs)
      sp::SleepMs(kPauseSliceMs);
  }
  return kThreadResult;
}

unsigned int SendQueue::insert(unsigned int sock, char const *data, unsigned int len, unsigned int arg,
                               SocketCtrl *ctrl, int flag) {
  if (sock == kNoSocket || !data || len == 0 || arg == 0 || !ctrl || !IsOk())
    return 0;
  SemGuard g(*lock_);
  unsigned stored = CLBuffer::insert(KeyOf(sock), data, len, arg, nullptr,
                                     static_cast<__int64>(reinterpret_cast<std::intptr_t>(ctrl)), nullptr, flag);
  if (stored && dump_ && CanDebug())
    dump_->Dump(sock, data, stored, 0);
  return stored;
}

int SendQueue::erase(unsigned int sock) {
  if (sock == kNoSocket)
    return 0;
  SemGuard g(*lock_);
  return CLBuffer::erase(KeyOf(sock));
}

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

int SendQueue::SendQueuedData(int mode, unsigned int sock) {
  SemGuard g(*lock_);
  if (sock != kNoSocket)
    return SendSocket(mode, sock) ? 1 : 0;
  // A snapshot of the ids: a pass erases records it empties.
  ids_.clear();
  set_pos(0);
  for (unsigned id = next(nullptr, nullptr); id != 0; id = next(nullptr, nullptr))
    ids_.push_back(id);
  bool complete = true;
  for (unsigned id : ids_)
    complete = SendSocket(mode, SockOf(id)) && complete;
  return complete ? 1 : 0;
}

bool SendQueue::SendSocket(int mode, unsigned int sock) {
  unsigned const key = KeyOf(sock);
  char *buf = readBuf_.data();
  for (;;) {
    unsigned len = kMaxReadBytes;
    __int64 user = 0;
    int done = 0;
    if (CLBuffer::first(key, buf, &len, &user, 0, &done) != key)
      return true;  // nothing queued
    auto *ctrl = reinterpret_cast<SocketCtrl *>(static_cast<std::intptr_t>(user));
    if (!ctrl || !ctrl->CanSendData(sock))
      return true;  // kept for a later pass; nothing was attempted
    if (len == 0) {
      CLBuffer::erase(key);
      return true;
    }

    ctrl->WaitSockOpt();
    SockOptions o;
    bool const accounting = ctrl->GetSockOptions(sock, &o) && o.Accounting();
    if (!accounting)
      ctrl->SignalSockOpt();
    std::int64_t const now = sp::NowSeconds();
    unsigned allow = len;
    if (accounting && o.rateLimit)
      allow = o.Allowance(len, now);

    unsigned consumed = 0;  // bytes to drop from the front of the queue
    unsigned sent = 0;      // payload bytes that went out
    if (allow > 0 && !o.framed) {
      if (ctrl->CanSendData(sock)) {
        int r = ctrl->_write(buf, allow, sock, mode, 0, 1, 0, nullptr, 0, 0, nullptr);
        sent = r > 0 ? static_cast<unsigned>(r) : 0;
      }
      consumed = sent;
      if (sent && dump_ && CanDebug())
        dump_->Dump(sock, buf, sent, 1);
    } else if (allow > 0) {
      // Message by message; a message goes whole or waits for a later pass.
      while (consumed + 4 <= len) {
        std::uint32_t msgLen = 0;
        std::memcpy(&msgLen, buf + consumed, 4);
        if (msgLen > len - consumed - 4 || msgLen > allow - sent || !ctrl->CanSendData(sock))
          break;
        if (msgLen > 0) {
          int r = ctrl->_write(buf + consumed + 4, msgLen, sock, mode, 1, 1, 0, nullptr, 0, 1, nullptr);
          if (r <= 0)
            break;
          if (r != static_cast<int>(msgLen)) {
            // Part of a message went out and the peer takes no more: the
            // stream cannot carry on in step, so the socket is closed by
            // its controller's next pass and its queue dropped with it.
            ctrl->closeSSock(sock);
            sent += static_cast<unsigned>(r);
            consumed = len;
            break;
          }
          if (dump_ && CanDebug())
            dump_->Dump(sock, buf + consumed + 4, msgLen, 1);
        }
        sent += msgLen;
        consumed += 4 + msgLen;
      }
    }
    if (accounting) {
      if (sent > 0)
        o.Count(sent, now);
      ctrl->UpdateSockOptions(sock, &o);
      ctrl->SignalSockOpt();
    }
    if (consumed > 0)
      CLBuffer::poplastop(key, consumed);
    if (consumed < len)
      return false;
  }
}
