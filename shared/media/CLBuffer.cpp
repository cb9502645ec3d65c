#include "media/CLBuffer.h"

#include <cstdint>

#include <cstring>
#include <new>

// ---------------------------------------------------------------------------
// CLDataBuf

static_assert(CLDataBuf::kHeaderSize >= sizeof(CLDataBuf), "the payload must not overlap the slot header");

unsigned CLDataBuf::Append(char const *src, unsigned len, unsigned slotSize, int partial, char const **out) {
  if (!src || len == 0 || len > slotSize || used > slotSize)
    return 0;
  unsigned room = slotSize - used;
  if (len > room) {
    if (!partial || room == 0)
      return 0;
    len = room;
  }
  char *dst = data + used;
  std::memcpy(dst, src, len);
  if (out)
    *out = dst;
  used += len;
  return len;
}

// ---------------------------------------------------------------------------
// CLCtrlData

void CLCtrlData::init(unsigned id, unsigned maximum) {
  id_ = id;
  bytes_ = 0;
  maximum_ = maximum;
  first_ = last_ = position_ = nullptr;
  userData_ = 0;
}

int CLCtrlData::CanAddPacket(unsigned len) const {
  return len != 0 && static_cast<std::uint64_t>(bytes_) + len <= maximum_;
}

void CLCtrlData::AddSlot(CLDataBuf *slot, CLDataBuf *target, int after) {
  if (!slot)
    return;
  if (!target || !first_) {
    // At the end of the chain (a target cannot belong to an empty chain).
    slot->prev = last_;
    slot->next = nullptr;
    if (last_)
      last_->next = slot;
    else
      first_ = slot;
    last_ = slot;
  } else if (after) {
    slot->prev = target;
    slot->next = target->next;
    if (target->next)
      target->next->prev = slot;
    else
      last_ = slot;
    target->next = slot;
  } else {
    slot->next = target;
    slot->prev = target->prev;
    if (target->prev)
      target->prev->next = slot;
    else
      first_ = slot;
    target->prev = slot;
  }
  bytes_ += slot->used;
}

void CLCtrlData::RemoveSlot(CLDataBuf *slot) {
  if (!slot)
    return;
  if (slot->prev)
    slot->prev->next = slot->next;
  else
    first_ = slot->next;
  if (slot->next)
    slot->next->prev = slot->prev;
  else
    last_ = slot->prev;
  slot->next = slot->prev = nullptr;
  bytes_ -= slot->used;
  if (position_ == slot)
    position_ = nullptr;
}

unsigned CLCtrlData::AppendPacket(CLDataBuf *slot, char const *data, unsigned len, unsigned slotSize, int partial,
                                  char const **out) {
  if (!slot)
    slot = last_;
  if (!slot)
    return 0;
  unsigned stored = slot->Append(data, len, slotSize, partial, out);
  bytes_ += stored;
  return stored;
}

unsigned CLCtrlData::RemoveData(CLDataBuf *slot, char *buf, unsigned len, unsigned offset) {
  if (!slot || offset >= slot->used || len == 0)
    return 0;
  unsigned n = slot->used - offset;
  if (len < n)
    n = len;
  char *at = slot->data + offset;
  if (buf)
    std::memcpy(buf, at, n);
  std::memmove(at, at + n, slot->used - offset - n);
  slot->used -= n;
  bytes_ -= n;
  return n;
}

// ---------------------------------------------------------------------------
// CLBuffer

// A block of slots: this header, padded to the slots' alignment, then the
// slots back to back.
struct CLBuffer::Block {
  Block *next;
  unsigned count;

  static constexpr std::size_t kHeaderSize =
      (sizeof(Block *) + sizeof(unsigned) + alignof(CLDataBuf) - 1) / alignof(CLDataBuf) * alignof(CLDataBuf);

  char *SlotArea() { return reinterpret_cast<char *>(this) + kHeaderSize; }
};

namespace {

constexpr unsigned kNoPos = shared::detail::SortedIdVector<CLCtrlData>::kNotFound;

std::size_t StrideFor(unsigned slotSize) {
  constexpr std::uint64_t kAlign = alignof(CLDataBuf);
  if (slotSize == 0)
    return 0;
  // Summed in 64 bits, where a 32-bit size plus the header cannot overflow;
  // the round trip refuses a stride that a 32-bit size_t cannot hold.
  std::uint64_t stride = CLDataBuf::kHeaderSize + (std::uint64_t{slotSize} + kAlign - 1) / kAlign * kAlign;
  if (static_cast<std::uint64_t>(static_cast<std::size_t>(stride)) != stride)
    return 0;
  return static_cast<std::size_t>(stride);
}

}  // namespace

