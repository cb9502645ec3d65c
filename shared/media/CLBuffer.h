// CLBuffer.h: the keyed record store under the jitter buffer, the CLS buffer
// and the send queue.
//
// A record is identified by a non-zero unsigned 32-bit id and holds up to a
// per-record maximum of bytes in a doubly linked chain of fixed-size slots.
// Records are kept sorted by id (plain ascending unsigned order, no
// wrap-around), so "first" is always the lowest id.
//
// Slots come from blocks the buffer allocates in bulk: initialSlots at reset,
// then growthSlots at a time (0 = never grow). A freed slot goes onto a free
// list threaded through the slots themselves, and blocks go back to the
// system only in kill (reset, destruction). Once the buffer is warm an insert
// or a pop allocates nothing.
//
//   block:  [ block header | slot 0 | slot 1 | ... | slot n-1 ]
//   slot:   [ CLDataBuf header | payload (slot size, padded) ]
//                  data ---------^
//
// Options chosen at construction:
//   slot per insert  every insert takes a slot of its own (packet boundaries
//                    kept); otherwise inserts append into the record's last
//                    slot while it has room (a byte stream per id).
//   split            an input longer than a slot is cut into slot-size
//                    pieces of one record (only without slot per insert).
//   automatic ids    an insert with id 0 takes the highest id so far + 1.
//   replace when full  a record at its maximum drops its oldest slots to
//                    take new bytes instead of refusing them.
//
// Cursor: first/last/next/prev/set_pos walk the records in id order. The
// cursor stands either at the start (before the lowest record) or on an id;
// it is kept as an id, not a position, so inserts and erases between calls
// never make it skip or repeat a record:
//   first/last  read the lowest/highest record and stand on it;
//   next        reads the lowest record above the cursor (from the start:
//               the lowest record) and stands on it; past the end it returns
//               0 and stays, so records appended later are found by the next
//               call;
//   prev        reads the highest record below the cursor; from the start,
//               or past the lowest record, it returns 0 and stays;
//   set_pos(0)  goes to the start (1); set_pos(id) stands on id when that
//               record exists (1), else returns 0 and leaves the cursor.
// An erased record the cursor stands on still anchors it by its id.
//
// Threads: none, and no lock. The owner serialises every call.
#pragma once

#include "media/SortedIdVector.h"
#include "platform/Export.h"
#include "platform/Types.h"

#include <cstddef>
#include <cstdint>

// One storage slot: this header, then the payload area of the buffer's slot
// size. A fresh slot holds nothing, has no neighbours and data points at its
// own payload area.
struct SHAREDLIB_API CLDataBuf {
  std::uint32_t used;  // payload bytes held
  CLDataBuf *next;     // next slot of the same record (free list: next free)
  CLDataBuf *prev;     // previous slot of the same record
  char *data;          // the payload area, right after the header

  // Header size rounded so the payload keeps the header's alignment.
  static constexpr std::size_t kHeaderSize = (sizeof(std::uint32_t) + 3 * sizeof(void *) + alignof(void *) - 1) /
                                             alignof(void *) * alignof(void *);

  void init() {
    used = 0;
    next = prev = nullptr;
    data = reinterpret_cast<char *>(this) + kHeaderSize;
  }

  // Appends len bytes at data + used. Stores nothing (0) when data is null,
  // len is 0 or above slotSize, or the slot is already over-full; when the
  // bytes do not all fit, stores what fits with partial set, else nothing.
  // *out (when given) receives where the bytes went. Returns the count stored.
  unsigned Append(char const *src, unsigned len, unsigned slotSize, int partial, char const **out);
};

// A record's control data: its id, byte count and limit, and its slot chain.
class SHAREDLIB_API CLCtrlData {
public:
  CLCtrlData() { init(0, 0); }
  CLCtrlData(unsigned id, unsigned maximum) { init(id, maximum); }

  // bytes 0, no slots, no position, user data 0.
  void init(unsigned id, unsigned maximum);

