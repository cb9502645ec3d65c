// MediaFrag.h: cutting media packets into fragments, and the byte queue of
// whole packets they are handed out from.
//
// MediaFrag cuts each media packet into fragments of at most 1400 payload
// bytes, each behind a fragment header, and queues them in its FragQueue; a
// sender takes them back one whole fragment at a time (GetData). With
// fragmentation off it queues packets whole.
//
// Media packet (integers little-endian), header form chosen by flag 0x4:
//
//   short:  0      4      8    10   11   12        [20]
//           +------+------+----+----+----+---------+---------
//           |stream| seq  |len |type|flag|ext (opt)| payload
//           +------+------+----+----+----+---------+---------
//           len (16 bits) = bytes after the 12-byte header
//   long:   as short but len is 32 bits at 8-11, type at 12, flag at 13,
//           header 14 bytes; len = bytes after the 14-byte header
//   flag byte: 0x10 audio, 0x20 fragment. The optional 8-byte extension
//   (flag 0x8 of the MediaFrag) is counted in len; its bytes 4-7 hold a
//   32-bit timestamp.
//
// Fragment (always the short form):
//
//   0      4        8    10   11      12      16   20        H
//   +------+--------+----+----+-------+-------+----+---------+---------
//   |stream|frag seq|len |type|flag   |pkt seq|time|count    | payload
//   |      |        |    |    |  |0x20|       |    |(opt)    | <= 1400
//   +------+--------+----+----+-------+-------+----+---------+---------
//   len = fragment size - 12; count: 32 bits for type 23 (H = 24),
//   absent for audio (H = 20), 8 bits otherwise (H = 21).
//
// The queue of a MediaFrag uses the short framing whenever fragmentation is
// on (fragments are always short form), and the packets' own form otherwise.
//
// Threads: FragQueue takes one or more writers and one reader at a time.
// Writers take only the queue lock; a reader takes the reader lock, then the
// queue lock, and lets the queue lock go while it waits for data. MediaFrag
// itself has no lock: its running fragment sequence number assumes that
// SaveData callers serialise; GetData may run on another thread.
#pragma once

#include "platform/Export.h"
#include "thread/Semaphore.h"

#include <atomic>
#include <cstdint>
#include <memory>

// A byte queue of whole media packets (or fragments) in a ring:
//
//   storage_: [ ...packet | free | packet packet ... ]
//                         ^ tail   ^head_         ^size_ (wraps to 0)
//
// A read copies the front packet out (in two pieces when it wraps) and moves
// head_ on; a write copies in behind the bytes held; nothing held is ever
// moved. A growable queue that is full doubles. So a write plus a read costs
// the same with a few bytes or megabytes held.
class SHAREDLIB_API FragQueue {
public:
  // size: bytes of storage, allocated zero-filled now. longHeader: packets
  // in the queue use the 14-byte form. growable: a write that does not fit
  // enlarges the storage instead of failing. blocking: a read waits for a
  // whole packet instead of returning empty-handed.
  FragQueue(unsigned size, int longHeader, int growable, int blocking);
  // Closes the queue (see Close).
  ~FragQueue();
  FragQueue(FragQueue const &) = delete;
  FragQueue &operator=(FragQueue const &) = delete;

  // 1 while the storage exists (allocated and not closed).
  int IsOk();

  static constexpr int kTooLarge = -1;
  static constexpr unsigned kDefaultMaxPacket = 16u << 20;

  // Appends len bytes. When they do not fit (and the queue cannot grow),
  // everything held is dropped, not just the new bytes, and 0 is returned:
  // the receiver then sees a gap in the sequence numbers. When the packet at
  // the front claims more than the largest packet size, everything held is
  // dropped too and kTooLarge is returned (raw bytes with a huge length would
  // otherwise make a growable queue grow without bound). Wakes a waiting
  // reader once a whole packet is at the front. Any thread.
  int Write(void const *data, unsigned len);
  // The largest packet (header included) a queue accepts; 0 restores the
  // default, kDefaultMaxPacket.
  void SetMaxPacketSize(unsigned bytes);

  // Takes the next whole packet. On success copies it to *buf, sets *cap to
  // its size and returns 1. With buf null, *cap receives the size of the
  // front packet, which is dropped unread (result 0). A packet larger than
  // *cap is reallocated for when mayAllocate is set (*buf must then come
  // from malloc or be null), otherwise it is dropped unread (result 0). A
  // null *buf counts as no room at all.
  // A blocking queue waits for a packet; Close and WakeReader end the wait
  // (result 0). One reader at a time; other readers queue behind it.
  int Read(char **buf, unsigned *cap, int mayAllocate);

