// BinBuf.h: binary byte pipes between one producer and one consumer thread,
// and a numbered set of them.
//
// BinBuf_reg holds bytes in one buffer from a head offset on:
//
//   buffer_: [ read | held (used_) | free ]
//              ^0     ^head_              ^size_
//
// the producer appends with SaveData (a write that does not fit is refused
// whole, unless the register may grow: it then doubles), the consumer takes
// bytes from the front with GetData, which only moves head_ on. Held bytes
// move to the front only when a write needs the room.
// A blocking register makes GetData wait for data, or with wait-for-all for
// the whole amount asked. Abort empties the register, makes both directions
// refuse and releases a blocked reader; reset makes it usable again.
//
// Threads: SaveData from one producer, GetData from one consumer at a time
// (readers queue on the reader lock), Abort/reset/SetEnable from any thread.
// Lock order: reader lock, then data lock. A blocked reader holds only the
// reader lock. The accessors and SetEnable read and write without locking
// (the fields they touch are atomic). Destroy a register only when no thread
// is inside it: Abort and let a blocked reader return first.
//
// Registers are not copyable: a copy would share the locks of the original
// while owning different bytes.
//
// BufVectorT<BinBuf_reg> numbers registers by 1-based position; erasing one
// moves every later register down one id, and the erased register is kept
// for the next append. The set itself has no lock: one thread (or the
// caller's lock) changes and looks it up; the registers it hands out are
// thread-safe as above.
#pragma once

#include "platform/Export.h"
#include "thread/Semaphore.h"

#include <atomic>
#include <memory>
#include <new>
#include <vector>

class SHAREDLIB_API BinBuf_reg {
public:
  // size 0 leaves the register not ok. canRealloc lets a write that does not
  // fit grow the buffer (doubling, at least to what it needs); canBlock makes GetData
  // wait; waitForAll makes it wait for the whole amount asked.
  BinBuf_reg(unsigned size, int canRealloc, int canBlock, int waitForAll);
  virtual ~BinBuf_reg();
  BinBuf_reg(BinBuf_reg const &) = delete;
  BinBuf_reg &operator=(BinBuf_reg const &) = delete;

  virtual int IsOk();
  // Under the lock: not aborted, enabled, empty.
  virtual void reset();
  // Appends len bytes; 1 on success, 0 when refused (nothing written).
  virtual int SaveData(void *data, unsigned len);
  // Takes up to *len bytes from the front into buf (discarded when buf is
  // null) and sets *len to the count; 1 on success, 0 on failure (*len
  // unchanged). Blocks as described above.
  virtual int GetData(void *buf, unsigned *len);
  // The first byte held (it moves as bytes are read and on growth).
  virtual void *GetBufPtr();
  virtual unsigned GetBytesLeft();
  virtual unsigned GetBytesUsed();
  virtual int IsEnable();
  virtual int SetEnable(int on);

  int CanAbort() { return aborted_.load(std::memory_order_relaxed); }
  int CanBlock() { return canBlock_; }
  int CanRealloc() { return canRealloc_; }
  // reset, then mark aborted and release a blocked reader.
  void Abort();

private:
  void ResetWaitingForData();  // lock_ held

  std::atomic<char *> buffer_{nullptr};  // replaced under lock_ (growth)
  std::atomic<unsigned> used_{0};        // written under lock_
  std::atomic<unsigned> head_{0};        // written under lock_: offset of the first byte held
  std::atomic<int> aborted_{0};          // written under lock_
  std::atomic<int> enabled_{1};
  int const canRealloc_;
  int const canBlock_;
  int readerWaiting_ = 0;  // guarded by lock_
  int const waitForAll_;
  std::atomic<unsigned> size_{0};  // written under lock_ (growth)
  unsigned wanted_ = 0;            // guarded by lock_; 0 = any data
  _SEMAPHORE lock_;                             // the bytes and the wait state
  std::unique_ptr<_SEMAPHORE> dataSignal_;      // blocking registers only
  _SEMAPHORE readerLock_;                       // one reader at a time
};

template <class T>
class BufVectorT;

// The numbered register set. Registers are owned by the set.
template <>
class SHAREDLIB_API BufVectorT<BinBuf_reg> {
public:
  // regSize 0 leaves the set not ok; initial is the starting capacity.
  BufVectorT(unsigned initial, unsigned regSize);
  virtual ~BufVectorT();
  BufVectorT(BufVectorT const &) = delete;
  BufVectorT &operator=(BufVectorT const &) = delete;

  // A spare or new register (regSize bytes, fixed, non-blocking, any-data
  // reads) joins the set; returns its id, 0 on failure.
  unsigned append();
  BinBuf_reg *search(unsigned id);
  // Resets the register and keeps it for reuse; later ids move down one.
  int erase(unsigned id);

  int SaveData(unsigned id, void *data, unsigned len);
  int GetData(unsigned id, void *buf, unsigned *len);
  void *GetBufPtr(unsigned id);
  unsigned GetBytesLeft(unsigned id);
  unsigned GetBytesUsed(unsigned id);
  int IsEnable(unsigned id);
  int SetEnable(unsigned id, int on);

  // Walk of the active registers in id order; null at the end.
  BinBuf_reg *first();
  BinBuf_reg *next();
  unsigned get_nitens() const { return static_cast<unsigned>(active_.size()); }
  // Destroys every register, active and spare.
  void reset();
  int IsOk() const { return ok_; }

private:
  std::vector<BinBuf_reg *> active_;
  std::vector<BinBuf_reg *> spare_;
  unsigned regSize_;
  int ok_ = 0;
  unsigned walk_ = 0;  // next position of first/next
};

class SHAREDLIB_API BinBufVect : public BufVectorT<BinBuf_reg> {
public:
  BinBufVect(unsigned initial, unsigned regSize);

  using BufVectorT<BinBuf_reg>::GetData;
  using BufVectorT<BinBuf_reg>::SaveData;
  int SaveData(unsigned id, char *data, unsigned len);
  // The length goes by value: only success (1) or failure (0) is reported,
  // never the number of bytes read.
  int GetData(unsigned id, char *buf, unsigned len);
};