  // 1 when len is non-zero and bytes + len stays within the maximum.
  int CanAddPacket(unsigned len) const;
  // Links slot at the end of the chain (no target), or before the target
  // (after 0) or after it (after non-zero). The target must be in this chain.
  void AddSlot(CLDataBuf *slot, CLDataBuf *target, int after);
  // Unlinks slot (which must be in this chain) and takes its bytes off.
  void RemoveSlot(CLDataBuf *slot);
  // Appends into slot (the last slot when null); adds what was stored.
  unsigned AppendPacket(CLDataBuf *slot, char const *data, unsigned len, unsigned slotSize, int partial,
                        char const **out);
  // Takes up to len bytes at offset out of slot, copying them to buf when
  // not null and closing the gap; returns the count taken.
  unsigned RemoveData(CLDataBuf *slot, char *buf, unsigned len, unsigned offset);

  unsigned GetId() const { return id_; }
  unsigned GetBytes() const { return bytes_; }
  unsigned GetMaximum() const { return maximum_; }
  CLDataBuf *GetFirstSlot() const { return first_; }
  CLDataBuf *GetLastSlot() const { return last_; }
  CLDataBuf *GetPosition() const { return position_; }
  void SetPosition(CLDataBuf *slot) { position_ = slot; }
  __int64 GetUserData() const { return userData_; }
  void SetUserData(__int64 userData) { userData_ = userData; }

  bool operator==(CLCtrlData const &other) const { return id_ == other.id_; }
  // rec == 0 tests emptiness.
  bool operator==(int id) const { return id_ == static_cast<unsigned>(id); }

private:
  std::uint32_t id_;
  std::uint32_t bytes_;
  std::uint32_t maximum_;
  CLDataBuf *first_;
  CLDataBuf *last_;
  CLDataBuf *position_;  // cleared when that slot leaves the chain
  __int64 userData_;
};

class SHAREDLIB_API CLBuffer {
public:
  // slotSize 0 leaves the buffer not ok. split is forced off with slot per
  // insert. Calls reset.
  CLBuffer(unsigned slotSize, unsigned initialSlots, int replaceWhenFull, int slotPerInsert, int split,
           int autoNumber, unsigned growthSlots);
  // Copies are deep: the copy owns its own blocks, holds the same records
  // with the same bytes, ids, cursor and pending peek.
  CLBuffer(CLBuffer const &other);
  CLBuffer &operator=(CLBuffer const &other);
  virtual ~CLBuffer();

  // Discards everything and allocates the index and the first block afresh.
  // Returns ok. Needs slotSize and initialSlots non-zero.
  virtual int reset();
  int IsOk() const { return ok_; }
  unsigned get_nitens() const { return index_.Count(); }

  // Stores len bytes under id (maxLen is the record's limit when this insert
  // creates it). Returns the bytes stored, 0 on failure. *where receives
  // where the bytes went, *slotOut the slot (of the first piece when split).
  // newSlot forces a slot of its own; target (a slot of record id) places a
  // new slot before it (after 0) or after it, or is packed into when it has
  // room. noSplit turns splitting off for this call.
  unsigned insert(unsigned id, char const *data, unsigned len, unsigned maxLen, char const **where = nullptr,
                  __int64 userData = 0, CLDataBuf **slotOut = nullptr, int newSlot = 0,
                  CLDataBuf *target = nullptr, int after = 0, int noSplit = 0);

  // Erase a record, its slots going to the free list; 1 when found.
  // popfirst, poplast, poplastop and the consuming first never call this
  // virtual (a derived erase may give its argument another meaning, such as
  // a socket); every record that leaves the store is reported to
  // RecordErased instead.
  virtual int erase(unsigned id);
  int erase(CLCtrlData *rec);
  // Erases every record (slots are recycled, blocks kept).
  virtual void erase_all();
  void flush() { erase_all(); }

  // Cursor reads (see the header comment). Each returns the id read (0 when
  // none) and copies up to *len bytes of the record's first slot into buf,
  // setting *len to the count (0 when nothing was found). With buf null the
  // count is reported and nothing copied; with len null nothing is copied.
  unsigned first(char *buf, unsigned *len);
  unsigned last(char *buf, unsigned *len);
  unsigned next(char *buf, unsigned *len);
  unsigned prev(char *buf, unsigned *len);
  int set_pos(unsigned id);

