// MediaJitterBuf.h: a JitterBuffer made safe for two threads and bounded.
//
// It holds at most maxPackets packets (an insert that goes over drops the
// lowest-numbered ones, each drop counting as a removal), and empties itself
// when no packet has been inserted for more than idleSeconds, or when the
// calendar clock has been set back past the last insert. The idle check
// runs at the start of every locked operation except flush, on the clock
// seam (shared::platform::NowSeconds).
//
// Threads: every operation declared here takes the one lock, so one thread
// may insert while another pops. The JitterBuffer members not redeclared
// here (and any call through a JitterBuffer or CLBuffer pointer) bypass the
// lock: use them only where no other thread can reach the object.
#pragma once

#include "media/JitterBuffer.h"
#include "platform/Export.h"
#include "thread/Semaphore.h"

#include <cstdint>

class SHAREDLIB_API MediaJitterBuf : public JitterBuffer {
public:
  // Not ok when any of the three is 0; its operations still run.
  MediaJitterBuf(unsigned maxPackets, unsigned maxPacketSize, unsigned idleSeconds);
  ~MediaJitterBuf() override;
  MediaJitterBuf(MediaJitterBuf const &) = delete;
  MediaJitterBuf &operator=(MediaJitterBuf const &) = delete;

  int IsOk() const { return ok_; }

  int insert(unsigned seq, char const *data, unsigned len);
  int search(unsigned seq, char *buf, unsigned *len);
  int remove(unsigned seq);
  unsigned popfirst(char *buf, unsigned *len);
  unsigned popbytes(char *buf, unsigned *len);
  unsigned GetnPacketsLeft();
  unsigned GetnPacketsLost();
  unsigned GetnPacketsInserted();
  unsigned GetnPacketsRemoved();
  unsigned GetnBytesLeft();
  unsigned GetPercFull();
  void GetInfo(unsigned *left, unsigned *percFull, unsigned *lost, unsigned *inserted, unsigned *removed);

  // Empties the buffer and its counters and forgets the last insert time.
  // lock 0 is for callers that already hold the lock.
  void flush(int lock);

private:
  void VerifyIdleTime();  // lock held
  // Runs work under the lock, after the idle check.
  template <typename F>
  auto Locked(F &&work);

  int ok_;
  unsigned const idleSeconds_;
  unsigned const maxPackets_;
  std::int64_t lastInsert_;  // guarded by lock_; calendar seconds, 0 = none yet
  _SEMAPHORE lock_;
};
