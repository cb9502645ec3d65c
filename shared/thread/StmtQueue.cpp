#include "thread/StmtQueue.h"

#include "platform/Compat.h"
#include "text/DebugOutput.h"
#include "text/TextRoutines.h"
#include "text/XStr.h"
#include "thread/Thread.h"

#include <exception>
#include <new>

namespace {

constexpr unsigned long kForever = static_cast<unsigned long>(-1);

// The queue whose thread this is, so that Abort from inside ExecStmt does
// not wait for itself.
thread_local StmtQueue *t_currentQueue = nullptr;

}  // namespace

// --- XStrStmtQueueObj -------------------------------------------------------

XStrStmtQueueObj::XStrStmtQueueObj(char const *text) : text_(new (std::nothrow) XStrDyn(text ? text : "")) {}

XStrStmtQueueObj::~XStrStmtQueueObj() { delete text_; }

char const *XStrStmtQueueObj::GetDesc(char *buf, unsigned size) {
  if (buf && size != 0) {
    // ajusta_str writes n characters and a NUL: n = size - 1 keeps to buf.
    ajusta_str(text_ ? text_->GetStr() : "", buf, static_cast<int>(size - 1));
    if (size == 1)
      buf[0] = '\0';
  }
  return buf;
}

// --- StmtQueue --------------------------------------------------------------

StmtQueue::StmtQueue(int threadResult, char const *name)
    : ok_(0),
      stopped_(0),
      finished_(0),
      threadRet_(threadResult),
      name_{},
      lock_(3, 1, 0, kForever, -1),
      itemsSignal_(1, 0x7FFFFFFF, 0, kForever, 0),
      joinLock_(3, 1, 0, kForever, -1),
      thread_(nullptr) {
  if (!comp_branco(name))
    ajusta_str(name, name_, 63);
  if (!lock_.IsOk() || !itemsSignal_.IsOk() || !joinLock_.IsOk())
    return;
  shared::SemGuard guard(lock_, "StmtQueue::StmtQueue");
  ok_ = StartExecStmtThread();
}

StmtQueue::~StmtQueue() {
  Abort();
  if (t_currentQueue == this) {
    // Destroyed from inside ExecStmt: the thread cannot be joined from
    // itself. Its handle is let go (the OS thread is detached) and the
    // cleared marker tells it, once ExecStmt returns, to leave without
    // touching the queue again. Items behind the one running can no longer
    // be executed (the derived ExecStmt is gone) and are deleted below.
    t_currentQueue = nullptr;
    delete thread_;
    thread_ = nullptr;
  }
  // Nothing is left in the normal course: Add refuses while stopped.
  for (XObj *item : items_)
    delete item;
  items_.clear();
}

int StmtQueue::StartExecStmtThread() {
  if (thread_)
    return 0;
  finished_ = 0;
  char threadName[64];
  if (name_[0] != '\0')
    _snprintf(threadName, sizeof threadName, "StmtQueue: Exec Stmt Thread (%s)", name_);
  else
    _snprintf(threadName, sizeof threadName, "StmtQueue: Exec Stmt Thread");
  // Stored before it runs, so that Abort always finds the thread to join.
  IThread *thread = CreateIThread(&StmtQueue::DoExecStmt, this, 0, threadName);
  if (!thread) {
    finished_ = 1;
    return 0;
  }
  thread_ = thread;
  thread->Resume();
  return 1;
}

int StmtQueue::Add(XObj *item) {
  if (!ok_ || !item)
    return 0;
  shared::SemGuard guard(lock_, "StmtQueue::Add");
  if (finished_ || stopped_)
    return 0;
  try {
    items_.push_back(item);
  } catch (std::bad_alloc const &) {
    return 0;
  }
  // Signalled under the lock: once Abort holds the lock, no producer is
  // still inside the signal, so the queue may be destroyed after it.
  itemsSignal_.Signal("StmtQueue::Add");
  return 1;
}

unsigned StmtQueue::GetnItems() {
  if (!ok_)
    return 0;
  shared::SemGuard guard(lock_, "StmtQueue::GetnItems");
  if (finished_ || stopped_)
    return 0;
  return static_cast<unsigned>(items_.size());
}