CLBuffer::CLBuffer(unsigned slotSize, unsigned initialSlots, int replaceWhenFull, int slotPerInsert, int split,
                   int autoNumber, unsigned growthSlots)
    : slotStride_(StrideFor(slotSize)),
      initialSlots_(initialSlots),
      growthSlots_(growthSlots),
      replaceWhenFull_(replaceWhenFull ? 1 : 0),
      autoNumber_(autoNumber ? 1 : 0),
      slotPerInsert_(slotPerInsert ? 1 : 0),
      split_((split && !slotPerInsert) ? 1 : 0),
      slotSize_(slotSize) {
  CLBuffer::reset();
}

CLBuffer::CLBuffer(CLBuffer const &other)
    : initialSlots_(other.initialSlots_),
      growthSlots_(other.growthSlots_),
      replaceWhenFull_(other.replaceWhenFull_),
      autoNumber_(other.autoNumber_),
      slotPerInsert_(other.slotPerInsert_),
      split_(other.split_),
      slotSize_(other.slotSize_) {
  CLBuffer::operator=(other);
}

// Copying the fields as they are would leave two buffers owning the same
// blocks; the copy gets blocks of its own and the records are rebuilt slot by
// slot in the same order, so derived stores can map old slots to new ones by
// walking both chains together.
CLBuffer &CLBuffer::operator=(CLBuffer const &other) {
  if (this == &other)
    return *this;
  kill();
  slotStride_ = other.slotStride_;
  initialSlots_ = other.initialSlots_;
  growthSlots_ = other.growthSlots_;
  replaceWhenFull_ = other.replaceWhenFull_;
  autoNumber_ = other.autoNumber_;
  slotPerInsert_ = other.slotPerInsert_;
  split_ = other.split_;
  slotSize_ = other.slotSize_;
  if (!other.ok_ || !CLBuffer::reset())
    return *this;

  // Make room for every record (the index never grows midway).
  unsigned needed = other.index_.Count();
  if (needed > initialSlots_ && !index_.Create(needed)) {
    kill();
    return *this;
  }
  for (CLCtrlData const &src : other.index_) {
    CLCtrlData rec(src.GetId(), src.GetMaximum());
    rec.SetUserData(src.GetUserData());
    for (CLDataBuf const *from = src.GetFirstSlot(); from; from = from->next) {
      CLDataBuf *slot = NewSlot();
      if (!slot) {
        RecycleChain(rec);
        kill();
        return *this;
      }
      std::memcpy(slot->data, from->data, from->used);
      slot->used = from->used;
      rec.AddSlot(slot, nullptr, 1);
      if (src.GetPosition() == from)
        rec.SetPosition(slot);
    }
    index_.Insert(rec);  // cannot fail: room was made above
  }
  highestId_ = other.highestId_;
  peekId_ = other.peekId_;
  peekCount_ = other.peekCount_;
  cursorId_ = other.cursorId_;
  return *this;
}

CLBuffer::~CLBuffer() { kill(); }

void CLBuffer::kill() {
  index_.Destroy();
  while (blocks_) {
    Block *next = blocks_->next;
    ::operator delete(static_cast<void *>(blocks_));
    blocks_ = next;
  }
  blockCount_ = slotCount_ = 0;
  currentBlock_ = nullptr;
  slotsInCurrentBlock_ = nextUnusedSlot_ = 0;
  freeList_ = nullptr;
  freeCount_ = 0;
  highestId_ = 0;
  peekId_ = peekCount_ = 0;
  cursorId_ = 0;
  ok_ = 0;
}

int CLBuffer::reset() {
  kill();
  if (slotStride_ == 0 || initialSlots_ == 0)
    return 0;
  if (!index_.Create(initialSlots_) || !AllocBlock(initialSlots_)) {
    kill();
    return 0;
  }
  ok_ = 1;
  return ok_;
}

