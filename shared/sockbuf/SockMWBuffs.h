// SockMWBuffs.h: the multi-writer buffers, the sending side of a media stream.
//
// The application writes media packets (Write, write, writeMediaPkt); they
// are kept in arrival order in a buffer of bufferMs worth of bytes (the
// oldest are dropped, and counted, when it is full) and paced out to a sink
// at the configured bit rate by "SockMWBuffs: SockMWWrite Thread". The sink
// is an ISockBuff given by the caller, or a SocketCtrl of the object's own
// (with the caller's SendQueue) connected to the URL of SetUrl:
// tcp://host:port, udp://host:port or udp://@group:port (sockbuf/SockUrl.h).
//
// Packets: a 12-byte header (stream id, sequence number, 16-bit length, type,
// flag byte; flag 0x10 marks audio), integers little-endian. With flag bit 1
// packets are cut by a MediaFrag whose fragments "SockMWBuffs: Defrag
// Thread" moves into the buffer, numbered per stream. With bufFlags bit 0
// audio packets wait in a buffer of their own and are sent before video. "SockMWBuffs: TCP Ping
// Thread" reads the peer's pings and reconnects after silence (see
// VerifyTCPPing). Unpaced without flag bit 0 (direct mode), write sends at
// once on the caller's thread.
//
// The writer also keeps what it let out in the last slot and holds a packet
// back while that is a slot's budget already (detail/MWRecentSends.h), so a
// writer that woke late never lets a run out together.
//
// Ownership: owns its controller, fragment queue, jitter buffer of sent
// packets (EnablePktRec) and threads. The sink, the send queue, the notify
// object and the two tap objects are not owned and must outlive it.
//
// Threads: any thread may call any member. Abort (and the destructor) stop
// and join the three threads; do not call them from a callback on one.
// Locks: lock_ (main: pacing, buffers, counters) and sinkLock_ (the sink and
// the connection: open, close, send). They are never held together; the
// writer takes a packet under lock_, then sends it under sinkLock_ alone,
// so write never waits for the network. fdMutex_ (inside sinkLock_) guards
// the socket handle that Abort shuts down to wake blocked threads.
#pragma once

#include "platform/Export.h"
#include "platform/Types.h"
#include "sockbuf/ISockBuff.h"
#include "sockbuf/SockUrl.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

class IThread;
class MWPacer;
class MediaFrag;
class MediaJitterBuf;
class SendQueue;
class SocketCtrl;
class _SEMAPHORE;
namespace shared::detail {
class MWPacketFifo;
class MWRecentSends;
}

class SHAREDLIB_API SockMWBuffs : public ISockBuff {
public:
  static constexpr unsigned long kFlagBuffered = 0x1;    // flags: buffer an unpaced stream
  static constexpr unsigned long kFlagFragQueue = 0x2;   // flags: cut packets (MediaFrag)
  static constexpr unsigned long kBufAudioOwn = 0x1;     // bufFlags: audio buffer of its own
  static constexpr unsigned kFragQueueBytes = 0x1FFFE;
  static constexpr unsigned kDefaultMaxPktSize = 1400;
  static constexpr unsigned kHeaderBytes = 12;
  static constexpr unsigned kMaxPacketBytes = 65535 + 14;
  static constexpr double kBufferBytesPerSecond = 1036288.0;
  static constexpr unsigned kPingReadBytes = 513;
  static constexpr long kPingReadSeconds = 5;
  static constexpr std::uint32_t kPingSilenceMs = 30000;
  static constexpr std::uint32_t kPingAfterWindowMs = 20000;
  static constexpr std::uint32_t kReopenDelayMs = 1000;
  static constexpr int kMulticastTtl = 8;

  // See docs/multiwriter.md for every argument. user is stored unchanged
  // (GetUserData). The object is usable when IsOk() says so.
  SockMWBuffs(unsigned bitrate, unsigned slots, unsigned bufferMs, int perMsPacing, int subtractAudio,
              unsigned long flags, SendQueue *queue, ISockBuff *sink, unsigned long user,
              unsigned long windowMs, unsigned long bufFlags);
  // Aborts (stops and joins the threads), then frees what it owns.
  virtual ~SockMWBuffs();
  SockMWBuffs(SockMWBuffs const &) = delete;
  SockMWBuffs &operator=(SockMWBuffs const &) = delete;

  int IsOk() const { return ok_; }

  // --- Pacing ----------------------------------------------------------------
  // 1 when accepted. Fails without a bit rate from construction, for 0, and,
  // when audio is subtracted, for a rate not in the audio-share table.
  int SetBitrate(unsigned kbps);
  // 1 when ms is non-zero, at least slots, and a bit rate is set.
  int SetBitrateWindow(unsigned long ms);
  // 1 when a packet of len bytes may go at nowMs; else 0 with *waitMs the
  // advised wait. Counts nothing (the sending path does).
  int CanSendPkt(unsigned len, unsigned long nowMs, unsigned *waitMs);
  unsigned GetBitrate();
  // A copy of the pacing state, for inspection.
  void GetPacing(unsigned *windowBytes, unsigned *slotBytes, unsigned *bytesPerMs, unsigned long *slotMs);

