#include "media/CLSBuffer.h"

#include <cstring>
#include <new>

// ---------------------------------------------------------------------------
// CLSPktTable

namespace {

constexpr unsigned kTableStep = 100;

}  // namespace

CLSPktTable::CLSPktTable(unsigned budget) : packets_(kTableStep), budget_(budget) { packets_.Create(kTableStep); }

CLSPktTable::~CLSPktTable() = default;

void CLSPktTable::RaiseHighestId(unsigned pktId) {
  if (!IsNewest(pktId))
    return;
  highest_ = pktId;
  // The table orders ids within the half of the id space behind the newest.
  packets_.SetKeyBase(pktId - 0x7FFFFFFFu);
}

int CLSPktTable::Add(CLSPktRec const &rec) {
  if (rec.id == 0 || Find(rec.id))
    return 0;
  return packets_.Insert(rec) != packets_.kNotFound;
}

int CLSPktTable::Remove(unsigned pktId) {
  unsigned pos = pktId ? packets_.Find(pktId) : packets_.kNotFound;
  if (pos == packets_.kNotFound)
    return 0;
  packets_.EraseAt(pos);
  return 1;
}

void CLSPktTable::Clear() {
  packets_.Clear();
  cursor_ = 0;
}

CLSPktRec *CLSPktTable::First() {
  if (packets_.Empty())
    return nullptr;
  cursor_ = packets_.At(0).id;
  return &packets_.At(0);
}

CLSPktRec *CLSPktTable::Last() {
  if (packets_.Empty())
    return nullptr;
  CLSPktRec &rec = packets_.At(packets_.Count() - 1);
  cursor_ = rec.id;
  return &rec;
}

CLSPktRec *CLSPktTable::Next() {
  unsigned pos = packets_.UpperBound(cursor_);
  if (pos >= packets_.Count())
    return nullptr;
  cursor_ = packets_.At(pos).id;
  return &packets_.At(pos);
}

CLSPktRec *CLSPktTable::Prev() {
  unsigned pos = cursor_ ? packets_.LowerBound(cursor_) : 0;
  if (pos == 0)
    return nullptr;
  cursor_ = packets_.At(pos - 1).id;
  return &packets_.At(pos - 1);
}

int CLSPktTable::SetPos(unsigned pktId) {
  if (pktId == 0) {
    cursor_ = 0;
    return 1;
  }
  if (!Find(pktId))
    return 0;
  cursor_ = pktId;
  return 1;
}

int CLSPktTable::CopyFrom(CLSPktTable const &other) {
  if (!packets_.CopyFrom(other.packets_))
    return 0;
  cursor_ = other.cursor_;
  budget_ = other.budget_;
  highest_ = other.highest_;
  return 1;
}

// ---------------------------------------------------------------------------
// CLSIdTable

CLSIdTable::CLSIdTable() : entries_(kTableStep) {}

CLSIdTable::~CLSIdTable() { RemoveAll(); }

CLSPktTable *CLSIdTable::Find(unsigned id) {
  Entry *entry = id ? entries_.Search(id) : nullptr;
  return entry ? entry->table : nullptr;
}

int CLSIdTable::Add(unsigned id, CLSPktTable *table) {
  if (id == 0 || !table || Find(id))
    return 0;
  return entries_.Insert(Entry{id, table}) != entries_.kNotFound;
}

int CLSIdTable::Remove(unsigned id) {
  unsigned pos = id ? entries_.Find(id) : entries_.kNotFound;
  if (pos == entries_.kNotFound)
    return 0;
  CLSPktTable *table = entries_.At(pos).table;
  entries_.EraseAt(pos);
  delete table;
  return 1;
}

void CLSIdTable::RemoveAll() {
  for (Entry &entry : entries_)
    delete entry.table;
  entries_.Clear();
}

// ---------------------------------------------------------------------------
// CLSBuffer

CLSBuffer::CLSBuffer(unsigned slotSize, unsigned initialSlots, unsigned growthSlots)
    : CLBuffer(slotSize, initialSlots, 0, 0, 0, 0, growthSlots), streams_(new (std::nothrow) CLSIdTable) {}

CLSBuffer::CLSBuffer(CLSBuffer const &other)
    : CLBuffer(other), streams_(new (std::nothrow) CLSIdTable), droppedSlots_(other.droppedSlots_) {
  CopyStreams(other);
}

CLSBuffer &CLSBuffer::operator=(CLSBuffer const &other) {
  if (this == &other)
    return *this;
  if (streams_)
    streams_->RemoveAll();
  else
    streams_ = new (std::nothrow) CLSIdTable;
  ForgetCache();
  CLBuffer::operator=(other);
  droppedSlots_ = other.droppedSlots_;
  CopyStreams(other);
  return *this;
}

CLSBuffer::~CLSBuffer() { delete streams_; }