void StmtQueue::Abort() {
  if (!ok_)
    return;
  if (t_currentQueue == this) {
    // From ExecStmt: only stop. The thread finishes the drain by itself and
    // is joined by the next Abort, Start or the destructor.
    shared::SemGuard guard(lock_, "StmtQueue::Abort");
    StopLocked();
    return;
  }
  // Held until the clean-up is done, and taken by Start for its whole run:
  // a Start can neither slip a new thread in between the stop and the join
  // (which would then wait on a live worker) nor have the clean-up below
  // delete items that its thread accepted.
  shared::SemGuard join(joinLock_, "StmtQueue::Abort");
  IThread *thread = nullptr;
  {
    // The thread to join is taken in the same step that stops the queue.
    shared::SemGuard guard(lock_, "StmtQueue::Abort");
    StopLocked();
    thread = thread_;
    thread_ = nullptr;
  }
  JoinAndDelete(thread);
  // Anything still listed was added behind the drain's back: not executed.
  shared::SemGuard guard(lock_, "StmtQueue::Abort");
  for (XObj *item : items_)
    delete item;
  items_.clear();
}

void StmtQueue::StopLocked() {
  if (!stopped_) {
    stopped_ = 1;
    itemsSignal_.Signal("StmtQueue::Abort");  // wakes a waiting thread
  }
}

void StmtQueue::JoinAndDelete(IThread *thread) {
  if (thread) {
    thread->WaitForMe(IThread::kInfinite);
    delete thread;
  }
}

int StmtQueue::Start() {
  if (!ok_ || t_currentQueue == this)
    return 0;
  shared::SemGuard join(joinLock_, "StmtQueue::Start");
  IThread *previous = nullptr;
  {
    shared::SemGuard guard(lock_, "StmtQueue::Start");
    if (!stopped_)
      return 1;
    // A thread stopped from inside ExecStmt may still need joining.
    previous = thread_;
    thread_ = nullptr;
  }
  JoinAndDelete(previous);
  shared::SemGuard guard(lock_, "StmtQueue::Start");
  stopped_ = 0;
  if (!StartExecStmtThread()) {
    stopped_ = 1;
    return 0;
  }
  return 1;
}

int StmtQueue::IsStarted() {
  shared::SemGuard guard(lock_, "StmtQueue::IsStarted");
  return (ok_ && thread_ && !stopped_) ? 1 : 0;
}

IThread *StmtQueue::GetThreadId() {
  shared::SemGuard guard(lock_, "StmtQueue::GetThreadId");
  return thread_;
}

void StmtQueue::SetThreadRet(int value) {
  shared::SemGuard guard(lock_, "StmtQueue::SetThreadRet");
  threadRet_ = value;
}

int StmtQueue::DoExecStmt(IThread *thread, void *arg) {
  auto *queue = static_cast<StmtQueue *>(arg);
  thread->Register();
  t_currentQueue = queue;
  int result;
  int stopped;
  {
    shared::SemGuard guard(queue->lock_, "StmtQueue::DoExecStmt");
    result = queue->threadRet_;
    stopped = queue->stopped_;
  }
  for (;;) {
    if (!stopped)
      queue->itemsSignal_.Wait(1, "StmtQueue::DoExecStmt");
    queue->lock_.Wait(1, "StmtQueue::DoExecStmt");
    if (queue->finished_)
      break;
    // Drain everything queued; the lock is let go around each item.
    while (!queue->items_.empty()) {
      XObj *item = queue->items_.front();
      queue->items_.pop_front();
      item->GetId();
      queue->lock_.Signal("StmtQueue::DoExecStmt");
      try {
        queue->ExecStmt(item);
      } catch (std::exception const &e) {
        _DebugNotifyOnly(0, "StmtQueue", "ExecStmt of queue '%s' threw: %s", queue->name_, e.what());
      }
      delete item;
      if (t_currentQueue != queue)
        return result;  // ExecStmt destroyed the queue
      queue->lock_.Wait(1, "StmtQueue::DoExecStmt");
    }
    stopped = queue->stopped_;
    if (stopped) {
      queue->finished_ = 1;
      break;
    }
    queue->lock_.Signal("StmtQueue::DoExecStmt");
  }
  queue->lock_.Signal("StmtQueue::DoExecStmt");
  t_currentQueue = nullptr;
  return result;
}
