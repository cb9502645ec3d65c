#include "media/XJitterCtrl.h"

#include "thread/Thread.h"

#include <new>

namespace {

constexpr unsigned long kForever = static_cast<unsigned long>(-1);

// The controller whose read thread this is, cleared when Stop (or the
// destructor) lets the thread go from inside a callback: the thread then
// leaves without touching the controller again.
thread_local XJitterCtrl *t_readThreadOf = nullptr;
// Set while the read thread raises OnJitterThreadEnd, so that a Stop from
// inside it does not raise it a second time.
thread_local bool t_inThreadEnd = false;

}  // namespace

XJitterCtrl::XJitterCtrl()
    : ok_(0),
      started_(0),
      fullNotified_(0),
      stopped_(1),
      filling_(0),
      empty_(1),
      paused_(0),
      threadRunning_(0),
      capacity_(0),
      secondSize_(0),
      maxPacketSize_(0),
      fillTarget_(0),
      events_(nullptr),
      thread_(nullptr),
      jb_(nullptr),
      lock_(3, 1, 0, kForever, -1),
      emptySignal_(1, 1, 0, kForever, -1),
      fillSignal_(1, 1, 0, kForever, -1),
      readerLock_(3, 1, 0, kForever, -1) {
  // The fill signal starts unavailable: a GetPacket that waits blocks until
  // Insert, Lock or Stop releases it.
  fillSignal_.Wait(1, "XJitterCtrl");
}

XJitterCtrl::~XJitterCtrl() {
  if (started_)
    Stop();
}

int XJitterCtrl::Initialize(unsigned capacity, unsigned secondSize, unsigned maxPacketSize,
                            IJitterBufferEvents *events) {
  shared::SemGuard guard(lock_, "XJitterCtrl::Initialize");
  // A Stop still joining the read thread has cleared started, but that
  // thread may still call the events object.
  if (started_ || thread_ != nullptr)
    return 0;
  if (capacity != 0 && secondSize != 0 && maxPacketSize != 0 && events != nullptr && secondSize <= maxPacketSize) {
    capacity_ = capacity;
    secondSize_ = secondSize;
    maxPacketSize_ = maxPacketSize;
    events_ = events;
    ok_ = 1;
    return 1;
  }
  ok_ = 0;
  capacity_ = 0;
  secondSize_ = 0;
  maxPacketSize_ = 0;
  events_ = nullptr;
  return 0;
}

int XJitterCtrl::Start() {
  shared::SemGuard guard(lock_, "XJitterCtrl::Start");
  if (started_ || !ok_ || thread_ != nullptr)
    return started_;
  jb_ = new (std::nothrow) JitterBuffer(capacity_, maxPacketSize_);
  if (jb_ == nullptr)
    return 0;
  stopped_ = 0;
  if (jb_->IsOk() && events_->OnJitterStart()) {
    // Suspended: the handle is stored before the body can run.
    thread_ = CreateIThread(_DoReadThread, this, 0, "XJitterCtrl: Read Pkt Thread");
    if (thread_ != nullptr) {
      started_ = 1;
      fullNotified_ = 0;
      paused_ = 0;
    }
  }
  if (!started_) {
    stopped_ = 1;
    delete jb_;
    jb_ = nullptr;
  }
  return started_;
}

int XJitterCtrl::Resume() {
  shared::SemGuard guard(lock_, "XJitterCtrl::Resume");
  if (!started_ || threadRunning_ || thread_ == nullptr)
    return 0;
  if (thread_->Resume() == -1)
    return 0;
  threadRunning_ = 1;
  return 1;
}

void XJitterCtrl::Stop() {
  lock_.Wait(1, "XJitterCtrl::Stop");
  if (!started_ || stopped_) {
    lock_.Signal("XJitterCtrl::Stop");
    return;
  }
  stopped_ = 1;
  // Release a reader waiting to fill, and a read thread waiting for the
  // buffer to drain. Done under the lock: filling and empty are guarded by it.
  if (filling_) {
    filling_ = 0;
    fillTarget_ = 0;
    fillSignal_.Signal("XJitterCtrl::Stop");
  }
  MarkEmptyLocked();
  IJitterBufferEvents *const events = events_;
  lock_.Signal("XJitterCtrl::Stop");

  // A GetPacket in progress has left once the reader lock is free.
  readerLock_.Wait(1, "XJitterCtrl::Stop");
  readerLock_.Signal("XJitterCtrl::Stop");

  if (events != nullptr)
    events->OnJitterStop();

  // On the read thread (Stop or the destructor from one of its callbacks)
  // the thread cannot be joined: it is let go, and leaves as soon as the
  // callback returns, so the controller may even be destroyed meanwhile.
  bool const onReadThread = t_readThreadOf == this;
  lock_.Wait(1, "XJitterCtrl::Stop");
  started_ = 0;
  if (thread_ != nullptr) {
    IThread *const thread = thread_;
    if (onReadThread) {
      t_readThreadOf = nullptr;
      threadRunning_ = 0;
      fullNotified_ = 0;  // what the thread's closing Flush(1) would have done
    } else if (threadRunning_) {
      // The read thread ends with Flush, which takes the lock: wait without it.
      lock_.Signal("XJitterCtrl::Stop");
      thread->WaitForMe(IThread::kInfinite);
      lock_.Wait(1, "XJitterCtrl::Stop");
      threadRunning_ = 0;
    }
    // A thread never resumed is released here without running its body; a
    // running one let go above is detached.
    delete thread;
    thread_ = nullptr;
  }
  delete jb_;
  jb_ = nullptr;
  lock_.Signal("XJitterCtrl::Stop");
  if (onReadThread && !t_inThreadEnd && events != nullptr)
    events->OnJitterThreadEnd();  // the let-go thread's last notice
}