// Rebuilds other's packet tables over this buffer's slots. The CLBuffer copy
// holds every record's chain in the same order, and entries sit in their
// chain in packet-id order, so one walk of both chains side by side maps each
// old slot to its copy.
void CLSBuffer::CopyStreams(CLSBuffer const &other) {
  if (!streams_ || !other.streams_)
    return;
  for (unsigned i = 0; i < other.streams_->GetCount(); ++i) {
    unsigned id = other.streams_->IdAt(i);
    CLSPktTable *table = new (std::nothrow) CLSPktTable(0);
    if (!table || !table->IsOk() || !table->CopyFrom(*other.streams_->TableAt(i)) || !streams_->Add(id, table)) {
      delete table;
      continue;  // the stream is lost in the copy; its bytes go with erase
    }
    CLCtrlData const *from = other.FindRecord(id);
    CLCtrlData const *to = FindRecord(id);
    CLDataBuf const *oldSlot = from ? from->GetFirstSlot() : nullptr;
    CLDataBuf *newSlot = to ? to->GetFirstSlot() : nullptr;
    unsigned pos = 0;
    for (; pos < table->GetCount(); ++pos) {
      CLSPktRec &rec = table->At(pos);
      while (oldSlot && newSlot && oldSlot != rec.slot) {
        oldSlot = oldSlot->next;
        newSlot = newSlot->next;
      }
      if (!oldSlot || !newSlot)
        break;
      rec.data = newSlot->data + (rec.data - oldSlot->data);
      rec.slot = newSlot;
    }
    while (table->GetCount() > pos)
      table->RemoveAt(pos);
  }
}

int CLSBuffer::reset() {
  if (streams_)
    streams_->RemoveAll();
  ForgetCache();
  droppedSlots_ = 0;
  return CLBuffer::reset();
}

void CLSBuffer::RecordErased(unsigned id) {
  if (CLSPktTable *table = GetPktTable(id))
    table->Clear();
}

void CLSBuffer::erase_all() {
  if (streams_) {
    for (unsigned i = 0; i < streams_->GetCount(); ++i)
      streams_->TableAt(i)->Clear();
  }
  CLBuffer::erase_all();
}

CLSPktTable *CLSBuffer::GetPktTable(unsigned id) {
  if (id == 0 || !streams_)
    return nullptr;
  if (id == cachedId_ && cachedTable_)
    return cachedTable_;
  CLSPktTable *table = streams_->Find(id);
  if (table) {
    cachedId_ = id;
    cachedTable_ = table;
  }
  return table;
}

int CLSBuffer::NewId(unsigned id, unsigned budget) {
  if (id == 0 || budget == 0 || !streams_ || !IsOk())
    return 0;
  if (streams_->Find(id) || FindRecord(id))
    return 0;
  CLSPktTable *table = new (std::nothrow) CLSPktTable(budget);
  if (!table || !table->IsOk() || !streams_->Add(id, table)) {
    delete table;
    return 0;
  }
  return 1;
}

// The one-entry look-up cache is cleared here: it would otherwise keep
// pointing at the destroyed table.
void CLSBuffer::KillId(unsigned id) {
  if (id == 0)
    return;
  if (cachedId_ == id)
    ForgetCache();
  if (streams_)
    streams_->Remove(id);
  CLBuffer::erase(id);
}

int CLSBuffer::_AddPacket(unsigned id, CLSPktTable *table, CLSPktRec &rec, void *data, int newSlot,
                          CLDataBuf *target, int after) {
  if (!table->Add(rec))
    return 0;
  unsigned stored = CLBuffer::insert(id, static_cast<char const *>(data), rec.length, table->GetBudget(), &rec.data,
                                     0, &rec.slot, newSlot, target, after, 0);
  CLSPktRec *entry = table->Find(rec.id);
  if (stored != rec.length || !entry) {
    table->Remove(rec.id);
    return 0;
  }
  entry->data = rec.data;
  entry->slot = rec.slot;
  table->RaiseHighestId(rec.id);
  return 1;
}

// The dropped slot is unlinked only, never recycled (see the header): the
// bytes it held stay allocated until reset or destruction.
int CLSBuffer::DropOldestSlot(unsigned id, CLSPktTable *table) {
  CLCtrlData *rec = FindRecord(id);
  if (!rec || table->GetCount() == 0)
    return 0;
  CLDataBuf *slot = table->At(0).slot;
  while (table->GetCount() > 0 && table->At(0).slot == slot)
    table->RemoveAt(0);
  rec->RemoveSlot(slot);
  ++droppedSlots_;
  return 1;
}

