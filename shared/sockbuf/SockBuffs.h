// SockBuffs.h: the buffered media reader.
//
// A SockBuffs receives one media connection (a TCP peer, UDP datagrams, a
// multicast group, a recording file, or bytes handed in by the application
// through ISockBuffRead), cuts the byte stream into media packets in its input
// register and stores each packet in the window bound to the packet's media
// identifier. A window is a stream register (SockBuf_reg) under an unsigned
// key; consumers read it through GetWndObj. On the way packets can be
// recorded to a save file (index block first, then the packets back to back),
// forwarded to a file writer and a packet writer, paced to their time stamps
// (file sources) and reported to an ISockBuffNotify.
//
//   source --read thread--> input register --cut--> SaveMediaPkt
//                                 |                     |-> window register(s) -> consumers
//                                 |                     |-> save file, file writer
//                                 '-- partial packet waits for its rest
//
// Sources (SetUrl): tcp://host:port, tcp-listen://addr:port, udp://addr:port,
// udp://@group:port, file://path (see SockUrl.h), or SetIRead. docs/reader.md
// has the details.
//
// Threads
//   - "SockBuffs: Read Thread" (one per reader, started by OpenUrl, joined by
//     Stop and the destructor) reads the source and calls WriteData.
//   - Control threads: Play, Pause, Stop, the window operations, the setters.
//     Stop must not be called from a notifier callback (it joins the thread
//     that makes the call).
//   - Consumers read windows through GetWndObj; the registers lock themselves.
//   - The notifier runs on the read thread: NewMediaId with the reader's lock
//     released (it may create and bind windows), PktRead with the lock held
//     (it may call the reader, but not Stop), EndOfStream without the lock.
//
// Locks, in order: lock_ (media map, window vector, input register, notify
// vector, save file, pacing anchors), then a register's own locks, then the
// SocketCtrl base's locks. lock_ is recursive and is released around
// NewMediaId and around pacing waits; it is never held while joining the
// read thread. threadLock_ (the thread handle) may be taken under lock_ and
// nothing is taken under it.
#pragma once

#include "platform/Export.h"
#include "socket/SocketCtrl.h"
#include "sockbuf/ISockBufOwner.h"
#include "sockbuf/ISockBuff.h"
#include "sockbuf/SockUrl.h"
#include "thread/Semaphore.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

class IThread;
class IndexStr;
class SockBuf_reg;
class SockBufVect;

class SHAREDLIB_API SockBuffs : public SocketCtrl, public ISockBufOwner {
 public:
  // State bits.
  static constexpr unsigned kPlaying = 1;
  static constexpr unsigned kPauseOn = 2;
  static constexpr unsigned kPaused = 4;
  // Bytes asked of the source per read, and the input register's size.
  static constexpr unsigned kReadSize = 65535;
  static constexpr unsigned kInputSize = 131070;
  // Shortest packet accepted: the time stamp sits at offset 16.
  static constexpr unsigned kMinPacket = 20;
  static constexpr unsigned kNoMedia = 0xFFFFFFFFu;
  static constexpr unsigned kIdleSeconds = 30;
  static constexpr unsigned kDefaultMaxWaitMs = 5000;

  // maxWnds windows at most, each with a register of regSize bytes; with
  // either 0 the reader has no windows and is not ok.
  SockBuffs(unsigned maxWnds, unsigned regSize);
  // Stops (joins the read thread), then frees windows, registers and files.
  ~SockBuffs() override;

  int IsOk() const { return ok_; }

  // --- Windows (any control thread; under lock_) ---------------------------
  // key != 0; a1/a2: ordering jitter size and wait count; defrag and
  // defragParam: the defragmenter and its output layout; mediaId bound when
  // not 0 or kNoMedia; idleSeconds: the register's idle flush. 1 on success.
  int CreateWnd(unsigned key, unsigned a1, unsigned a2, int defrag, unsigned defragParam,
                unsigned mediaId, unsigned idleSeconds);
  int DestroyWnd(unsigned key);
  void DestroyAllWnds();
  ISockBuffExt* GetWndObj(unsigned key);
  unsigned GetWndId(unsigned mediaId);
  int SetWndBlock(unsigned key, int block);
  // Binds mediaId to the window key, unbinding it from any other window.
  int SetWndMediaId(unsigned key, unsigned mediaId);
  int SetnPktWaitForDelayed(unsigned key, unsigned n);
  unsigned GetReadBitrate(unsigned key);
  unsigned GetSaveBitrate(unsigned key);
  int Abort(unsigned key);
  // Key of the first window bound to mediaId, 0 when none.
  unsigned SearchMediaID(unsigned mediaId);
  unsigned GetWndCount() const { return wndCount_.load(); }

