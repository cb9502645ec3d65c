// SortedIdVector.h: the sorted id index shared by the media record stores
// (CLBuffer's record index, CLSBuffer's packet and stream tables). Internal:
// not part of the library's interface, though public headers carry it as a
// member type.
//
// Entries are kept in ascending unsigned order of T::GetId() in one array
// with a free run at its front:
//
//   storage_: [ free | entry 0 ... entry count_-1 | free ]
//              ^0     ^head_                        ^capacity_
//
// so that the two operations a stream of packets does all the time move
// nothing: appending above the highest id (the tail run) and removing the
// lowest entry (head_ advances). Other inserts and removals shift the shorter
// side. When the tail run is used up, the entries move back to the front if
// that frees at least half as many places as there are entries, otherwise
// the array doubles (at least the growth step): appends and front removals
// cost the same however many entries are held. Growth is the only
// allocation. Look-up is a binary search.
//
// No lock: the owner serialises access. Pointers and references to entries
// are valid until the next insert or erase.
#pragma once

#include <algorithm>
#include <new>
#include <type_traits>

namespace shared::detail {

template <class T>
class SortedIdVector {
  static_assert(std::is_trivially_copyable_v<T>, "entries are moved as plain bytes");

public:
  static constexpr unsigned kNotFound = 0xFFFFFFFFu;

  explicit SortedIdVector(unsigned growth = 100) : growth_(growth ? growth : 100) {}
  ~SortedIdVector() { delete[] storage_; }

  SortedIdVector(SortedIdVector const &) = delete;
  SortedIdVector &operator=(SortedIdVector const &) = delete;

  // Discards the contents and makes room for capacity entries (at least one
  // growth step). False when the allocation fails; the vector is then empty
  // and unallocated.
  bool Create(unsigned capacity) {
    Destroy();
    if (capacity == 0)
      capacity = growth_;
    storage_ = new (std::nothrow) T[capacity];
    if (!storage_)
      return false;
    capacity_ = capacity;
    return true;
  }

  void Destroy() {
    delete[] storage_;
    storage_ = nullptr;
    capacity_ = head_ = count_ = 0;
  }

  // Copies other's entries (same order); false on allocation failure.
  bool CopyFrom(SortedIdVector const &other) {
    if (this == &other)
      return true;
    if (!Create(other.capacity_ ? other.capacity_ : growth_))
      return false;
    std::copy(other.begin(), other.end(), storage_);
    count_ = other.count_;
    base_ = other.base_;
    return true;
  }

  bool IsCreated() const { return storage_ != nullptr; }
  unsigned Count() const { return count_; }
  bool Empty() const { return count_ == 0; }
  void Clear() { head_ = count_ = 0; }

  T &At(unsigned pos) { return storage_[head_ + pos]; }
  T const &At(unsigned pos) const { return storage_[head_ + pos]; }
  T *begin() { return storage_ + head_; }
  T *end() { return storage_ + head_ + count_; }
  T const *begin() const { return storage_ + head_; }
  T const *end() const { return storage_ + head_ + count_; }

  // Position of the first entry with an id not below id (Count() when none).
  unsigned LowerBound(unsigned id) const {
    unsigned const key = Key(id);
    if (count_ == 0 || Key(At(count_ - 1)) < key)
      return count_;
    return static_cast<unsigned>(
        std::lower_bound(begin(), end(), key, [this](T const &e, unsigned k) { return Key(e) < k; }) - begin());
  }

  // Position of the first entry with an id above id (Count() when none).
  unsigned UpperBound(unsigned id) const {
    unsigned const key = Key(id);
    if (count_ == 0 || Key(At(count_ - 1)) <= key)
      return count_;
    return static_cast<unsigned>(
        std::upper_bound(begin(), end(), key, [this](unsigned k, T const &e) { return k < Key(e); }) - begin());
  }

  // Ids are ordered as unsigned distances above base (0: plain unsigned
  // order). Moving the base keeps the order of the entries held as long as
  // none lies in the range it moves across; the packet tables slide it
  // behind their newest id so that ids order across the 32-bit wrap.
  void SetKeyBase(unsigned base) { base_ = base; }

  // Position of the (first) entry with this id, kNotFound when none.
  unsigned Find(unsigned id) const {
    unsigned pos = LowerBound(id);
    return (pos < count_ && Id(At(pos)) == id) ? pos : kNotFound;
  }

  T *Search(unsigned id) {
    unsigned pos = Find(id);
    return pos == kNotFound ? nullptr : &At(pos);
  }

  // Inserts after any entry with an equal id. Returns the position, or
  // kNotFound when the array could not grow (nothing changed then).
  unsigned Insert(T const &entry) {
    unsigned pos = UpperBound(Id(entry));
    return InsertAt(pos, entry) ? pos : kNotFound;
  }

  void EraseAt(unsigned pos) {
    if (pos >= count_)
      return;
    if (pos < count_ / 2) {
      // Close the gap from the front: the lowest entries move up one.
      std::copy_backward(begin(), begin() + pos, begin() + pos + 1);
      ++head_;
    } else {
      std::copy(begin() + pos + 1, end(), begin() + pos);
    }
    if (--count_ == 0)
      head_ = 0;
  }

private:
  static unsigned Id(T const &e) { return e.GetId(); }
  // Ids are ordered by their distance above the key base, modulo 2^32.
  unsigned Key(unsigned id) const { return id - base_; }
  unsigned Key(T const &e) const { return Id(e) - base_; }

  bool InsertAt(unsigned pos, T const &entry) {
    if (!storage_ && !Create(growth_))
      return false;
    if (head_ > 0 && pos < count_ / 2) {
      // Room in front and closer to the front: the lower entries move down.
      --head_;
      std::copy(begin() + 1, begin() + pos + 1, begin());
      At(pos) = entry;
      ++count_;
      return true;
    }
    if (head_ + count_ == capacity_) {
      // Compacting costs count_ moves; it is done only when it frees at
      // least half that many places at the tail, so its cost spread over the
      // appends it makes room for stays constant. Otherwise grow geometrically.
      if (head_ > 0 && head_ >= count_ / 2) {
        std::copy(begin(), end(), storage_);
        head_ = 0;
      } else if (!Grow()) {
        return false;
      }
    }
    std::copy_backward(begin() + pos, end(), end() + 1);
    At(pos) = entry;
    ++count_;
    return true;
  }

  bool Grow() {
    if (capacity_ > 0xFFFFFFFFu - growth_)
      return false;
    // Doubling (at least one growth step): reaching n entries copies O(n)
    // entries in all, and a full array with a few free places at the front
    // does not move everything on every append.
    unsigned capacity = capacity_ + std::max(growth_, capacity_);
    if (capacity < capacity_)
      capacity = 0xFFFFFFFFu;
    T *bigger = new (std::nothrow) T[capacity];
    if (!bigger)
      return false;
    std::copy(begin(), end(), bigger);
    delete[] storage_;
    storage_ = bigger;
    capacity_ = capacity;
    head_ = 0;
    return true;
  }

  T *storage_ = nullptr;
  unsigned capacity_ = 0;
  unsigned head_ = 0;   // free entries before the first one
  unsigned count_ = 0;
  unsigned base_ = 0;
  unsigned const growth_;
};

}  // namespace shared::detail
