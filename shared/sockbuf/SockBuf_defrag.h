// SockBuf_defrag.h: the defragmenter behind an ordering stage. It joins the
// fragments of a media frame, in the order the stage delivers them, into one
// packet in one of four output layouts.
//
// Input fragment, after the 12-byte packet header (payload length L):
//
//   12        16         20                 21 or 24
//   +---------+----------+------------------+---------------------
//   | frame id| frame ts | fragment count   | fragment data
//   +---------+----------+------------------+---------------------
//   count: 4 bytes when header byte 10 is 23, else 1 byte
//
// Header byte 11 bit 4 (0x10) marks a whole frame. Output layouts by mode
// (D = frame data length; byte 11 always leaves with bit 5 (0x20) cleared):
//
//   mode 0 (12): media id | frame id  | D:2 | b10 | b11
//   mode 1 (14): media id | frame id  | D:4 | b10 | b11
//   mode 2 (20): media id | first seq | D:2 | b10 | b11 | frame id | frame ts
//   mode 3 (22): media id | first seq | D:4 | b10 | b11 | frame id | frame ts
//
// A frame longer than its layout's length field, or than kMaxFrameLen, is
// discarded rather than grown without end.
//
// Threads and locks: as the ordering stage (SockBuf_reg2.h): state under the
// register's data lock, one consumer at a time through the register's stage
// gate. The register owns and destroys it.
#pragma once

#include "platform/Export.h"
#include "sockbuf/ISockBuff.h"

#include <vector>

class SockBuf_reg2;

class SHAREDLIB_API SockBuf_defrag : public ISockBuffExt {
 public:
  static constexpr unsigned kMaxFrameLen = 16u << 20;

  // mode: bit 0 a 4-byte length, bit 1 the sequence and time fields.
  SockBuf_defrag(SockBuf_reg2* stage, unsigned mode);
  virtual ~SockBuf_defrag();
  SockBuf_defrag(SockBuf_defrag const&) = delete;
  SockBuf_defrag& operator=(SockBuf_defrag const&) = delete;

  void SetBlock(int on);
  int CanBlock();
  void Abort();
  // Forgets the frame in progress and the lost count.
  void flush();
  // flush, and forgets the stream (media id, last sequence).
  void reset();

  int OpenUrl() override;
  int CloseUrl() override;
  int IsOpened() override;
  unsigned GetnPktRcv() override;
  unsigned GetnPktLost() override;
  HRESULT __stdcall Read(void* buf, unsigned len, unsigned* pRead) override;
  // *pFlag receives mode bit 0 (the 4-byte length layouts).
  HRESULT __stdcall ReadExt(void* buf, unsigned len, unsigned* pRead, int* pFlag) override;

 private:
  // All with the register's data lock held; each returns the bytes written
  // to out (0: nothing to hand on).
  unsigned Process(unsigned char const* p, unsigned n, unsigned char* out, unsigned room);
  int SaveData(unsigned char const* p, unsigned n);
  unsigned GetData(unsigned char* out, unsigned room);
  unsigned ConvertPkt(unsigned char const* p, unsigned char* out, unsigned room);
  void ClearFrame();
  void FlushLocked();

  int const enabled_;
  unsigned const mode_;
  unsigned mediaId_ = 0;         // the rest guarded by the register's lock
  unsigned capacity_ = 0;
  unsigned held_ = 0;
  unsigned fragsExpected_ = 0;
  unsigned fragsHeld_ = 0;
  unsigned firstSeq_ = 0;
  unsigned lastSeq_ = 0;
  unsigned frameId_ = 0;
  unsigned frameTime_ = 0;
  unsigned lost_ = 0;
  unsigned char b10_ = 0;
  unsigned char b11_ = 0;
  unsigned char* frame_ = nullptr;
  SockBuf_reg2* const stage_;
  std::vector<unsigned char> packet_;  // under the stage gate: one input packet
};