int XJitterCtrl::_DoReadThread(IThread *thread, void *self) {
  if (thread != nullptr)
    thread->Register();
  return static_cast<XJitterCtrl *>(self)->ReadThreadFunc();
}

int XJitterCtrl::ReadThreadFunc() {
  t_readThreadOf = this;
  // events_ cannot change while this thread exists (Initialize refuses).
  IJitterBufferEvents *const events = events_;
  while (started_) {
    int const more = events->OnJitterRead();
    if (t_readThreadOf != this)
      return 0;  // stopped from inside the callback: let go
    if (!more)
      break;
  }
  if (started_ && !stopped_) {
    // The client ended the loop: let the buffer drain first (Stop releases
    // this wait too).
    emptySignal_.Wait(1, "XJitterCtrl: Read Pkt Thread");
    emptySignal_.Signal("XJitterCtrl: Read Pkt Thread");
  } else {
    Flush(1);
  }
  // The last touch of the controller: it may be stopped or destroyed from
  // inside this callback.
  t_inThreadEnd = true;
  events->OnJitterThreadEnd();
  t_inThreadEnd = false;
  t_readThreadOf = nullptr;
  return 0;
}

void XJitterCtrl::MarkEmptyLocked() {
  if (!empty_) {
    emptySignal_.Signal("XJitterCtrl");
    empty_ = 1;
  }
}

int XJitterCtrl::Insert(unsigned seq, char const *data, unsigned len) {
  if (stopped_)
    return 0;
  IJitterBufferEvents *notifyFull = nullptr;
  int result = 0;
  {
    shared::SemGuard guard(lock_, "XJitterCtrl::Insert");
    if (stopped_ || jb_ == nullptr)
      return 0;
    result = jb_->IsOk() ? jb_->insert(seq, data, len) : 0;
    // Runs whatever the insert's result. Compared with the bytes really
    // held: the bytes-left counter drifts (a replaced duplicate deducts its
    // sequence number) and could meet a target early or never.
    if (filling_ && jb_->GetnBytesHeld() >= fillTarget_) {
      filling_ = 0;
      fillTarget_ = 0;
      fillSignal_.Signal("XJitterCtrl::Insert");
    }
    if (result && empty_) {
      empty_ = 0;
      // Available whenever empty_ is set; at most the read thread holds it for
      // an instant while checking for a drained buffer.
      emptySignal_.Wait(1, "XJitterCtrl::Insert");
    }
    if (jb_->GetPercFull() >= 100 && !fullNotified_) {
      fullNotified_ = 1;
      notifyFull = events_;
    }
  }
  // Raised with no lock held: a client that empties the buffer from here
  // (GetPacket takes the reader lock, then the main lock) would otherwise
  // invert the lock order against a reader. Nothing touches the controller
  // after it, so the callback may stop or destroy it.
  if (notifyFull != nullptr)
    notifyFull->OnJitterBufFull();
  return result;
}