int CLBuffer::AllocBlock(unsigned n) {
  if (n == 0 || slotStride_ == 0)
    return 0;
  constexpr std::size_t kMax = static_cast<std::size_t>(-1);
  if (n > (kMax - Block::kHeaderSize) / slotStride_)
    return 0;
  void *raw = ::operator new(Block::kHeaderSize + slotStride_ * n, std::nothrow);
  if (!raw)
    return 0;
  Block *block = new (raw) Block{blocks_, n};
  blocks_ = block;
  ++blockCount_;
  slotCount_ += n;
  currentBlock_ = block;
  slotsInCurrentBlock_ = n;
  nextUnusedSlot_ = 0;
  return 1;
}

CLDataBuf *CLBuffer::NewSlot() {
  CLDataBuf *slot = nullptr;
  if (freeList_) {
    slot = freeList_;
    freeList_ = slot->next;
    --freeCount_;
  } else {
    if (!currentBlock_ || nextUnusedSlot_ >= slotsInCurrentBlock_) {
      if (growthSlots_ == 0 || !AllocBlock(growthSlots_))
        return nullptr;
    }
    slot = new (currentBlock_->SlotArea() + slotStride_ * nextUnusedSlot_) CLDataBuf;
    ++nextUnusedSlot_;
  }
  slot->init();
  return slot;
}

void CLBuffer::RecycleSlot(CLDataBuf *slot) {
  if (!slot)
    return;
  slot->used = 0;
  slot->prev = nullptr;
  slot->next = freeList_;
  freeList_ = slot;
  ++freeCount_;
}

void CLBuffer::RecycleChain(CLCtrlData &rec) {
  while (CLDataBuf *slot = rec.GetFirstSlot()) {
    rec.RemoveSlot(slot);
    RecycleSlot(slot);
  }
}

unsigned CLBuffer::GetFreeSlotCount() const {
  unsigned unused = currentBlock_ ? slotsInCurrentBlock_ - nextUnusedSlot_ : 0;
  return freeCount_ + unused;
}

CLCtrlData *CLBuffer::FindRecord(unsigned id) { return id ? index_.Search(id) : nullptr; }

CLCtrlData const *CLBuffer::FindRecord(unsigned id) const {
  if (!id)
    return nullptr;
  unsigned pos = index_.Find(id);
  return pos == index_.kNotFound ? nullptr : &index_.At(pos);
}

unsigned CLBuffer::insert(unsigned id, char const *data, unsigned len, unsigned maxLen, char const **where,
                          __int64 userData, CLDataBuf **slotOut, int newSlot, CLDataBuf *target, int after,
                          int noSplit) {
  if (!(ok_ && data && len && slotSize_ && maxLen && len <= maxLen && split_ && !noSplit && len > slotSize_))
    return _insert(id, data, len, maxLen, where, userData, slotOut, newSlot, target, after, noSplit);

  // Cut the input into slot-size pieces of one record; an automatic id is
  // taken by the first piece and kept for the rest.
  unsigned total = 0;
  bool firstPiece = true;
  while (total < len) {
    unsigned piece = len - total < slotSize_ ? len - total : slotSize_;
    char const *at = nullptr;
    CLDataBuf *slot = nullptr;
    unsigned stored = _insert(id, data + total, piece, maxLen, &at, userData, &slot, newSlot, target, after, noSplit);
    if (stored == 0)
      break;
    if (firstPiece) {
      if (where)
        *where = at;
      if (slotOut)
        *slotOut = slot;
      if (autoNumber_ && id == 0)
        id = highestId_;
      firstPiece = false;
    }
    // Later pieces follow the one just stored.
    if (target) {
      target = slot;
      after = 1;
    }
    total += stored;
  }
  if (firstPiece) {
    if (where)
      *where = nullptr;
    if (slotOut)
      *slotOut = nullptr;
  }
  return total;
}

