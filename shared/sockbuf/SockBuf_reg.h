// SockBuf_reg.h: the per-stream packet store of the buffered reader.
//
// The owner's read thread appends whole media packets with SaveData; a
// consumer takes them out one at a time with GetData or, through the
// ISockBuffExt face, with Read. Packets sit back to back in one buffer, oldest
// first, between a read offset and a write offset. A read only advances the
// read offset, and a read that empties the register puts both back to 0. The
// buffer is twice the window: the live bytes move to the front only when a
// save would run off its end, and by then more bytes were read than are
// live, so each byte is copied at most once more on average however far the
// consumer lags. The window (capacity_) alone decides what fits; no packet
// wraps and none costs an allocation:
//
//   buffer_: [consumed...][hdr|payload][hdr|pay..   free              ]
//            ^0           ^head_               ^tail_                    ^physical_
//                         <- live: at most capacity_ ->   (physical_ = 2 x capacity_)
//
// Packets whose media identifier differs from the filter are dropped lazily,
// when a reader or writer looks at the front. A save that does not fit
// empties the register (the new packet included): a stalled consumer then
// restarts from fresh data instead of draining stale packets. Optional
// stages (ordering, defragmenting) hang behind the register; consumers read
// through GetObj, the last of them.
//
// Threads: SaveData from the owner's read thread; GetData/Read from one
// consumer at a time (others queue at the reader gate); open, close, abort,
// options and the accessors from any thread.
// Locks, in order: stage gate (consumers of the stages, and reset), reader
// gate (one reader in GetData), data lock (every field). A blocked reader
// holds only the gates. Owner hooks are called with no register lock held.
// Abort returns only after a reader inside GetData has left; reset also
// waits for a consumer inside a stage. Destroy a register only when no thread
// is inside it.
#pragma once

#include "platform/Export.h"
#include "sockbuf/BufVectorReg.h"
#include "sockbuf/ISockBuff.h"
#include "thread/Semaphore.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

class ISockBufOwner;
class SockBuf_reg2;
class SockBuf_defrag;

class SHAREDLIB_API SockBuf_reg : public BufVectorReg, public ISockBuffExt {
 public:
  // size 0 leaves the register without a buffer (every save fails).
  // growable lets a save that does not fit grow the buffer to exactly fit.
  SockBuf_reg(unsigned size, int growable);
  ~SockBuf_reg() override;

  // --- BufVectorReg ---
  int IsOk() override;
  // Aborts, empties, forgets filter, counters and stages; reusable after.
  void reset() override;
  // Appends one packet (owner's read thread). 1 stored, 0 refused or dropped.
  int SaveData(void* buf, unsigned len) override;
  // Appends whole packets that lie back to back in buf (len bytes in all),
  // each as SaveData would, under one taking of the lock. The number stored.
  unsigned SavePackets(void const* buf, unsigned len);
  // Takes one whole packet; *pLen is the room on entry, the size on return.
  // A packet larger than the room is dropped (0): a reader with a small
  // buffer cannot stall the stream. Blocks in blocking mode.
  int GetData(void* buf, unsigned* pLen) override;
  // The oldest live byte; valid until the next call on the register.
  void* GetBufPtr() override;
  unsigned GetBytesLeft() override;
  unsigned GetBytesUsed() override;

  // --- ISockBuffExt ---
  int OpenUrl() override;
  int CloseUrl() override;
  int IsOpened() override { return opened_.load(); }
  unsigned GetnPktRcv() override;
  unsigned GetnPktLost() override;
  HRESULT __stdcall Read(void* buf, unsigned len, unsigned* pRead) override;
  HRESULT __stdcall ReadExt(void* buf, unsigned len, unsigned* pRead, int* pFlag) override;

  // Hangs the ordering stage (a1 = jitter size, a2 = wait count) and, with
  // defrag, the defragmenter (defragParam = output layout) behind the
  // register. idleSeconds is always stored. 1 on success.
  int SetOptions(unsigned a1, unsigned a2, unsigned idleSeconds, int defrag, unsigned defragParam);
  // The object consumers read from: defragmenter, else ordering stage, else
  // this register.
  ISockBuffExt* GetObj();
  ISockBuffExt* GetPktMWObj();
  int SetnPktWaitForDelayed(unsigned n);

  void SetMediaId(unsigned id);
  unsigned GetMediaId();
  void SetId(unsigned id);
  unsigned GetId();
  void SetSockBuffs(ISockBufOwner* owner);
  ISockBufOwner* GetSockBuffs();
  void SetBlock(int on) { block_.store(on); }
  int CanBlock() { return block_.load(); }
  // 1 when the last GetData found nothing in non-blocking mode.
  int ShouldBlock() { return wouldBlock_.load(); }
  int CanAbort() { return aborted_.load(); }
  int CanDefrag();
  int IsSockError();

