// StmtQueue.h: work items run strictly one at a time, in order, on the
// queue's own thread.
//
//   StmtQueue          a first-in, first-out queue served by the thread
//                      "StmtQueue: Exec Stmt Thread (<name>)". Producers Add
//                      items (any XObj) from any thread; the thread passes each
//                      to the derived class's ExecStmt, without the queue lock
//                      held, so producers may Add while an item runs. The
//                      queue owns an item from a successful Add and deletes it
//                      after ExecStmt returns, whatever ExecStmt did.
//   XStrStmtQueueObj   the ready-made item: one text (a statement).
//
// Abort() is a drain, not a cancel: it refuses new items, lets the thread run
// every item already queued, and waits for the thread to end. Start() brings
// the queue back with a new thread.
//
// A derived class must call Abort() in its own destructor: ~StmtQueue drains
// too, but by then the derived ExecStmt is gone. Abort() called from inside
// ExecStmt only stops the queue (the thread cannot wait for itself); the
// thread is joined by the next Abort(), Start() or the destructor.
// The queue may also be destroyed from inside ExecStmt: its thread is then
// let go and leaves as soon as ExecStmt returns; items queued behind the
// running one are deleted unexecuted.
#pragma once

#include "platform/Export.h"
#include "thread/Semaphore.h"

#include <list>

class IThread;
class XStrDyn;

class SHAREDLIB_API XStrStmtQueueObj : public XObj {
public:
  explicit XStrStmtQueueObj(char const *text);  // null reads ""
  ~XStrStmtQueueObj() override;
  XStrStmtQueueObj(XStrStmtQueueObj const &) = delete;
  XStrStmtQueueObj &operator=(XStrStmtQueueObj const &) = delete;

  // Copies the text, trimmed, into buf (size bytes: at most size - 1
  // characters and a NUL) when buf and size are given. Returns buf.
  char const *GetDesc(char *buf, unsigned size) override;
  // The text (null only when it could not be allocated).
  XStrDyn *GetObj() const { return text_; }

private:
  XStrDyn *text_;
};

class SHAREDLIB_API StmtQueue {
public:
  // threadResult: what the thread returns (see SetThreadRet). name: at most
  // 63 characters, shown in the thread's name; blank for none.
  StmtQueue(int threadResult, char const *name);
  virtual ~StmtQueue();
  StmtQueue(StmtQueue const &) = delete;
  StmtQueue &operator=(StmtQueue const &) = delete;

  // Executes one item on the queue's thread.
  virtual void ExecStmt(XObj *item) = 0;

  // Queues item (the queue then owns it): 1. 0 when the queue is not ok,
  // stopped, or item is null; the caller keeps item then.
  int Add(XObj *item);
  // Items waiting (not counting one being executed); 0 when stopped.
  unsigned GetnItems();
  // Refuses new items, runs every queued one, and waits for the thread.
  void Abort();
  // After Abort: accepts items again on a new thread. 1, or 0 when the queue
  // is not ok or no thread could be made.
  int Start();

  // 1 while the queue has a thread and accepts items.
  int IsStarted();
  int IsOk() const { return ok_; }
  IThread *GetThreadId();
  // The value a thread started from now on returns.
  void SetThreadRet(int value);
  char const *GetName() const { return name_; }

private:
  static int DoExecStmt(IThread *thread, void *queue);
  int StartExecStmtThread();  // caller holds lock_
  void StopLocked();  // caller holds lock_
  static void JoinAndDelete(IThread *thread);

  int ok_;
  int stopped_;    // guarded by lock_
  int finished_;   // guarded by lock_
  int threadRet_;  // guarded by lock_
  char name_[64];
  _SEMAPHORE lock_;         // kind 3: guards the list, the flags and thread_
  _SEMAPHORE itemsSignal_;  // kind 1: one count per item added (and per Abort)
  _SEMAPHORE joinLock_;     // kind 3: held by Abort and Start for their whole run; before lock_, never by the thread
  IThread *thread_;         // guarded by lock_
  std::list<XObj *> items_; // guarded by lock_: oldest first, owned
};