  // first/last followed by erase of that record.
  unsigned popfirst(char *buf, unsigned *len);
  unsigned poplast(char *buf, unsigned *len);

  // Reads from record id (the lowest when 0) up to *len bytes (a slot when
  // len is null) of its first slot. Without consume this is a peek that
  // poplastop can commit; with consume the bytes leave the record, an
  // emptied slot is recycled and an emptied record erased (*done = 1).
  unsigned first(unsigned id, char *buf, unsigned *len, __int64 *userData, int consume, int *done);
  // Commits the last peek of record id: removes min(n, count peeked) bytes
  // from the front of its first slot. Nothing when id is not the peeked one,
  // or when the record's front changed since the peek (a consuming read, a
  // replacing insert, an insert of a slot in front, an erase): those spend
  // the peek.
  void poplastop(unsigned id, unsigned n);

  // 1 when record id exists, its first slot copied as by first(buf, len).
  int search(unsigned id, char *buf, unsigned *len, __int64 *userData = nullptr);
  // Id of record id (the lowest when 0), 0 when none; *size = its bytes.
  unsigned getszdata(unsigned id, unsigned *size);

  // Storage figures (for owners' statistics and for tests).
  unsigned GetSlotSize() const { return slotSize_; }
  unsigned GetBlockCount() const { return blockCount_; }
  unsigned GetSlotCount() const { return slotCount_; }  // slots in all blocks
  unsigned GetFreeSlotCount() const;                   // free list + unused

protected:
  // The live record with this id, null when none. Valid until the next
  // insert or erase. For derived stores that work on a record's chain.
  CLCtrlData *FindRecord(unsigned id);
  CLCtrlData const *FindRecord(unsigned id) const;
  // Puts a slot that left its chain onto the free list.
  void RecycleSlot(CLDataBuf *slot);
  // Called after record id left the store, by whatever path (erase, pops,
  // consuming reads, poplastop); not for erase_all, reset or kill.
  virtual void RecordErased(unsigned id);

private:
  struct Block;

  void kill();
  unsigned getdata(CLCtrlData &rec, char *buf, unsigned *len, __int64 *userData);
  int AllocBlock(unsigned n);
  CLDataBuf *NewSlot();
  unsigned _insert(unsigned id, char const *data, unsigned len, unsigned maxLen, char const **where,
                   __int64 userData, CLDataBuf **slotOut, int newSlot, CLDataBuf *target, int after,
                   int noSplit);
  unsigned ReadAt(unsigned pos, char *buf, unsigned *len);
  void RecycleChain(CLCtrlData &rec);
  int EraseRecord(unsigned id);
  // Takes n bytes off the front of the record at pos; recycles an emptied
  // first slot and erases an emptied record. 1 when the record was erased.
  int ConsumeFront(unsigned pos, char *buf, unsigned *n);

  std::size_t slotStride_ = 0;  // slot header + padded payload
  unsigned initialSlots_;
  unsigned growthSlots_;
  std::uint32_t highestId_ = 0;
  int replaceWhenFull_;
  int autoNumber_;
  int ok_ = 0;
  int slotPerInsert_;
  int split_;
  Block *currentBlock_ = nullptr;
  unsigned slotsInCurrentBlock_ = 0;
  unsigned nextUnusedSlot_ = 0;
  std::uint32_t peekId_ = 0;  // record of the last non-consuming first
  unsigned peekCount_ = 0;    // bytes that peek read
  std::uint32_t cursorId_ = 0;  // 0 = at the start
  CLDataBuf *freeList_ = nullptr;
  unsigned freeCount_ = 0;
  Block *blocks_ = nullptr;  // every block, newest first
  unsigned blockCount_ = 0;
  unsigned slotCount_ = 0;
  unsigned slotSize_;
  shared::detail::SortedIdVector<CLCtrlData> index_;
};
