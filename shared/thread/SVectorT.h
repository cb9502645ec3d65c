// SVectorT.h: a sorted vector of key/value pairs with 1-based positions.
//
//   positions:  1     2     3     4          (0 means "no position")
//   items_:   [k,v] [k,v] [k,v] [k,v] [0,0] [0,0] ...   capacity_ pairs
//                                  ^count_
//
// Pairs are kept in the order of compare() (keys compared as unsigned
// values; pointer keys by address, full width on 64-bit systems). Equal keys
// are kept in insertion order: a new pair goes after the ones equal to it.
// The array starts with the capacity given (100 by default) and doubles (by
// at least 100 pairs) when full; unused pairs are zero. A cursor (1-based,
// initially 1) walks the pairs with get_next and keeps naming the same pair
// across inserts and erases before it.
//
// An owning vector (owns non-zero) disposes of removed pairs through the
// virtual kill_elem when asked to (eraseIndex/erase with kill, and kill()).
// The base kill_elem does nothing; a derived owner overrides it and calls
// kill() in its own destructor (the base destructor only frees the array).
//
// Keys and values are plain values (trivially copyable: integers, pointers,
// small structs); they are moved with memmove and the array with realloc.
// Not synchronised: the owner locks around every call.
#pragma once

#include "platform/Export.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>

template <class K, class V>
class SHAREDLIB_API SVectorT {
public:
  static_assert(std::is_trivially_copyable_v<K> && std::is_trivially_copyable_v<V>,
                "SVectorT moves its pairs as raw bytes");
  static constexpr unsigned kGrowth = 100;

  explicit SVectorT(int owns = 0, unsigned capacity = 100) { init(owns, capacity); }
  virtual ~SVectorT() { std::free(items_); }
  SVectorT(SVectorT const &) = delete;
  SVectorT &operator=(SVectorT const &) = delete;

  // Disposes of a removed pair; nothing here.
  virtual void kill_elem(K, V) {}
  // -1, 0 or 1 by unsigned value of the keys.
  virtual int compare(K a, K b) {
    auto const x = AsUnsigned(a);
    auto const y = AsUnsigned(b);
    return x < y ? -1 : (x > y ? 1 : 0);
  }

  // Forgets every pair (without kill_elem) and starts again with capacity.
  void init(int owns, unsigned capacity) {
    std::free(items_);
    items_ = nullptr;
    owns_ = owns;
    flag_ = 1;
    missingValue_ = V{};
    missingKey_ = K{};
    initialCapacity_ = capacity;
    count_ = 0;
    capacity_ = 0;
    cursor_ = 1;
    busy_ = 0;
    if (capacity != 0 && capacity <= MaxCapacity()) {
      items_ = static_cast<Pair *>(std::calloc(capacity, sizeof(Pair)));
      if (items_)
        capacity_ = capacity;
    }
  }

  // Inserts after any equal keys; returns the new position, or 0 when the
  // array could not grow (nothing inserted).
  unsigned insert(K k, V v) {
    if (count_ == capacity_ && !Grow())
      return 0;
    unsigned index;  // 0-based
    if (count_ == 0 || compare(k, items_[0].key) < 0)
      index = 0;
    else if (compare(k, items_[count_ - 1].key) >= 0)
      index = count_;
    else
      index = UpperBound(k);
    std::memmove(items_ + index + 1, items_ + index, (count_ - index) * sizeof(Pair));
    items_[index].key = k;
    items_[index].value = v;
    ++count_;
    unsigned const pos = index + 1;
    if (pos < cursor_)
      ++cursor_;
    return pos;
  }

  // Position of a pair with key k (with equal keys, one of them) and its
  // value in *out; 0 and the missing value (zero) when there is none.
  unsigned search(K k, V *out) {
    unsigned pos = Find(k);
    if (out)
      *out = pos ? items_[pos - 1].value : missingValue_;
    return pos;
  }

  // Removes the pair at pos; with kill and an owning vector, then passes it
  // to kill_elem. 1, or 0 when pos is 0 or beyond the count.
  int eraseIndex(unsigned pos, int kill) {
    if (pos == 0 || pos > count_)
      return 0;
    Pair const removed = items_[pos - 1];
    std::memmove(items_ + pos - 1, items_ + pos, (count_ - pos) * sizeof(Pair));
    std::memset(static_cast<void *>(items_ + count_ - 1), 0, sizeof(Pair));
    --count_;
    if (pos < cursor_ && cursor_ > 1)
      --cursor_;
    if (owns_ && kill)
      kill_elem(removed.key, removed.value);
    return 1;
  }