  void SetTSFstPkt(unsigned ts);
  void GetTSFstPkt(unsigned* ts, unsigned* tick);
  // kbit/s of the last whole second; 0 after more than a second without
  // traffic.
  unsigned GetReadBitrate();
  unsigned GetSaveBitrate();
  unsigned GetBufLen() { return GetBytesUsed(); }
  unsigned GetMaxBufLen();

  // The stream's recording file; the register closes it on reset.
  void SetSaveFile(std::FILE* file);
  std::FILE* GetSaveFile();

  // Empties the data and the stages; keeps filter, counters and id.
  void flush();
  // Makes every operation fail until reset and wakes a blocked reader.
  void Abort();
  // Wakes a blocked reader (which then finds the register closed or aborted).
  void ResetWaitingForData();
  // 1 while a reader is blocked waiting for data.
  int IsWaitingForData();
  // While on, saves leave a blocked reader asleep; turning it off wakes it
  // once for all they stored. The owner's read thread brackets each chunk it
  // cuts with it, so that the reader drains the chunk while the read thread
  // is back in the kernel instead of colliding with it packet by packet.
  // reset turns it off.
  void HoldWake(int on);

 private:
  friend class SockBuf_reg2;
  friend class SockBuf_defrag;

  struct Rate {
    unsigned bytes = 0;
    unsigned kbps = 0;
    std::int64_t second = 0;
    void Count(std::int64_t now, unsigned len);
    unsigned Get(std::int64_t now);
  };

  unsigned IsPacketRdy();  // lock held
  void RemoveFront(unsigned len);  // lock held
  void MakeRoom(unsigned len);  // lock held, len fits the window
  void Compact();  // lock held: live bytes to offset 0
  bool Grow(unsigned needed);  // lock held
  void FlushLocked();  // lock held
  void DestroyStages();  // lock held
  int SaveLocked(void const* buf, unsigned len, std::int64_t now);
  // Lock held. true when a blocked reader has a packet now and wake-ups are
  // not held; the caller signals it once the lock is left.
  bool ClaimWaitingReader();
  int TakePacket(void* buf, unsigned* pLen);  // lock held, packet ready
  int TakeNext(void* buf, unsigned* pLen, bool* ordered);

  std::FILE* saveFile_ = nullptr;     // guarded by lock_
  std::atomic<int> opened_{0};        // written under lock_
  std::atomic<int> aborted_{0};       // written under lock_
  std::atomic<int> block_{1};
  std::atomic<int> wouldBlock_{0};
  int readerWaiting_ = 0;             // guarded by lock_
  int holdWake_ = 0;                  // guarded by lock_
  int const growable_;
  unsigned char* buffer_ = nullptr;   // guarded by lock_
  unsigned id_ = 0;                   // guarded by lock_
  unsigned idleFlushSeconds_ = 0;     // guarded by lock_
  unsigned head_ = 0;                 // guarded by lock_: read offset
  unsigned tail_ = 0;                 // guarded by lock_: write offset
  unsigned capacity_ = 0;             // guarded by lock_: the window
  std::size_t physical_ = 0;          // guarded by lock_: bytes at buffer_
  unsigned mediaFilter_ = 0;          // guarded by lock_
  unsigned pktRcv_ = 0;               // guarded by lock_
  unsigned pktLost_ = 0;              // guarded by lock_
  unsigned lastSeq_ = 0;              // guarded by lock_
  unsigned tsFirstPkt_ = 0;           // guarded by lock_
  unsigned tickFirstPkt_ = 0;         // guarded by lock_
  Rate save_;                         // guarded by lock_
  Rate read_;                         // guarded by lock_
  std::int64_t lastSave_ = 0;         // guarded by lock_
  std::atomic<ISockBufOwner*> owner_{nullptr};  // written under lock_
  SockBuf_reg2* ordering_ = nullptr;  // guarded by lock_ (and stageGate_ to destroy)
  SockBuf_defrag* defrag_ = nullptr;  // guarded by lock_ (and stageGate_ to destroy)
  _SEMAPHORE stageGate_;              // kind 3: consumers of the stages
  _SEMAPHORE readerGate_;             // kind 1, max 1, starts free
  _SEMAPHORE lock_;                   // kind 3: the data
  _SEMAPHORE dataReady_;              // kind 1, max 1, starts taken
};
