// XJitterCtrl.h: a jitter buffer between a network receiver and a media
// consumer, with a read thread of its own.
//
// Receiving threads call Insert with sequence-numbered packets. The
// controller's "XJitterCtrl: Read Pkt Thread" calls the client's
// OnJitterRead over and over; the client takes data out with GetPacket,
// which can wait until a number of bytes has built up (pre-buffering). The
// client hears through IJitterBufferEvents when the controller starts and
// stops, when the buffer becomes full and when it runs empty, and can pause
// reading (Lock/Unlock), flush, peek and remove packets.
//
//   constructed --Initialize--> ok --Start--> started (thread suspended)
//     --Resume--> running --Stop--> stopped (thread joined, buffer gone)
//     --Start--> ...
//
// Threads: Insert from any receiving thread; GetPacket from the read thread
// (through OnJitterRead) or any one reader at a time; Start, Resume, Stop,
// Lock, Unlock, Flush from a controlling thread. Every field is guarded by
// the main lock; the flags that are also read without it (the quick
// refusals at the top of Insert and GetPacket) are atomics.
// Lock order: the reader lock before the main lock. No operation takes the
// reader lock while holding the main lock, and GetPacket waits for its fill
// target holding only the reader lock, so Insert, Lock and Stop can always
// wake it.
#pragma once

#include "media/JitterBuffer.h"
#include "platform/Export.h"
#include "thread/Semaphore.h"

#include <atomic>

class IThread;

// The client's side of an XJitterCtrl. Callbacks must return promptly.
class SHAREDLIB_API IJitterBufferEvents {
public:
  IJitterBufferEvents() = default;
  IJitterBufferEvents(IJitterBufferEvents const &) = default;
  IJitterBufferEvents &operator=(IJitterBufferEvents const &) = default;
  virtual ~IJitterBufferEvents() = default;

  // From Start (on the caller's thread, main lock held), after the buffer
  // was created and before the read thread is: 0 aborts the start.
  virtual int OnJitterStart() = 0;
  // From the read thread, over and over while started: 0 ends the loop.
  virtual int OnJitterRead() = 0;
  // From Insert, after the main lock was released, when the buffer reaches
  // 100 percent and this was not yet raised (see ResetBufFull). May take
  // packets out (GetPacket), Stop or destroy the controller.
  virtual void OnJitterBufFull() = 0;
  // From GetPacket and Remove when no packet is left, after the main lock
  // was released (GetPacket still holds the reader lock).
  virtual void OnJitterBufEmpty() = 0;
  // From Stop, after readers were released and before the read thread is
  // waited for.
  virtual void OnJitterStop() = 0;
  // From the read thread, as its last action.
  virtual void OnJitterThreadEnd() = 0;
  //
  // Stop may be called from any of these. On the read thread (OnJitterRead,
  // OnJitterThreadEnd, or a GetPacket's OnJitterBufEmpty inside
  // OnJitterRead) it does not join: the thread is let go and leaves once the
  // callback returns, raising OnJitterThreadEnd from Stop if not already in
  // it, and the controller may be destroyed there too. Destroying it from
  // OnJitterBufEmpty is not allowed (GetPacket still releases the reader
  // lock after it).
};

class SHAREDLIB_API XJitterCtrl {
public:
  XJitterCtrl();
  // Stops the controller when started (joining the read thread).
  ~XJitterCtrl();
  // The controller is its locks and its thread: not copyable.
  XJitterCtrl(XJitterCtrl const &) = delete;
  XJitterCtrl &operator=(XJitterCtrl const &) = delete;

