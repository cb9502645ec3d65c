// ISockBuff.h: the interfaces through which the socket-buffer classes meet.
//
// A consumer reads packets from a stream register through ISockBuffExt; the
// buffered reader pushes whole media packets to the next stage through
// ISockBuffExt::WriteExt or ISockBuff::Write; the application hears of packet
// and stream events through ISockBuffNotify; and an application that produces
// the bytes itself, instead of a socket, hands them in through ISockBuffRead.
//
// Result codes of Read/Write/ReadExt/WriteExt (see platform/Types.h):
//   S_OK                 one packet (or the bytes asked for) moved; *pRead /
//                        *pWritten holds the byte count
//   STG_S_BLOCK          non-blocking endpoint, nothing ready now
//   STG_E_ACCESSDENIED   endpoint not opened
//   STG_E_INVALIDPOINTER not supported here, aborted, not attached, or failed
//   STG_E_INCOMPLETE     the socket under the stream reported an error
//
// The interfaces hold no data. Defaults do nothing: counters return 0 and the
// transfer operations return STG_E_INVALIDPOINTER without touching their
// out-arguments. Threads: as documented by each implementation.
#pragma once

#include "platform/Types.h"

class ISockBuff {
 public:
  // 1 when the endpoint is (or already was) open, 0 when it cannot be opened.
  virtual int OpenUrl() = 0;
  // Always 1; closing an endpoint that is not open does nothing.
  virtual int CloseUrl() = 0;
  virtual int IsOpened() = 0;
  // Packets delivered, and packets found missing from the sequence numbers.
  virtual unsigned GetnPktRcv() { return 0; }
  virtual unsigned GetnPktLost() { return 0; }
  // At most one whole packet per call, never part of one; len is the capacity
  // of buf, pRead may be null.
  virtual HRESULT __stdcall Read(void* /*buf*/, unsigned /*len*/, unsigned* /*pRead*/) {
    return STG_E_INVALIDPOINTER;
  }
  virtual HRESULT __stdcall Write(void const* /*buf*/, unsigned /*len*/, unsigned* /*pWritten*/) {
    return STG_E_INVALIDPOINTER;
  }

 protected:
  ISockBuff() = default;
  ISockBuff(const ISockBuff&) = default;
  ISockBuff& operator=(const ISockBuff&) = default;
  // Owners delete implementations through their own type, never through the
  // interface.
  ~ISockBuff() = default;
};

class ISockBuffExt : public ISockBuff {
 public:
  // Read plus an out-flag: stores 0 (or the implementation's status bit) in
  // *pFlag when pFlag is not null, then reads.
  virtual HRESULT __stdcall ReadExt(void* /*buf*/, unsigned /*len*/, unsigned* /*pRead*/,
                                    int* /*pFlag*/) {
    return STG_E_INVALIDPOINTER;
  }
  // Hands a packet to the next stage; registers forward with flag 0.
  virtual HRESULT __stdcall WriteExt(void const* /*buf*/, unsigned /*len*/, unsigned* /*pWritten*/,
                                     int /*flag*/) {
    return STG_E_INVALIDPOINTER;
  }

 protected:
  ISockBuffExt() = default;
  ISockBuffExt(const ISockBuffExt&) = default;
  ISockBuffExt& operator=(const ISockBuffExt&) = default;
  ~ISockBuffExt() = default;
};

// Events of a buffered reader, called on its read thread.
class ISockBuffNotify {
 public:
  // A packet arrived whose media identifier no window is bound to; b10 and
  // b11 are header bytes 10 and 11. Called with the reader's lock released,
  // so a window may be created and bound from inside. 0 drops the packet;
  // anything else makes the reader look the identifier up again.
  virtual int NewMediaId(unsigned mediaId, unsigned char b10, unsigned char b11) = 0;
  // At most once per notification period per media identifier, after a
  // packet was stored. percent: read position of a file source (0 for a
  // network source); flags: OR of header byte 11 since the last call.
  virtual void PktRead(unsigned long cookie, unsigned mediaId, double percent,
                       unsigned flags) = 0;
  // Once, when the reader's input has ended.
  virtual void EndOfStream() = 0;

 protected:
  ISockBuffNotify() = default;
  ISockBuffNotify(const ISockBuffNotify&) = default;
  ISockBuffNotify& operator=(const ISockBuffNotify&) = default;
  ~ISockBuffNotify() = default;
};

// An application-side source of bytes, read in place of a socket.
class ISockBuffRead {
 public:
  // Fills at most capacity bytes and returns how many; 0 when nothing is
  // available now, negative when the source failed (the reader then closes
  // and reopens its source). Called on the reader's read thread.
  virtual int ReadData(void* buf, unsigned capacity) = 0;

 protected:
  ISockBuffRead() = default;
  ISockBuffRead(const ISockBuffRead&) = default;
  ISockBuffRead& operator=(const ISockBuffRead&) = default;
  ~ISockBuffRead() = default;
};
