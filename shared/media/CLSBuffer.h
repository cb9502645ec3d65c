// CLSBuffer.h: per-stream windows of recent packets, addressable by packet id
// (for resending) or walked in packet-id order, each stream within a byte
// budget that pushes its oldest packets out.
//
// Each stream is one CLBuffer record whose slot chain holds the packets'
// bytes packed one after another in packet-id order:
//
//   stream table (CLSIdTable): stream id -> CLSPktTable (owned)
//   packet table (CLSPktTable): packet id -> CLSPktRec { length, info,
//                                             user data, data, slot }
//   CLBuffer record <stream id>: [slot: p1 p2 p3] <-> [slot: p5 p6] <-> ...
//                                         ^ rec.data points into its slot
//
// When a packet would take the stream past its budget, whole slots are
// dropped from the old end (with every packet they hold). A dropped slot is
// unlinked from the record but NOT put back on the CLBuffer free list: its
// memory comes back only with reset or destruction. A long-running stream
// therefore keeps drawing fresh slots, and with growth blocks the buffer
// grows by about one slot per slot of traffic; without growth blocks
// AddPacket fails once the initial slots are spent. Callers reset the buffer
// (or kill and recreate their streams' buffer) to reclaim that memory.
//
// Streams must be changed only through this class: inserting into or
// consuming from a stream's record through CLBuffer directly would leave its
// packet table pointing at moved bytes. erase, erase_all and reset through
// the base class are safe (they keep the tables consistent).
//
// Threads: none, and no lock. The caller serialises every call.
#pragma once

#include "media/CLBuffer.h"
#include "media/SortedIdVector.h"
#include "platform/Export.h"
#include "platform/Types.h"

#include <cstdint>

// One packet's entry in a stream's packet table.
struct SHAREDLIB_API CLSPktRec {
  std::uint32_t id;        // packet id; 0 = no packet
  std::uint32_t length;    // bytes of the packet
  std::uint32_t info;      // caller's value, handed back on reads
  std::uint32_t reserved;  // always 0
  std::uint64_t userData;
  char const *data;  // where the bytes start inside slot
  CLDataBuf *slot;   // the slot that holds the bytes

  CLSPktRec() { init(0, 0, 0, nullptr, nullptr, 0); }
  CLSPktRec(unsigned pktId, unsigned len, unsigned pktInfo, char const *bytes, CLDataBuf *where,
            std::uint64_t user) {
    init(pktId, len, pktInfo, bytes, where, user);
  }
  void init(unsigned pktId, unsigned len, unsigned pktInfo, char const *bytes, CLDataBuf *where,
            std::uint64_t user) {
    id = pktId;
    length = len;
    info = pktInfo;
    reserved = 0;
    userData = user;
    data = bytes;
    slot = where;
  }
  void SetUserData(std::uint64_t user) { userData = user; }
  // rec = 0 empties the entry.
  CLSPktRec &operator=(int) {
    init(0, 0, 0, nullptr, nullptr, 0);
    return *this;
  }
  CLSPktRec &operator=(CLSPktRec const &) = default;
  CLSPktRec(CLSPktRec const &) = default;

  bool operator==(CLSPktRec const &other) const { return id == other.id; }
  // rec == id; rec != 0 tests that the entry holds a packet.
  bool operator==(unsigned pktId) const { return id == pktId; }

  unsigned GetId() const { return id; }
};

// A stream's packets in packet-id order, its cursor, budget and highest id.
class SHAREDLIB_API CLSPktTable {
public:
  explicit CLSPktTable(unsigned budget);
  virtual ~CLSPktTable();
  CLSPktTable(CLSPktTable const &) = delete;
  CLSPktTable &operator=(CLSPktTable const &) = delete;

  int IsOk() const { return packets_.IsCreated(); }
  unsigned GetBudget() const { return budget_; }
  unsigned GetHighestId() const { return highest_; }
  // Packet ids compare as serial numbers (RFC 1982 style): a is after b
  // when a - b, taken as a signed 32-bit value, is positive. So ids keep
  // their order across the 32-bit wrap, within half the id space.
  static bool IsAfter(unsigned a, unsigned b) { return static_cast<int>(a - b) > 0; }
  // True when pktId is above every id added so far (or none was).
  bool IsNewest(unsigned pktId) const { return highest_ == 0 || IsAfter(pktId, highest_); }
  void RaiseHighestId(unsigned pktId);
  unsigned GetCount() const { return packets_.Count(); }

  // The entry for pktId, null when none. Valid until the next add or remove.
  CLSPktRec *Find(unsigned pktId) { return pktId ? packets_.Search(pktId) : nullptr; }
  // Entry by position (0-based, in packet-id order).
  CLSPktRec &At(unsigned pos) { return packets_.At(pos); }
  // Position of the first entry above pktId (GetCount() when none).
  unsigned UpperBound(unsigned pktId) const { return packets_.UpperBound(pktId); }
  // 1 when added; 0 for packet id 0, a duplicate or no memory.
  int Add(CLSPktRec const &rec);
  int Remove(unsigned pktId);
  void RemoveAt(unsigned pos) { packets_.EraseAt(pos); }
  // Forgets every packet (budget and highest id stay), cursor to the start.
  void Clear();