  // --- ISockBuff ---------------------------------------------------------------
  int OpenUrl() override;
  int CloseUrl() override;
  int IsOpened() override;
  // Takes the oldest buffered packet (audio first): a pull alternative to
  // the writer thread. S_OK, STG_S_BLOCK when empty, STG_E_INVALIDPOINTER
  // when aborted or buf is too small (the packet stays).
  HRESULT __stdcall Read(void *buf, unsigned len, unsigned *pRead) override;
  // write() as a stream result: S_OK with *pWritten = len, or
  // STG_E_INVALIDPOINTER for a bad packet or an aborted object.
  HRESULT __stdcall Write(void const *buf, unsigned len, unsigned *pWritten) override;

  // --- Stream --------------------------------------------------------------------
  // One whole packet (at least the header). Buffered (or, in direct mode,
  // sent at once); recorded when EnablePktRec is on. 1 on success.
  int write(void const *pkt, unsigned len);
  // Builds the 12-byte header in front of payload and writes the packet.
  int writeMediaPkt(unsigned streamId, unsigned seq, unsigned char type, unsigned char flagByte,
                    void const *payload, unsigned payloadLen);
  // Sends one packet through the sink now, bypassing the buffer (it is
  // still counted by the pacing). 1 when the sink took it whole.
  int SendPkt(void const *pkt, unsigned len);
  // Puts the recorded packets with sequence numbers first..last back at the
  // front of the buffer, in order; the number found.
  unsigned ResendPkts(unsigned first, unsigned last);
  // Stores one packet into its buffer (audio or main); 1 on success.
  int SavePkt(void const *pkt, unsigned len);
  // Takes the next packet (audio first) into buf; 1 with *len its size.
  int GetPkt(void *buf, unsigned cap, unsigned *len);

  // --- Buffer state ------------------------------------------------------------
  unsigned GetnBytesInBuffer();
  // Buffered bytes in seconds of the bit rate (of kBufferBytesPerSecond when
  // unpaced).
  double GetnSecsInBuffer();
  unsigned GetnBytesAudioBuf();
  unsigned GetnBytesVideoBuf();
  unsigned GetnPktDropped();
  unsigned GetnPktSent();
  unsigned GetnSendErrors();
  int CanUseAudioBuf() const;
  int CanShareAudioBuf() const;
  static int IsAudioPkt(unsigned char flagByte) { return (flagByte & 0x10) ? 1 : 0; }
  // Non-zero holds every packet in the buffer (nothing is sent); 0 resumes.
  void SetIdleMode(int idle);
  // Empties the buffers, the fragment queue and the pacing ring, zeroes the
  // counters.
  void reset();
  // One-way: stops and joins the threads, closes the sink; writes fail and
  // OpenUrl returns 0 from now on. Not from one of the object's threads.
  void Abort();
  int IsAborted() const { return aborted_.load(std::memory_order_acquire); }

  // --- Options -------------------------------------------------------------------
  void SetMaxPktSize(unsigned bytes);
  unsigned GetMaxPktSize() const { return maxPktSize_.load(std::memory_order_relaxed); }
  // readSeconds: time-out of one ping read (kPingReadSeconds by default).
  void SetTCPPing(int on, long readSeconds = kPingReadSeconds);
  // 1 when url is a tcp:// or udp:// address (used by the own controller).
  int SetUrl(char const *url);
  int GetPort();
  // PktRead(cookie, stream id, 0, flag byte) after each packet sent.
  void SetINotify(ISockBuffNotify *notify, unsigned long cookie);
  // Taps: every packet sent is also written to these (not owned; null: none).
  void SetPktMWObj(ISockBuff *obj);
  void SetFileMWObj(ISockBuff *obj);
  // Keeps the last maxPackets packets written, by sequence number, for
  // ResendPkts; forgotten after idleSeconds without a write. 1 on success.
  int EnablePktRec(unsigned maxPackets, unsigned idleSeconds);
  void DisablePktRec();
  int IsDefragOn() const;
  int IsDefragThread() const;
  int IsDefragLMediaPkt() const;
  int IsDefragPktExt() const;
  // The 16-bit length field counts the bytes after the header.
  int IsDatalenPayloadOnly() const { return 1; }
  // Sets the length field of a packet of len bytes; 0 when it cannot hold it.
  static int AdjustPktDatalen(void *pkt, unsigned len);
  // A 14-byte-header packet into the 12-byte form in out (cap bytes); its
  // size, or 0 when it does not fit the short form or out.
  static unsigned ConvertPkt(void const *longPkt, unsigned len, void *out, unsigned cap);
  unsigned long GetUserData() const { return user_; }
  SocketCtrl *GetSocketCtrl() { return ctrl_.get(); }