int CLSBuffer::AddPacket(unsigned id, unsigned pktId, void *data, unsigned len, unsigned info, int newSlot) {
  if (id == 0 || pktId == 0 || !data || len == 0 || len > GetSlotSize())
    return 0;
  CLSPktTable *table = GetPktTable(id);
  if (!table || table->Find(pktId))
    return 0;

  // Room for a whole further slot, not just len: a late packet that splits
  // a slot re-stores that slot's tail before cutting it.
  unsigned const slotSize = GetSlotSize();
  unsigned const room = slotSize > 0xFFFFFFFFu - len ? 0xFFFFFFFFu : slotSize + len;
  for (CLCtrlData *rec = FindRecord(id); rec && !rec->CanAddPacket(room); rec = FindRecord(id)) {
    if (!DropOldestSlot(id, table))
      return 0;
  }

  CLSPktRec rec(pktId, len, info, nullptr, nullptr, 0);
  if (table->IsNewest(pktId))
    return _AddPacket(id, table, rec, data, newSlot, nullptr, 1);

  // Late packet: it goes in front of F, the first packet above it.
  unsigned pos = table->UpperBound(pktId);
  if (pos >= table->GetCount())
    return _AddPacket(id, table, rec, data, 0, nullptr, 1);
  CLSPktRec const follower = table->At(pos);
  CLDataBuf *const split = follower.slot;
  if (follower.data == split->data)
    return _AddPacket(id, table, rec, data, 1, split, 0);

  // F sits in the middle of its slot S: the late packet starts a new slot
  // after S, F and the rest of S follow it there, and S is cut after the
  // packets before F.
  if (!_AddPacket(id, table, rec, data, 1, split, 1))
    return 0;
  unsigned const cutAt = static_cast<unsigned>(follower.data - split->data);
  CLDataBuf *tail = rec.slot;
  for (pos = table->UpperBound(pktId); pos < table->GetCount() && table->At(pos).slot == split;) {
    CLSPktRec &moved = table->At(pos);
    char const *where = nullptr;
    CLDataBuf *into = nullptr;
    unsigned stored =
        CLBuffer::insert(id, moved.data, moved.length, table->GetBudget(), &where, 0, &into, 0, tail, 1, 0);
    if (stored != moved.length) {
      table->RemoveAt(pos);
      continue;
    }
    moved.data = where;
    moved.slot = into;
    tail = into;
    ++pos;
  }
  if (CLCtrlData *record = FindRecord(id))
    record->RemoveData(split, nullptr, split->used - cutAt, cutAt);
  return 1;
}

unsigned CLSBuffer::_GetPacket(CLSOp op, unsigned id, void *buf, unsigned *len, unsigned *info, unsigned pktId,
                               std::uint64_t *userData) {
  if (userData)
    *userData = 0;
  CLSPktTable *table = GetPktTable(id);
  if (!table)
    return 0;
  CLSPktRec *rec = nullptr;
  switch (op) {
    case CLSOpGet:
      rec = table->Find(pktId);
      break;
    case CLSOpFirst:
      rec = table->First();
      break;
    case CLSOpLast:
      rec = table->Last();
      break;
    case CLSOpNext:
      rec = table->Next();
      break;
    case CLSOpPrev:
      rec = table->Prev();
      break;
  }
  if (!rec)
    return 0;
  if (buf && len && *len) {
    unsigned n = *len < rec->length ? *len : rec->length;
    std::memcpy(buf, rec->data, n);
    *len = n;
  }
  if (info)
    *info = rec->info;
  if (userData)
    *userData = rec->userData;
  return rec->id;
}

unsigned CLSBuffer::GetPacket(unsigned id, unsigned pktId, void *buf, unsigned *len, unsigned *info,
                              std::uint64_t *userData) {
  return _GetPacket(CLSOpGet, id, buf, len, info, pktId, userData);
}

unsigned CLSBuffer::firstPacket(unsigned id, void *buf, unsigned *len, unsigned *info) {
  return _GetPacket(CLSOpFirst, id, buf, len, info, 0, nullptr);
}

unsigned CLSBuffer::lastPacket(unsigned id, void *buf, unsigned *len, unsigned *info) {
  return _GetPacket(CLSOpLast, id, buf, len, info, 0, nullptr);
}

unsigned CLSBuffer::nextPacket(unsigned id, void *buf, unsigned *len, unsigned *info) {
  return _GetPacket(CLSOpNext, id, buf, len, info, 0, nullptr);
}

unsigned CLSBuffer::prevPacket(unsigned id, void *buf, unsigned *len, unsigned *info) {
  return _GetPacket(CLSOpPrev, id, buf, len, info, 0, nullptr);
}

int CLSBuffer::SetPos(unsigned id, unsigned pktId) {
  CLSPktTable *table = GetPktTable(id);
  return table ? table->SetPos(pktId) : 0;
}

unsigned CLSBuffer::GetLastPktId(unsigned id) {
  CLSPktTable *table = GetPktTable(id);
  return table ? table->GetHighestId() : 0;
}

int CLSBuffer::SetPktUserData(unsigned id, unsigned pktId, std::uint64_t userData) {
  CLSPktTable *table = GetPktTable(id);
  CLSPktRec *rec = table ? table->Find(pktId) : nullptr;
  if (!rec)
    return 0;
  rec->SetUserData(userData);
  return 1;
}

std::uint64_t CLSBuffer::GetPktUserData(unsigned id, unsigned pktId) {
  CLSPktTable *table = GetPktTable(id);
  CLSPktRec *rec = table ? table->Find(pktId) : nullptr;
  return rec ? rec->userData : 0;
}
