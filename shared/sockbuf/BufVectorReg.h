// BufVectorReg.h: the face every register of a keyed register vector shows
// to the vector (BufSVectorT): store bytes, take them out, report its size.
//
// Threads and locks are the implementation's; see SockBuf_reg.h.
#pragma once

#include "platform/Export.h"

class SHAREDLIB_API BufVectorReg {
 public:
  virtual ~BufVectorReg();
  virtual int IsOk() = 0;
  virtual void reset() = 0;
  // 1 when len bytes from buf were stored, 0 when refused.
  virtual int SaveData(void* buf, unsigned len) = 0;
  // Takes one unit into buf; *pLen is the room on entry and the size on
  // return. 1 on success, 0 when nothing was delivered.
  virtual int GetData(void* buf, unsigned* pLen) = 0;
  virtual void* GetBufPtr() = 0;
  virtual unsigned GetBytesLeft() = 0;
  virtual unsigned GetBytesUsed() = 0;
  virtual int IsEnable() { return 1; }
  // Registers cannot be disabled; the argument is ignored.
  virtual int SetEnable(int /*on*/) { return 1; }

 protected:
  BufVectorReg() = default;
  BufVectorReg(const BufVectorReg&) = delete;
  BufVectorReg& operator=(const BufVectorReg&) = delete;
};