unsigned CLBuffer::_insert(unsigned id, char const *data, unsigned len, unsigned maxLen, char const **where,
                           __int64 userData, CLDataBuf **slotOut, int newSlot, CLDataBuf *target, int after,
                           int /*noSplit*/) {
  if (where)
    *where = nullptr;
  if (slotOut)
    *slotOut = nullptr;
  if (!ok_ || !data || len == 0 || len > slotSize_ || maxLen == 0 || len > maxLen)
    return 0;

  // A failed insert changes nothing: an automatic id, or a raised highest id,
  // is given back.
  std::uint32_t const oldHighest = highestId_;
  unsigned pos = kNoPos;
  if (autoNumber_ && id == 0) {
    if (highestId_ == 0xFFFFFFFFu)
      return 0;
    id = ++highestId_;
  } else if (id > highestId_) {
    highestId_ = id;  // above every record: it cannot exist yet
  } else if (id != 0) {
    pos = index_.Find(id);
  }
  if (id == 0)
    return 0;

  char const *at = nullptr;
  CLDataBuf *slot = nullptr;
  unsigned stored = 0;

  if (pos == kNoPos) {
    // New record. A target slot can only belong to an existing record.
    if (target && !newSlot) {
      highestId_ = oldHighest;
      return 0;
    }
    slot = NewSlot();
    if (!slot) {
      highestId_ = oldHighest;
      return 0;
    }
    CLCtrlData rec(id, maxLen);
    rec.SetUserData(userData);
    rec.AddSlot(slot, nullptr, 1);
    stored = rec.AppendPacket(slot, data, len, slotSize_, split_, &at);
    if (index_.Insert(rec) == index_.kNotFound) {
      RecycleSlot(slot);
      highestId_ = oldHighest;
      return 0;
    }
  } else {
    CLCtrlData &rec = index_.At(pos);
    if (!rec.CanAddPacket(len)) {
      // A record never holds more than its maximum: a replacing store drops
      // as many of the oldest slots as it takes. A target slot must survive.
      if (split_ || !replaceWhenFull_ || target || len > rec.GetMaximum())
        return 0;
      if (peekId_ == id)
        peekId_ = peekCount_ = 0;  // the peeked bytes are about to go
      while (!rec.CanAddPacket(len) && rec.GetFirstSlot()) {
        CLDataBuf *oldest = rec.GetFirstSlot();
        rec.RemoveSlot(oldest);
        RecycleSlot(oldest);
      }
    }
    CLDataBuf *into = nullptr;
    if (!slotPerInsert_ && !newSlot) {
      CLDataBuf *candidate = target ? target : rec.GetLastSlot();
      if (candidate && candidate->used <= slotSize_ && slotSize_ - candidate->used >= len)
        into = candidate;
    }
    if (!into) {
      into = NewSlot();
      if (!into)
        return 0;
      CLDataBuf *const firstBefore = rec.GetFirstSlot();
      rec.AddSlot(into, target, after);
      // A slot placed in front of the one a pending peek read from: the
      // commit would take the new bytes instead of the peeked ones.
      if (peekId_ == id && rec.GetFirstSlot() != firstBefore)
        peekId_ = peekCount_ = 0;
    }
    slot = into;
    stored = rec.AppendPacket(into, data, len, slotSize_, split_, &at);
  }

  if (where)
    *where = at;
  if (slotOut)
    *slotOut = slot;
  return stored;
}

int CLBuffer::erase(unsigned id) { return EraseRecord(id); }

void CLBuffer::RecordErased(unsigned) {}

int CLBuffer::EraseRecord(unsigned id) {
  if (!ok_ || id == 0)
    return 0;
  unsigned pos = index_.Find(id);
  if (pos == index_.kNotFound)
    return 0;
  RecycleChain(index_.At(pos));
  index_.EraseAt(pos);
  if (peekId_ == id)
    peekId_ = peekCount_ = 0;
  RecordErased(id);
  return 1;
}

int CLBuffer::erase(CLCtrlData *rec) { return rec ? EraseRecord(rec->GetId()) : 0; }

void CLBuffer::erase_all() {
  for (CLCtrlData &rec : index_)
    RecycleChain(rec);
  index_.Clear();
  peekId_ = peekCount_ = 0;
  cursorId_ = 0;
}

unsigned CLBuffer::getdata(CLCtrlData &rec, char *buf, unsigned *len, __int64 *userData) {
  if (len) {
    CLDataBuf const *slot = rec.GetFirstSlot();
    unsigned have = slot ? slot->used : 0;
    unsigned n = *len < have ? *len : have;
    if (buf && n)
      std::memcpy(buf, slot->data, n);
    *len = n;
  }
  if (userData)
    *userData = rec.GetUserData();
  return rec.GetId();
}