  // Cursor walk; the cursor is anchored by packet id like CLBuffer's.
  CLSPktRec *First();
  CLSPktRec *Last();
  CLSPktRec *Next();
  CLSPktRec *Prev();
  // pktId 0: to the start (1). Else on that packet (1), or 0 when unknown.
  int SetPos(unsigned pktId);

  // Copies entries, cursor and highest id from other (slot pointers as they
  // are: the caller remaps them). 0 on allocation failure.
  int CopyFrom(CLSPktTable const &other);

private:
  shared::detail::SortedIdVector<CLSPktRec> packets_;
  std::uint32_t cursor_ = 0;  // 0 = at the start
  unsigned budget_;
  std::uint32_t highest_ = 0;
};

// Stream id -> owned packet table.
class SHAREDLIB_API CLSIdTable {
public:
  CLSIdTable();
  ~CLSIdTable();
  CLSIdTable(CLSIdTable const &) = delete;
  CLSIdTable &operator=(CLSIdTable const &) = delete;

  CLSPktTable *Find(unsigned id);
  // Takes ownership of table on success (1); 0 for id 0, a known id or no
  // memory (the caller keeps the table then).
  int Add(unsigned id, CLSPktTable *table);
  // Removes the entry and destroys its table; 1 when found.
  int Remove(unsigned id);
  void RemoveAll();
  unsigned GetCount() const { return entries_.Count(); }
  // Entry by position (0-based, in stream-id order).
  unsigned IdAt(unsigned pos) const { return entries_.At(pos).id; }
  CLSPktTable *TableAt(unsigned pos) { return entries_.At(pos).table; }

private:
  struct Entry {
    unsigned id;
    CLSPktTable *table;
    unsigned GetId() const { return id; }
  };
  shared::detail::SortedIdVector<Entry> entries_;
};

enum CLSOp { CLSOpGet = 1, CLSOpFirst = 2, CLSOpLast = 3, CLSOpNext = 4, CLSOpPrev = 5 };

class SHAREDLIB_API CLSBuffer : public CLBuffer {
public:
  // Packets are packed into shared slots of slotSize bytes.
  CLSBuffer(unsigned slotSize, unsigned initialSlots, unsigned growthSlots);
  // Deep copies: the packet tables are rebuilt over the copy's own slots.
  CLSBuffer(CLSBuffer const &other);
  CLSBuffer &operator=(CLSBuffer const &other);
  ~CLSBuffer() override;

  int isOk() const { return IsOk() && streams_ != nullptr; }

  // Creates stream id with a byte budget. 0 when either is 0, the stream
  // exists, or a CLBuffer record with that id exists.
  int NewId(unsigned id, unsigned budget);
  // Removes the stream and every byte it holds.
  void KillId(unsigned id);

  // Stores a packet of len (1..slot size) bytes; a known pktId is refused.
  // newSlot starts a slot of its own for an in-order packet. 1 on success.
  int AddPacket(unsigned id, unsigned pktId, void *data, unsigned len, unsigned info, int newSlot);

  // Reads return the packet id (0 when none). When buf and len are given and
  // *len is non-zero, min(*len, length) bytes are copied and *len set to it.
  unsigned GetPacket(unsigned id, unsigned pktId, void *buf, unsigned *len, unsigned *info,
                     std::uint64_t *userData);
  unsigned firstPacket(unsigned id, void *buf, unsigned *len, unsigned *info);
  unsigned lastPacket(unsigned id, void *buf, unsigned *len, unsigned *info);
  unsigned nextPacket(unsigned id, void *buf, unsigned *len, unsigned *info);
  unsigned prevPacket(unsigned id, void *buf, unsigned *len, unsigned *info);
  int SetPos(unsigned id, unsigned pktId);

  // Highest packet id ever added to the stream (dropped ones included).
  unsigned GetLastPktId(unsigned id);
  int SetPktUserData(unsigned id, unsigned pktId, std::uint64_t userData);
  std::uint64_t GetPktUserData(unsigned id, unsigned pktId);

  // Through the base class: streams lose their packets when their record
  // leaves (erase, pops, erase_all) and are all destroyed by reset; nothing
  // is left pointing at freed slots.
  int reset() override;
  void erase_all() override;

  // Slots dropped by budget since the last reset: memory held by the buffer
  // but by no stream until the next reset.
  unsigned GetDroppedSlotCount() const { return droppedSlots_; }

protected:
  CLSPktTable *GetPktTable(unsigned id);
  void RecordErased(unsigned id) override;

private:
  int _AddPacket(unsigned id, CLSPktTable *table, CLSPktRec &rec, void *data, int newSlot, CLDataBuf *target,
                 int after);
  unsigned _GetPacket(CLSOp op, unsigned id, void *buf, unsigned *len, unsigned *info, unsigned pktId,
                      std::uint64_t *userData);
  void CopyStreams(CLSBuffer const &other);
  // Drops the stream's oldest slot and its packets; 0 when none is left.
  int DropOldestSlot(unsigned id, CLSPktTable *table);
  void ForgetCache() {
    cachedTable_ = nullptr;
    cachedId_ = 0;
  }

  CLSIdTable *streams_ = nullptr;
  CLSPktTable *cachedTable_ = nullptr;
  unsigned cachedId_ = 0;
  unsigned droppedSlots_ = 0;
};