unsigned XJitterCtrl::GetPacket(char *buf, unsigned len, unsigned *outLen, int wait, int waitForLen) {
  if (!started_ || buf == nullptr || len == 0 || filling_ || stopped_ || paused_)
    return 0;
  readerLock_.Wait(1, "XJitterCtrl::GetPacket");

  if (wait) {
    lock_.Wait(1, "XJitterCtrl::GetPacket");
    bool waitToFill = false;
    // paused is checked here too: a Lock that came after the check at the
    // top must not leave this reader parked until the next insert.
    if (!stopped_ && !paused_ && jb_ != nullptr) {
      // What is really held: the bytes-left counter can sit below zero for
      // good after a replaced duplicate, and "any byte" would never wait.
      if (waitForLen) {
        if (len > jb_->GetnBytesHeld()) {
          fillTarget_ = len;
          waitToFill = true;
        }
      } else if (jb_->GetnPacketsLeft() == 0) {
        fillTarget_ = 1;
        waitToFill = true;
      }
    }
    if (waitToFill)
      filling_ = 1;
    lock_.Signal("XJitterCtrl::GetPacket");
    // Only the reader lock is held while waiting.
    if (waitToFill)
      fillSignal_.Wait(1, "XJitterCtrl::GetPacket");
  }

  if (stopped_ || paused_) {
    readerLock_.Signal("XJitterCtrl::GetPacket");
    return 0;
  }
  lock_.Wait(1, "XJitterCtrl::GetPacket");
  if (stopped_ || paused_ || jb_ == nullptr) {
    lock_.Signal("XJitterCtrl::GetPacket");
    readerLock_.Signal("XJitterCtrl::GetPacket");
    return 0;
  }
  unsigned n = len;
  unsigned const seq = jb_->popbytes(buf, &n);
  bool const nowEmpty = jb_->GetnPacketsLeft() == 0;
  if (seq != 0) {
    if (outLen != nullptr)
      *outLen = n;
    if (n != 0 && nowEmpty)
      MarkEmptyLocked();
  }
  IJitterBufferEvents *const events = events_;
  lock_.Signal("XJitterCtrl::GetPacket");
  if (nowEmpty)
    events->OnJitterBufEmpty();
  readerLock_.Signal("XJitterCtrl::GetPacket");
  return seq;
}

int XJitterCtrl::SearchPacket(unsigned seq, char *buf, unsigned len, unsigned *outLen) {
  if (seq == 0 || !started_ || stopped_ || paused_ || filling_)
    return 0;
  shared::SemGuard guard(lock_, "XJitterCtrl::SearchPacket");
  if (!started_ || stopped_ || paused_ || empty_ || filling_ || jb_ == nullptr)
    return 0;
  unsigned n = len;
  if (!jb_->search(seq, buf, &n))
    return 0;
  if (outLen != nullptr)
    *outLen = n;
  return 1;
}

int XJitterCtrl::Remove(unsigned seq) {
  if (!started_ || stopped_ || seq == 0)
    return 0;
  lock_.Wait(1, "XJitterCtrl::Remove");
  if (stopped_ || jb_ == nullptr) {
    lock_.Signal("XJitterCtrl::Remove");
    return 0;
  }
  int const result = jb_->remove(seq);
  bool const nowEmpty = result && jb_->GetnPacketsLeft() == 0;
  if (nowEmpty)
    MarkEmptyLocked();
  IJitterBufferEvents *const events = events_;
  lock_.Signal("XJitterCtrl::Remove");
  if (nowEmpty)
    events->OnJitterBufEmpty();
  return result;
}

unsigned XJitterCtrl::GetNextSeq() {
  shared::SemGuard guard(lock_, "XJitterCtrl::GetNextSeq");
  if (!started_ || stopped_ || jb_ == nullptr)
    return 0;
  return jb_->getszdata(0, nullptr);
}

void XJitterCtrl::Flush(int resetFull) {
  shared::SemGuard guard(lock_, "XJitterCtrl::Flush");
  if (jb_ != nullptr)
    jb_->flush();
  MarkEmptyLocked();
  if (resetFull)
    fullNotified_ = 0;
}

void XJitterCtrl::Lock() {
  shared::SemGuard guard(lock_, "XJitterCtrl::Lock");
  if (stopped_ || paused_)
    return;
  if (filling_) {
    filling_ = 0;
    fillTarget_ = 0;
    fillSignal_.Signal("XJitterCtrl::Lock");
  }
  paused_ = 1;
}

void XJitterCtrl::Unlock() {
  shared::SemGuard guard(lock_, "XJitterCtrl::Unlock");
  paused_ = 0;
}

int XJitterCtrl::IsBufEmpty() {
  shared::SemGuard guard(lock_);
  return (jb_ == nullptr || jb_->GetnPacketsLeft() == 0) ? 1 : 0;
}

int XJitterCtrl::IsBufFull() {
  shared::SemGuard guard(lock_);
  return (jb_ != nullptr && jb_->GetPercFull() >= 100) ? 1 : 0;
}

unsigned XJitterCtrl::GetnPacketsLeft() {
  shared::SemGuard guard(lock_);
  return jb_ != nullptr ? jb_->GetnPacketsLeft() : 0;
}

void XJitterCtrl::GetInfo(unsigned *left, unsigned *percFull, unsigned *lost, unsigned *inserted,
                          unsigned *removed) {
  for (unsigned *p : {left, percFull, lost, inserted, removed}) {
    if (p != nullptr)
      *p = 0;
  }
  if (!started_ || stopped_)
    return;
  shared::SemGuard guard(lock_, "XJitterCtrl::GetInfo");
  if (jb_ != nullptr)
    jb_->GetInfo(left, percFull, lost, inserted, removed);
}