unsigned CLBuffer::ReadAt(unsigned pos, char *buf, unsigned *len) {
  if (pos >= index_.Count()) {
    if (len)
      *len = 0;
    return 0;
  }
  cursorId_ = index_.At(pos).GetId();
  return getdata(index_.At(pos), buf, len, nullptr);
}

unsigned CLBuffer::first(char *buf, unsigned *len) { return ReadAt(0, buf, len); }

unsigned CLBuffer::last(char *buf, unsigned *len) {
  unsigned count = index_.Count();
  return ReadAt(count ? count - 1 : 0, buf, len);
}

unsigned CLBuffer::next(char *buf, unsigned *len) { return ReadAt(index_.UpperBound(cursorId_), buf, len); }

unsigned CLBuffer::prev(char *buf, unsigned *len) {
  unsigned pos = cursorId_ ? index_.LowerBound(cursorId_) : 0;
  return ReadAt(pos ? pos - 1 : index_.Count(), buf, len);
}

int CLBuffer::set_pos(unsigned id) {
  if (id == 0) {
    cursorId_ = 0;
    return 1;
  }
  if (index_.Find(id) == index_.kNotFound)
    return 0;
  cursorId_ = id;
  return 1;
}

unsigned CLBuffer::popfirst(char *buf, unsigned *len) {
  unsigned id = first(buf, len);
  if (id)
    EraseRecord(id);
  return id;
}

unsigned CLBuffer::poplast(char *buf, unsigned *len) {
  unsigned id = last(buf, len);
  if (id)
    EraseRecord(id);
  return id;
}

int CLBuffer::ConsumeFront(unsigned pos, char *buf, unsigned *n) {
  CLCtrlData &rec = index_.At(pos);
  CLDataBuf *slot = rec.GetFirstSlot();
  *n = rec.RemoveData(slot, buf, *n, 0);
  if (slot && slot->used == 0) {
    rec.RemoveSlot(slot);
    RecycleSlot(slot);
    if (!rec.GetFirstSlot()) {
      EraseRecord(rec.GetId());
      return 1;
    }
  }
  return 0;
}

unsigned CLBuffer::first(unsigned id, char *buf, unsigned *len, __int64 *userData, int consume, int *done) {
  if (done)
    *done = 0;
  unsigned room = len ? *len : slotSize_;
  unsigned pos = index_.kNotFound;
  if (ok_)
    pos = id ? index_.Find(id) : (index_.Empty() ? index_.kNotFound : 0);
  if (pos == index_.kNotFound) {
    if (len)
      *len = 0;
    if (userData)
      *userData = 0;
    return 0;
  }
  CLCtrlData &rec = index_.At(pos);
  unsigned const recId = rec.GetId();
  if (userData)
    *userData = rec.GetUserData();
  if (!consume) {
    getdata(rec, buf, &room, nullptr);
    peekId_ = recId;
    peekCount_ = room;
  } else {
    // The bytes a pending peek saw may be the ones taken now.
    if (peekId_ == recId)
      peekId_ = peekCount_ = 0;
    int erased = ConsumeFront(pos, buf, &room);
    if (done)
      *done = erased;
  }
  if (len)
    *len = room;
  return recId;
}

// The peek is remembered by id and count only: the live record is looked up
// again, so inserts between the peek and the commit are never lost.
void CLBuffer::poplastop(unsigned id, unsigned n) {
  if (!ok_ || id == 0 || id != peekId_ || n == 0)
    return;
  if (n > peekCount_)
    n = peekCount_;
  peekId_ = peekCount_ = 0;
  unsigned pos = index_.Find(id);
  if (pos == index_.kNotFound || n == 0)
    return;
  ConsumeFront(pos, nullptr, &n);
}

int CLBuffer::search(unsigned id, char *buf, unsigned *len, __int64 *userData) {
  CLCtrlData *rec = ok_ ? FindRecord(id) : nullptr;
  if (!rec) {
    if (len)
      *len = 0;
    if (userData)
      *userData = 0;
    return 0;
  }
  getdata(*rec, buf, len, userData);
  return 1;
}

unsigned CLBuffer::getszdata(unsigned id, unsigned *size) {
  CLCtrlData const *rec = nullptr;
  if (ok_)
    rec = id ? FindRecord(id) : (index_.Empty() ? nullptr : &index_.At(0));
  if (size)
    *size = rec ? rec->GetBytes() : 0;
  return rec ? rec->GetId() : 0;
}