  // capacity: packets of the jitter buffer (GetPercFull's 100 percent);
  // secondSize: kept, may not exceed maxPacketSize; maxPacketSize: longer
  // packets are truncated. 1 when all four are non-zero and secondSize fits;
  // otherwise 0 with the settings cleared. Refused (0, nothing changed)
  // while started or while a Stop is still joining the read thread.
  int Initialize(unsigned capacity, unsigned secondSize, unsigned maxPacketSize, IJitterBufferEvents *events);
  // Creates the buffer, asks OnJitterStart, creates the read thread
  // suspended. Returns started; on failure everything built is undone.
  int Start();
  // Lets the read thread run. 1 when it was resumed now.
  int Resume();
  // Releases a waiting reader, raises OnJitterStop, waits for the read
  // thread without time limit (a never-resumed thread is released without
  // running), then destroys the buffer. Nothing when not started. Called on
  // the read thread itself (from a callback) it lets the thread go instead
  // of waiting for it (see IJitterBufferEvents).
  void Stop();

  // 1 when stored (see JitterBuffer::insert); 0 when stopped.
  int Insert(unsigned seq, char const *data, unsigned len);
  // Reads at most len bytes from the front of the lowest packet into buf
  // (a larger packet comes out in pieces, each with the same number).
  // wait: first wait until bytes are held: len bytes with waitForLen, any
  // byte without (counting what is really held). Returns the sequence number read from, 0 when nothing was
  // read (not started, stopped, paused, another reader filling, or woken by
  // Lock/Stop). *outLen receives the count when a packet was read.
  unsigned GetPacket(char *buf, unsigned len, unsigned *outLen, int wait, int waitForLen);
  // Copies packet seq without removing it. 1 when found.
  int SearchPacket(unsigned seq, char *buf, unsigned len, unsigned *outLen);
  // Deletes packet seq; the JitterBuffer::remove result.
  int Remove(unsigned seq);
  // Lowest sequence number held; 0 when none or not running.
  unsigned GetNextSeq();

  // Empties the buffer (any state); resetFull re-arms OnJitterBufFull.
  void Flush(int resetFull);
  // Pauses reading: a waiting GetPacket returns 0, and so does every
  // GetPacket until Unlock.
  void Lock();
  void Unlock();
  // Re-arms OnJitterBufFull.
  void ResetBufFull() { fullNotified_ = 0; }

  int IsOk() const { return ok_; }
  int IsStarted() const { return started_; }
  // 1 while a GetPacket waits for its fill target.
  int IsFilling() const { return filling_; }
  int IsBufEmpty();
  int IsBufFull();
  unsigned GetnPacketsLeft();
  // Every non-null pointer is set to 0, then filled while running.
  void GetInfo(unsigned *left, unsigned *percFull, unsigned *lost, unsigned *inserted, unsigned *removed);

protected:
  static int _DoReadThread(IThread *thread, void *self);
  int ReadThreadFunc();

private:
  void MarkEmptyLocked();  // buffer holds nothing: give the empty signal back

  std::atomic<int> ok_;
  std::atomic<int> started_;       // written under lock_
  std::atomic<int> fullNotified_;  // written under lock_, and by ResetBufFull
  std::atomic<int> stopped_;       // written under lock_
  std::atomic<int> filling_;       // written under lock_
  int empty_;                      // guarded by lock_; 1 while emptySignal_ is available
  std::atomic<int> paused_;        // written under lock_
  int threadRunning_;              // guarded by lock_
  unsigned capacity_;              // guarded by lock_
  unsigned secondSize_;            // guarded by lock_
  unsigned maxPacketSize_;         // guarded by lock_
  unsigned fillTarget_;            // guarded by lock_
  IJitterBufferEvents *events_;    // guarded by lock_; not owned; fixed while a thread exists
  IThread *thread_;                // guarded by lock_; owned
  JitterBuffer *jb_;               // guarded by lock_; owned; from Start to Stop
  _SEMAPHORE lock_;                // kind 3: the main lock
  _SEMAPHORE emptySignal_;         // kind 1, max 1: available while the buffer is empty
  _SEMAPHORE fillSignal_;          // kind 1, max 1: wakes a GetPacket waiting to fill
  _SEMAPHORE readerLock_;          // kind 3: one GetPacket at a time
};
