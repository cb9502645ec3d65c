// SockBufVect.h: the registers of one buffered reader, keyed by an unsigned
// stream key, with a pool of released registers.
//
//   index_: [key|reg] [key|reg] ...   sorted by key, positions from 1
//   pool_:  [reg] [reg] ...           reset registers, buffers kept
//
// append takes a register from the pool (or makes one of the vector's
// register size) and files it under a new key; erase resets it and returns
// it to the pool, so a reader that opens and closes streams does not
// reallocate their buffers. The vector owns every register, pooled or not.
//
// Threads: the vector has no lock. Its user serialises every call (the
// buffered reader does so under its own lock); the first/next cursor is
// shared by all callers. The registers it hands out are thread-safe on their
// own (SockBuf_reg.h).
#pragma once

#include "platform/Export.h"
#include "sockbuf/SockBuf_reg.h"
#include "thread/SVectorT.h"

#include <vector>

class ISockBufOwner;

template <class K, class V>
class BufSVectorT;

template <>
class SHAREDLIB_API BufSVectorT<unsigned, SockBuf_reg> {
 public:
  static constexpr unsigned kPoolStep = 100;

  // count: starting capacity of the index and the pool (100 when 0);
  // size: the buffer of every register made (0 leaves the vector not ok).
  BufSVectorT(unsigned count, unsigned size);
  virtual ~BufSVectorT();
  BufSVectorT(BufSVectorT const&) = delete;
  BufSVectorT& operator=(BufSVectorT const&) = delete;

  // Position of the new register, 0 when the key exists or on failure.
  unsigned append(unsigned key);
  // 1 when the key was present; its register is reset and pooled.
  int erase(unsigned key);
  SockBuf_reg* search(unsigned key, unsigned* pos);
  SockBuf_reg* get_elem(unsigned pos, unsigned* key);
  SockBuf_reg* first(unsigned* key, unsigned* pos);
  SockBuf_reg* next(unsigned* key, unsigned* pos);
  unsigned get_nitens() const { return index_.get_nitens(); }
  unsigned get_npooled() const { return static_cast<unsigned>(pool_.size()); }
  // Resets every register and pools it.
  void reset();
  void set_keynull(unsigned key) { keyNull_ = key; }
  int IsOk() const { return ok_; }

  int SaveDataKey(unsigned key, void* buf, unsigned len);
  // SockBuf_reg::SavePackets on the key's register: the number stored.
  unsigned SavePacketsKey(unsigned key, void const* buf, unsigned len);
  int GetDataKey(unsigned key, void* buf, unsigned* pLen);
  int SaveDataInd(unsigned pos, void* buf, unsigned len);
  int GetDataInd(unsigned pos, void* buf, unsigned* pLen);
  void* GetBufPtrInd(unsigned pos);
  unsigned GetBytesLeftInd(unsigned pos);
  unsigned GetBytesUsedInd(unsigned pos);
  int IsEnableInd(unsigned pos);
  // SockBuf_reg::HoldWake on every register filed under a key.
  void HoldWakes(int on);
  int SetEnableInd(unsigned pos, int on);

 protected:
  // The register of a non-zero key present in the index, else null.
  SockBuf_reg* Find(unsigned key);

 private:
  void Pool(SockBuf_reg* reg);

  SVectorT<unsigned, SockBuf_reg*> index_;
  std::vector<SockBuf_reg*> pool_;
  unsigned const regSize_;
  unsigned keyNull_ = 0;
  unsigned cursor_ = 0;  // position of the last first/next
  int ok_ = 0;
};

class SHAREDLIB_API SockBufVect : public BufSVectorT<unsigned, SockBuf_reg> {
 public:
  SockBufVect(unsigned count, unsigned size);

  using BufSVectorT<unsigned, SockBuf_reg>::reset;

  // Every operation below does nothing (0, null) for key 0 or a missing key.
  int SetOptions(unsigned key, unsigned a1, unsigned a2, unsigned idleSeconds, int defrag,
                 unsigned defragParam);
  int SetSockBuffs(unsigned key, ISockBufOwner* owner);
  int OpenUrl(unsigned key);
  int SetBlock(unsigned key, int on);
  int SetMediaId(unsigned key, unsigned mediaId);
  int SetnPktWaitForDelayed(unsigned key, unsigned n);
  int SetTSFstPkt(unsigned key, unsigned ts);
  int GetTSFstPkt(unsigned key, unsigned* ts, unsigned* tick);
  unsigned GetReadBitrate(unsigned key);
  unsigned GetSaveBitrate(unsigned key);
  unsigned GetBufLen(unsigned key);
  ISockBuffExt* GetObj(unsigned key);
  int flush(unsigned key);
  int reset(unsigned key);
  // The key of the first register (in key order) filtering mediaId; 0 when
  // none or for mediaId 0.
  unsigned GetId(unsigned mediaId);
};