  // Drops everything held.
  void Reset();
  // Keeps only packets of this stream (0 = all); packets of other streams
  // are dropped as they reach the front, and the gaps in the sequence
  // numbers of the packets read are counted as lost. Zeroes the loss count
  // and the last sequence number read.
  void SetFilter(std::uint32_t streamId);
  // Size of the whole packet at the front, 0 when there is none yet.
  unsigned NextPktSize();
  // Ends the wait of a blocked reader (it returns 0). With no reader waiting,
  // the next read that would wait returns 0 instead.
  void WakeReader();
  // One-way: every operation fails from now on. Releases a blocked reader,
  // waits until a read in progress has left, then frees the storage.
  void Close();

  unsigned GetnPacketsLost();
  unsigned GetUsed();
  unsigned GetSize();

private:
  unsigned NextPktSizeLocked();
  void DropFront(unsigned n);
  // The helpers below run with lock_ held.
  void Grow(std::uint64_t needed);
  unsigned Wrap(std::uint64_t offset) const;  // an offset below 2 * size_ into the ring
  void CopyOut(unsigned at, void *dst, unsigned n) const;  // n bytes from at bytes past the front
  bool FrontTooLarge() const;
  std::uint64_t FrontPacketSize() const;  // needs a whole header held
  std::uint32_t FrontWord(unsigned at) const;
  unsigned HeaderSize() const { return longHeader_ ? 14u : 12u; }

  std::atomic<int> closing_;
  int const blocking_;
  int const growable_;
  int const longHeader_;
  int readerWaiting_;          // guarded by lock_
  int wakePending_;            // guarded by lock_: a WakeReader found no reader waiting
  unsigned char *storage_;     // guarded by lock_; malloc'd
  unsigned head_;              // guarded by lock_: ring offset of the first byte held
  unsigned used_;              // guarded by lock_
  unsigned maxPacket_;         // guarded by lock_
  unsigned size_;              // guarded by lock_
  std::uint32_t filter_;       // guarded by lock_
  std::uint32_t lost_;         // guarded by lock_
  std::uint32_t lastSeq_;      // guarded by lock_
  // Lock order: readerLock_ before lock_. Both are kind 3 (owner-bound
  // locks): a counting semaphore used as the reader gate would be touched by
  // the leaving reader after Close saw it free, so the queue could not be
  // destroyed right after Close returns.
  _SEMAPHORE lock_;
  _SEMAPHORE dataSignal_;      // kind 1, max 1, starts taken
  _SEMAPHORE readerLock_;
  _SEMAPHORE closeLock_;       // kind 3: held across Close; taken before the others
};

class SHAREDLIB_API MediaFrag {
public:
  static constexpr unsigned long kFragOn = 0x1;
  static constexpr unsigned long kFragThread = 0x2;
  static constexpr unsigned long kLongHeader = 0x4;
  static constexpr unsigned long kPktExt = 0x8;
  static constexpr unsigned kMaxFragPayload = 1400;

  MediaFrag(unsigned long flags, unsigned queueSize, int growable, int blocking);
  // Closes and destroys the queue: a reader blocked in GetData is released
  // first. Join reader threads before destroying the object itself.
  ~MediaFrag();
  // Copying would share the queue between two owners: forbidden.
  MediaFrag(MediaFrag const &) = delete;
  MediaFrag &operator=(MediaFrag const &) = delete;

  int IsOk() const { return ok_; }
  int IsDefragOn() const { return (flags_ & kFragOn) ? 1 : 0; }
  int IsDefragThread() const { return (flags_ & kFragThread) ? 1 : 0; }
  int IsDefragLMediaPkt() const { return (flags_ & kLongHeader) ? 1 : 0; }
  int IsDefragPktExt() const { return (flags_ & kPktExt) ? 1 : 0; }
  static int IsAudioPkt(unsigned char flagByte) { return (flagByte & 0x10) ? 1 : 0; }

  // 1 when len bytes hold one whole packet of this object's header form;
  // *pktLen (when not null) receives its size, or 0 on failure.
  int IsPktOk(void const *pkt, unsigned len, unsigned *pktLen) const;
  // Fragments (or queues whole) one packet. 1 on success; 0 on a bad packet
  // or when the queue overflowed (all queued data is then dropped).
  int SaveData(void const *pkt, unsigned len);
  // Takes the next whole fragment (or packet) into buf. 1 with its size in
  // *outLen; 0 otherwise, *outLen then being 0 or len: go by the result.
  int GetData(void *buf, unsigned len, unsigned *outLen);

  // The queue, for SetFilter, WakeReader, Close and statistics.
  FragQueue *GetQueue() { return queue_.get(); }

private:
  int ok_;
  unsigned long const flags_;
  std::uint32_t fragSeq_;  // SaveData's thread only
  std::unique_ptr<FragQueue> queue_;
};
