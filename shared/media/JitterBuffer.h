// JitterBuffer.h: media packets that arrive out of order, handed back lowest
// sequence number first, with running counts for statistics.
//
// A thin layer over CLBuffer, which does the storage, ordering and look-up:
// every packet is one record (its sequence number the id) in one slot of the
// maximum packet size. JitterBuffer adds clamping of packet sizes,
// replacement of duplicates, loss counting and the counters.
//
// Counter behaviour that receivers' statistics depend on, kept on purpose:
//   - Loss is counted against the last packet inserted, not against what is
//     held: a late packet adds no loss but moves the last sequence number
//     back, so the gap it leaves is counted again when the stream moves on.
//     The first packet after construction or flush, numbered s, counts s - 1
//     as lost.
//   - remove, popfirst and the replacement of a duplicate deduct the
//     packet's sequence number, not its size, from bytes left (the value
//     getszdata returns), so bytes left drifts and may wrap below zero once
//     packets leave that way. popbytes alone deducts the true byte count.
//   - No sequence wrap-around: order is plain ascending unsigned order.
//     Sequence number 0 is never stored.
//   - capacity is not a limit: more slots are allocated 10 at a time.
//
// Threads: no lock and no thread. Owners serialise every call.
#pragma once

#include "media/CLBuffer.h"
#include "platform/Export.h"

#include <cstdint>

class SHAREDLIB_API JitterBuffer : public CLBuffer {
public:
  // capacity: the nominal packet count (initial slots, and the denominator
  // of GetPercFull). maxPacketSize: longer packets are truncated to it.
  JitterBuffer(unsigned capacity, unsigned maxPacketSize);

  // Stores one packet under seq, replacing one held under the same number
  // (which counts as a removal). 1 on success; 0 for seq 0, no data, len 0
  // or when storage fails.
  int insert(unsigned seq, char const *data, unsigned len);
  // Deletes packet seq (the lowest when 0). Non-zero when one was deleted.
  int remove(unsigned seq);
  // Copies packet seq without removing it; *len is the room on entry and
  // the count copied on return. 1 when found; seq 0 always gives 0.
  int search(unsigned seq, char *buf, unsigned *len);
  // Copies (at most *len bytes of) the lowest packet and deletes it. Its
  // sequence number, 0 when empty. buf and len may be null (drop).
  unsigned popfirst(char *buf, unsigned *len);
  // Reads up to *len bytes (the maximum packet size when len is null) from
  // the front of the lowest packet and removes just those; the packet goes
  // when its last byte has been read. *len receives the count. Returns the
  // packet's sequence number, 0 when empty.
  unsigned popbytes(char *buf, unsigned *len);
  // Empties the buffer and zeroes every counter and the last sequence number.
  void flush();

  unsigned GetnPacketsLeft() const { return get_nitens(); }
  // Packets held * 100 / capacity, truncated; above 100 when more than
  // capacity packets are held. 0 with a zero capacity.
  unsigned GetPercFull() const;
  unsigned GetnPacketsLost() const { return lost_; }
  unsigned GetnPacketsInserted() const { return inserted_; }
  unsigned GetnPacketsRemoved() const { return removed_; }
  unsigned GetnBytesLeft() const { return bytesLeft_; }
  // The bytes really held (every way out deducts the true size); what
  // waits for data must use this, not the drifting bytes-left counter.
  unsigned GetnBytesHeld() const { return bytesHeld_; }
  unsigned GetLastSeq() const { return lastSeq_; }
  unsigned GetMaxPacketSize() const { return GetSlotSize(); }
  // Fills each non-null pointer: packets left, percent full, lost, inserted,
  // removed.
  void GetInfo(unsigned *left, unsigned *percFull, unsigned *lost, unsigned *inserted, unsigned *removed) const;

private:
  std::uint32_t lastSeq_ = 0;
  std::uint32_t capacity_;
  std::uint32_t inserted_ = 0;
  std::uint32_t removed_ = 0;
  std::uint32_t lost_ = 0;
  std::uint32_t bytesLeft_ = 0;
  std::uint32_t bytesHeld_ = 0;
};