  // --- Setters ----------------------------------------------------------------
  int SetINotify(ISockBuffNotify* notify, unsigned periodSeconds, unsigned long cookie);
  void SetIRead(ISockBuffRead* reader) { iread_.store(reader); }
  void SetFileMWObj(ISockBuff* w) { fileMW_.store(w); }
  ISockBuff* GetFileMWObj() { return fileMW_.load(); }
  void SetPktMWObj(ISockBuffExt* w) { pktMW_.store(w); }
  ISockBuffExt* GetPktMWObj() override { return pktMW_.load(); }
  void SetMaxWaitTime(unsigned ms) { maxWaitMs_.store(ms); }
  void SetIdleMode(int on) { idleMode_.store(on ? 1 : 0); }
  // The source is then not read by this object: the application calls
  // WriteData itself.
  void DisableReadThread() { readThreadEnabled_.store(0); }
  void SetLastPktTime(std::int64_t seconds) { lastPktTime_.store(seconds); }
  // Kept for traversal through a proxy; the reader itself connects directly.
  void SetProxyParam(char const* host, unsigned short port, char const* user,
                     char const* password);
  void GetProxyParam(char* host, unsigned hostSize, unsigned short* port);

  // --- Source and recording -------------------------------------------------------
  // One of the SockUrl forms; 0 (and nothing changed) for anything else or
  // while opened.
  int SetUrl(char const* url);
  // Opens the source (a socket, the file, or nothing with an ISockBuffRead
  // or a disabled read thread) and starts the read thread. 1 when opened.
  int OpenUrl() override;
  int CloseUrl();
  int IsOpened() const { return opened_.load(); }
  // Closes any save file; opens name (not truncated) and writes the index
  // block first. 1 when recording.
  int SetSaveFileName(char const* name);
  int IsRecording();
  // The port the source is bound to (listen, UDP), else the peer's port.
  int GetPort() const { return port_.load(); }

  // --- Play state -----------------------------------------------------------------
  int Play();
  int Pause(int on);
  // Stops the read thread (waits for it without limit), closes source and
  // files, destroys every window. 1 when it was playing.
  int Stop();
  // Aborts every window (blocked consumers return).
  void Abort();
  // Flushes the input register and restarts every window (ResetNotify).
  void reset();
  // Seeks a file source to percent of its index (applied by the read thread).
  void SetReadOffset(double percent);
  int IsPlaying() const { return (state_.load() & kPlaying) != 0; }
  int IsPauseOn() const { return (state_.load() & kPauseOn) != 0; }
  int IsPaused() const { return (state_.load() & kPaused) != 0; }
  int IsStopped() const { return state_.load() == 0; }
  void SetState(unsigned bits) { state_.fetch_or(bits); }
  void ResetState(unsigned bits) { state_.fetch_and(~bits); }

  // --- Data path (read thread, or the application after DisableReadThread) ----
  // Cuts bytes into packets through the input register and stores each whole
  // one; a packet split across calls waits for its rest. 1 when taken.
  int WriteData(void const* buf, unsigned len);
  void ResetNotify();
  // 1 when opened, a packet was seen, and none for more than 30 s.
  int MaxIdleTimeReached();
  // Whether the connection is still wanted and alive (idle mode keeps it).
  int VerifyConnection() override;
  int IsSockError() override { return sockError_.load(); }

 private:
  struct MediaBinding {
    unsigned key;
    unsigned mediaId;
  };
  struct NotifyRec {
    unsigned mediaId;
    unsigned flags;
    std::int64_t time;  // next notification (calendar seconds)
    std::int64_t reserved;
  };