  // --- Threads ---------------------------------------------------------------------
  // 1 when started (0 when running already, not usable, or aborted). The
  // ping thread needs the own controller and a tcp:// URL.
  int StartWriteThread();
  int StartDefragThread();
  int StartTCPPingThread();
  // 1 while the peer keeps the ping rules: a ping within kPingSilenceMs, and
  // the window's start no later than kPingAfterWindowMs after the last ping.
  int VerifyTCPPing();

private:
  static int WriteThread(IThread *t, void *arg);
  static int DefragThread(IThread *t, void *arg);
  static int PingThread(IThread *t, void *arg);
  void WriteLoop();
  void DefragLoop();
  void PingLoop();
  int StartThread(IThread **slot, int (*fn)(IThread *, void *), char const *name);
  void JoinThread(IThread **slot);
  bool Stopping() const;
  // Sends one packet to the sink and the taps (sinkLock_ only).
  bool SendToSink(char const *pkt, unsigned len);
  int OpenOwn();
  void CloseOwn();
  void Reconnect();
  bool SavePktLocked(char const *pkt, unsigned len);
  void DrainFragQueue();
  // Numbers a fragment taken from the fragment queue in its own stream's
  // sequence and buffers it (lock_ held).
  void PushFragment(char *frag, unsigned len);
  void Wake();
  // The writer, holding a packet: sleeps while the last slot's sends keep
  // it back.
  void HoldForRecentSends();
  void Nap(std::uint64_t us);
  // After a rate or window change: the recent-sends limit follows the slot
  // (lock_ held).
  void FollowSlot();

  int ok_ = 0;
  bool const perMs_;
  bool const subtractAudio_;
  unsigned long const flags_;
  unsigned long const bufFlags_;
  unsigned long const user_;
  unsigned const configuredRate_;
  unsigned const bufferMs_;
  bool const direct_;                          // unpaced and unbuffered
  SendQueue *const queue_;                     // not owned
  ISockBuff *const sink_;                      // not owned
  std::unique_ptr<SocketCtrl> ctrl_;           // when no sink
  std::unique_ptr<_SEMAPHORE> lock_;           // main lock
  std::unique_ptr<_SEMAPHORE> sinkLock_;
  std::unique_ptr<_SEMAPHORE> wake_;           // kind 1, max 1: wakes the writer
  std::unique_ptr<MWPacer> pacer_;             // guarded by lock_
  // What the sending path let out in the last slot, guarded by lock_.
  std::unique_ptr<shared::detail::MWRecentSends> recent_;
  std::unique_ptr<shared::detail::MWPacketFifo> main_;   // guarded by lock_
  std::unique_ptr<shared::detail::MWPacketFifo> audio_;  // guarded by lock_; null when shared
  std::unique_ptr<MediaFrag> frag_;            // SaveData under lock_
  std::unique_ptr<MediaJitterBuf> rec_;        // guarded by lock_ (its own lock inside)
  unsigned sent_ = 0;                          // guarded by lock_
  unsigned sendErrors_ = 0;                    // guarded by lock_
  bool defragRunning_ = false;                 // guarded by lock_: the defrag thread reads frag_
  // Last fragment number per stream id, guarded by lock_. The fragment
  // queue numbers with one counter for all streams, which a receiver that
  // filters one stream would read as gaps.
  std::unordered_map<std::uint32_t, std::uint32_t> fragSeqs_;
  std::atomic<int> idle_{0};
  std::atomic<int> aborted_{0};
  std::atomic<int> stop_{0};
  std::atomic<unsigned> maxPktSize_{kDefaultMaxPktSize};
  // The sink side, guarded by sinkLock_.
  SockUrl url_;
  int urlSet_ = 0;
  std::atomic<int> opened_{0};
  ISockBuffNotify *notify_ = nullptr;
  unsigned long cookie_ = 0;
  ISockBuff *pktTap_ = nullptr;
  ISockBuff *fileTap_ = nullptr;
  std::mutex fdMutex_;
  SOCKET sock_;                                // guarded by fdMutex_
  // Ping state.
  std::atomic<int> pingOn_{0};
  std::atomic<long> pingReadSeconds_{kPingReadSeconds};
  std::atomic<std::uint32_t> lastPing_{0};
  // Threads, guarded by threadMutex_.
  std::mutex threadMutex_;
  IThread *writer_ = nullptr;
  IThread *defrag_ = nullptr;
  IThread *ping_ = nullptr;
};
