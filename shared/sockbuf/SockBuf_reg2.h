// SockBuf_reg2.h: the ordering stage behind a stream register. It puts the
// register's packets back into sequence order through a jitter buffer and
// gives up on a missing packet once more than "wait count" later sequence
// numbers are held.
//
// Filled only by its own Read, which pulls packets from the register; never
// by Write. Sequence numbers are plain ascending unsigned values (no wrap).
// A packet more than wait count below the next one due means the stream
// restarted; a new media identifier starts afresh too. A packet longer than
// the jitter size cannot be held whole and is dropped when it would have to
// wait.
//
// Threads and locks: the stage has no lock of its own. Its state is guarded
// by the register's data lock, and consumers of the stage (one at a time)
// queue on the register's stage gate; see SockBuf_reg.h. The register owns
// and destroys the stage.
#pragma once

#include "platform/Export.h"
#include "sockbuf/ISockBuff.h"

#include <atomic>
#include <vector>

class JitterBuffer;
class SockBuf_reg;

class SHAREDLIB_API SockBuf_reg2 : public ISockBuffExt {
 public:
  SockBuf_reg2();
  virtual ~SockBuf_reg2();
  SockBuf_reg2(SockBuf_reg2 const&) = delete;
  SockBuf_reg2& operator=(SockBuf_reg2 const&) = delete;

  // Once only, with a source and a non-zero jitter size (the longest packet
  // that can be held); later calls return whether the stage is enabled.
  int SetOptions(SockBuf_reg* source, unsigned jitterSize, unsigned waitCount);
  void SetnPktWaitForDelayed(unsigned n);
  unsigned GetnPktWaitForDelayed();
  void SetBlock(int on);  // the source's
  int CanBlock();
  int CanAbort();  // the source's aborted flag
  void Abort();    // aborts the source
  // Empties the jitter buffer and forgets where the stream stands (the lost
  // count is kept).
  void reset();

  int OpenUrl() override;
  int CloseUrl() override;
  int IsOpened() override;
  unsigned GetnPktRcv() override;
  unsigned GetnPktLost() override;
  HRESULT __stdcall Read(void* buf, unsigned len, unsigned* pRead) override;
  HRESULT __stdcall ReadExt(void* buf, unsigned len, unsigned* pRead, int* pFlag) override;

 private:
  friend class SockBuf_defrag;

  // All with the source's data lock held.
  void ResetLocked();
  int CanSendPkt(void const* pkt, unsigned len, int* pInvalid);
  void SaveData(void const* pkt, unsigned len);
  unsigned GetData(void* buf, unsigned len);
  void UpdateLowest();
  // Reads from the source; S_OK with a packet in buf, else the result to
  // hand back.
  HRESULT ReadSource(void* buf, unsigned len, unsigned* n);
  HRESULT Deliver(void const* buf, unsigned n, unsigned* pRead);

  std::atomic<int> enabled_{0};
  unsigned jitterSize_ = 0;
  unsigned waitCount_ = 0;       // guarded by the source's lock
  unsigned mediaId_ = 0;         // guarded by the source's lock
  unsigned lowest_ = 0;          // guarded by the source's lock; 0 = none held
  unsigned highest_ = 0;         // guarded by the source's lock
  unsigned next_ = 0;            // guarded by the source's lock; 0 = none yet
  unsigned lost_ = 0;            // guarded by the source's lock
  JitterBuffer* jitter_ = nullptr;
  SockBuf_reg* source_ = nullptr;
  std::vector<char> scratch_;    // guarded by the source's lock: a popped packet
};