  static int ReadThreadMain(IThread* thread, void* self);
  void ReadLoop();
  int ReadSource(unsigned* sock);
  int ReadFile();
  void OnSourceError();
  void OnNewPeer(unsigned sock);
  void WaitWhilePaused();
  void WaitForStop();
  // Sleeps ms through the clock in steps, returning early on stop.
  void SleepUnlessStopped(unsigned ms);
  int StartReadSockThread();
  void JoinReadThread();
  int OpenSource();
  void PauseMedias();
  void ChangeReadOffset();

  void SaveMediaPkt(unsigned char const* pkt, unsigned len);
  void StoreInWindow(unsigned key, unsigned char const* pkt, unsigned len);
  void FlushWindowRun();
  bool CompletePending(unsigned char const** p, unsigned* len);
  bool PaceFilePacket(unsigned key, unsigned ts);  // lock_ held; true when it waited
  void NotifyPktRead(unsigned mediaId, unsigned flags);
  void WriteSaveFile(void const* pkt, unsigned len);
  void CloseSaveFile();
  void CloseReadFile();
  NotifyRec* FindNotify(unsigned mediaId);
  void SetNotifyTime(unsigned mediaId, std::int64_t time);
  void DropNotify(unsigned mediaId);
  MediaBinding* FindBinding(unsigned key);
  void StopLocked();
  int DestroyWndLocked(unsigned key);

  int ok_ = 0;
  unsigned const maxWnds_;
  std::atomic<int> opened_{0};
  std::atomic<int> stop_{0};
  std::atomic<int> idleMode_{0};
  std::atomic<int> readThreadEnabled_{1};
  std::atomic<unsigned> wndCount_{0};
  std::atomic<unsigned> notifyPeriod_{0};
  std::atomic<unsigned> maxWaitMs_{kDefaultMaxWaitMs};
  std::atomic<unsigned> state_{0};
  std::atomic<std::int64_t> lastPktTime_{0};
  std::atomic<int> pktSeen_{0};
  std::atomic<std::int64_t> fileSize_{0};      // written under lock_
  std::atomic<std::int64_t> fileBytesRead_{0};  // written under lock_
  std::atomic<int> readOffsetPending_{0};
  std::atomic<double> readOffset_{0.0};
  std::atomic<int> sockError_{0};
  std::atomic<int> port_{0};

  std::unique_ptr<SockBufVect> wnds_;         // guarded by lock_
  std::unique_ptr<SockBuf_reg> input_;        // guarded by lock_ for the cut
  std::vector<MediaBinding> mediaMap_;        // guarded by lock_
  std::vector<NotifyRec> notify_;             // guarded by lock_
  bool notifyOn_ = false;                     // guarded by lock_
  std::unique_ptr<IndexStr> index_;           // guarded by lock_
  std::vector<unsigned char> readBuf_;        // read thread only
  std::vector<unsigned char> pktBuf_;         // guarded by lock_
  // Packets of one window lying back to back in the bytes being cut, not
  // stored yet: they go in together, under one taking of the window's lock.
  // Stored before lock_ is left and before the application is called.
  struct WindowRun {
    unsigned key = 0;
    unsigned char const* begin = nullptr;
    unsigned len = 0;
  };
  WindowRun run_;                             // guarded by lock_
  int saveFd_ = -1;                           // guarded by lock_
  int readFd_ = -1;                           // guarded by lock_
  SockUrl url_;                               // guarded by lock_
  bool wholePacket_ = false;                  // guarded by lock_
  unsigned peerSock_ = kNoSocket;             // guarded by lock_
  std::atomic<ISockBuff*> fileMW_{nullptr};
  std::atomic<ISockBuffExt*> pktMW_{nullptr};
  std::atomic<ISockBuffNotify*> notifier_{nullptr};
  std::atomic<unsigned long> cookie_{0};
  std::atomic<ISockBuffRead*> iread_{nullptr};
  char proxyHost_[256] = {};                  // guarded by lock_
  char proxyUser_[64] = {};                   // guarded by lock_
  char proxyPassword_[64] = {};               // guarded by lock_
  unsigned short proxyPort_ = 0;              // guarded by lock_

  IThread* thread_ = nullptr;  // control threads, under threadLock_
  _SEMAPHORE threadLock_;      // kind 3: start and join of the read thread
  _SEMAPHORE wake_;            // kind 1: wakes the read thread out of pause/end waits
  _SEMAPHORE lock_;            // kind 3: see the class comment
};