  int erase(K k, int kill) {
    unsigned pos = search(k, nullptr);
    return pos ? eraseIndex(pos, kill) : 0;
  }

  unsigned get_nitens() const { return count_; }
  unsigned get_capacity() const { return capacity_; }

  // Removes every pair, first to last, passing each to kill_elem when owning.
  void kill() {
    while (count_ != 0)
      eraseIndex(1, 1);
    cursor_ = 1;
  }

  // Removes every pair without kill_elem.
  void clear() {
    if (items_)
      std::memset(static_cast<void *>(items_), 0, count_ * sizeof(Pair));
    count_ = 0;
    cursor_ = 1;
  }

  // The pair at pos (either pointer may be null): 1, or 0 out of range.
  int get_item(unsigned pos, K *k, V *v) const {
    if (pos == 0 || pos > count_)
      return 0;
    if (k)
      *k = items_[pos - 1].key;
    if (v)
      *v = items_[pos - 1].value;
    return 1;
  }

  unsigned get_cursor() const { return cursor_; }
  void set_cursor(unsigned pos) { cursor_ = pos == 0 ? 1 : pos; }
  // The pair at the cursor, which then moves on: 1, or 0 past the end.
  int get_next(K *k, V *v) {
    if (!get_item(cursor_, k, v))
      return 0;
    ++cursor_;
    return 1;
  }

  int owns() const { return owns_; }

private:
  struct Pair {
    K key;
    V value;
  };

  static constexpr unsigned MaxCapacity() {
    std::size_t const limit = std::numeric_limits<std::size_t>::max() / sizeof(Pair);
    return limit < std::numeric_limits<unsigned>::max() ? static_cast<unsigned>(limit)
                                                        : std::numeric_limits<unsigned>::max();
  }

  template <class T>
  static auto AsUnsigned(T value) {
    if constexpr (std::is_pointer_v<T>)
      return reinterpret_cast<std::uintptr_t>(value);
    else if constexpr (std::is_enum_v<T>)
      return static_cast<std::make_unsigned_t<std::underlying_type_t<T>>>(value);
    else if constexpr (std::is_integral_v<T>)
      return static_cast<std::make_unsigned_t<T>>(value);
    else
      return value;  // other key types bring their own ordering (or a compare override)
  }

  // Doubles (by at least kGrowth pairs): a fixed step would copy the array
  // n / 100 times on the way to n pairs, quadratic in all.
  bool Grow() {
    if (capacity_ > MaxCapacity() - kGrowth)
      return false;
    unsigned const step = capacity_ > kGrowth ? capacity_ : kGrowth;
    unsigned const bigger = capacity_ > MaxCapacity() - step ? MaxCapacity() : capacity_ + step;
    auto *grown = static_cast<Pair *>(std::realloc(static_cast<void *>(items_), bigger * sizeof(Pair)));
    if (!grown)
      return false;
    std::memset(static_cast<void *>(grown + capacity_), 0, (bigger - capacity_) * sizeof(Pair));
    items_ = grown;
    capacity_ = bigger;
    return true;
  }

  // 0-based index of the first key greater than k (k lies between the ends).
  unsigned UpperBound(K k) {
    unsigned lo = 0, hi = count_;
    while (lo < hi) {
      unsigned mid = lo + (hi - lo) / 2;
      if (compare(k, items_[mid].key) < 0)
        hi = mid;
      else
        lo = mid + 1;
    }
    return lo;
  }

  unsigned Find(K k) {
    if (count_ == 0)
      return 0;
    if (compare(k, items_[0].key) == 0)
      return 1;
    if (compare(k, items_[count_ - 1].key) == 0)
      return count_;
    unsigned lo = 0, hi = count_;
    while (lo < hi) {
      unsigned mid = lo + (hi - lo) / 2;
      int c = compare(k, items_[mid].key);
      if (c == 0)
        return mid + 1;
      if (c < 0)
        hi = mid;
      else
        lo = mid + 1;
    }
    return 0;
  }

  Pair *items_ = nullptr;
  int owns_ = 0;
  int flag_ = 0;
  V missingValue_{};
  K missingKey_{};
  unsigned initialCapacity_ = 0;
  unsigned count_ = 0;
  unsigned capacity_ = 0;  // 0 when the first allocation failed
  unsigned cursor_ = 1;
  unsigned char busy_ = 0;
};
