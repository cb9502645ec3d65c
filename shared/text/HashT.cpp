#include "text/HashT.h"

#include "platform/Compat.h"
#include "text/TextRoutines.h"

#include <cctype>
#include <cstring>
#include <new>

template <class T>
HashT<T>::HashT() : HashT(0) {}

template <class T>
HashT<T>::HashT(int owns)
    : buckets_(nullptr), walkBucket_(kBuckets), walkBlock_(nullptr), walkSlot_(0),
      slotsUsed_(0), items_(0), owns_(owns) {
  AllocBuckets();
}

template <class T>
HashT<T>::~HashT() {
  kill();
  delete[] buckets_;
}

template <class T>
void HashT<T>::kill_reg(T) {}

template <class T>
void HashT<T>::AllocBuckets() {
  if (!buckets_)
    buckets_ = new (std::nothrow) Bucket[kBuckets]();
}

template <class T>
unsigned HashT<T>::formula(char const *key) {
  // The same result as hashing ajusta_upp_str(key, .., 63), without copying
  // the key: only its length and four of its characters count.
  if (!key)
    return 0;
  std::size_t len = strnlen(key, kKeyMax);
  while (len > 0 && key[len - 1] == ' ')
    --len;
  auto c = [key](std::size_t i) {
    char const up = static_cast<char>(std::toupper(static_cast<unsigned char>(key[i])));
    return static_cast<unsigned>(static_cast<int>(static_cast<signed char>(up)));
  };
  if (len == 0)
    return 0;
  if (len == 1)
    return (8u * c(0)) % kBuckets;
  return (c(0) + 3u * c(1) + 11u * c(len - 2) + 7u * c(len - 1)) % kBuckets;
}

template <class T>
int HashT<T>::add(char const *key, T value) {
  if (!key || !key[0] || !buckets_)
    return 0;
  Bucket &bucket = buckets_[formula(key)];
  if (bucket.ndeleted > 0) {
    for (Block *block = bucket.first; block; block = block->next) {
      if (block->ndeleted == 0)
        continue;
      for (Elem &e : block->elem) {
        if (e.key[0] && e.deleted) {
          CopyString(e.key, key, kKeyMax);
          e.deleted = 0;
          e.value = value;
          --block->ndeleted;
          --bucket.ndeleted;
          ++items_;
          return 1;
        }
      }
    }
  }
  unsigned slot = bucket.nrecs % kBlockSlots;
  if (slot == 0) {
    Block *block = new (std::nothrow) Block();
    if (!block)
      return 0;
    if (bucket.last)
      bucket.last->next = block;
    else
      bucket.first = block;
    bucket.last = block;
  }
  Elem &e = bucket.last->elem[slot];
  CopyString(e.key, key, kKeyMax);
  e.deleted = 0;
  e.value = value;
  ++bucket.nrecs;
  ++slotsUsed_;
  ++items_;
  return 1;
}

template <class T>
typename HashT<T>::Elem *HashT<T>::Find(char const *key, Block **found) const {
  if (!key || !key[0] || !buckets_)
    return nullptr;
  Bucket const &bucket = buckets_[formula(key)];
  if (bucket.nrecs == bucket.ndeleted)
    return nullptr;
  for (Block *block = bucket.first; block; block = block->next) {
    for (Elem &e : block->elem) {
      if (!e.key[0])
        return nullptr;  // slots after the last filled one are empty
      // Keys compare on their first 63 characters, as they are stored.
      if (!e.deleted && _strnicmp(e.key, key, kKeyMax) == 0) {
        if (found)
          *found = block;
        return &e;
      }
    }
  }
  return nullptr;
}

template <class T>
T HashT<T>::search(char const *key) const {
  Elem const *e = Find(key, nullptr);
  return e ? e->value : T();
}

template <class T>
int HashT<T>::Erase(char const *key, bool release) {
  Block *block = nullptr;
  Elem *e = Find(key, &block);
  if (!e)
    return 0;
  e->deleted = 1;
  ++block->ndeleted;
  ++buckets_[formula(key)].ndeleted;
  --items_;
  if (release && owns_ && e->value != T())
    kill_reg(e->value);
  return 1;
}

template <class T>
int HashT<T>::erase(char const *key) {
  return Erase(key, true);
}

template <class T>
int HashT<T>::remove(char const *key) {
  return Erase(key, false);
}

template <class T>
unsigned HashT<T>::get_nrecs(unsigned bucket, unsigned *deleted) const {
  if (deleted)
    *deleted = 0;
  if (bucket >= kBuckets || !buckets_)
    return 0;
  if (deleted)
    *deleted = buckets_[bucket].ndeleted;
  return buckets_[bucket].nrecs;
}

template <class T>
T HashT<T>::WalkToLive(char *key) {
  // walkBlock_ null means "at the start of bucket walkBucket_".
  while (buckets_ && walkBucket_ < kBuckets) {
    if (!walkBlock_) {
      walkBlock_ = buckets_[walkBucket_].first;
      walkSlot_ = 0;
      if (!walkBlock_)
        ++walkBucket_;
      continue;
    }
    if (walkSlot_ >= kBlockSlots) {
      walkBlock_ = walkBlock_->next;
      walkSlot_ = 0;
      if (!walkBlock_)
        ++walkBucket_;
      continue;
    }
    Elem const &e = walkBlock_->elem[walkSlot_];
    if (!e.key[0]) {  // past the bucket's last filled slot
      walkBlock_ = nullptr;
      ++walkBucket_;
      continue;
    }
    if (!e.deleted) {
      if (key)
        CopyString(key, e.key, kKeyMax);
      return e.value;
    }
    ++walkSlot_;
  }
  walkBucket_ = kBuckets;
  walkBlock_ = nullptr;
  if (key)
    key[0] = '\0';
  return T();
}

template <class T>
T HashT<T>::first(char *key) {
  walkBucket_ = 0;
  walkBlock_ = nullptr;
  walkSlot_ = 0;
  return WalkToLive(key);
}

template <class T>
T HashT<T>::next(char *key) {
  if (walkBucket_ < kBuckets && walkBlock_)
    ++walkSlot_;
  return WalkToLive(key);
}

template <class T>
T HashT<T>::get_item(char *key) {
  return WalkToLive(key);
}

template <class T>
void HashT<T>::kill() {
  if (buckets_) {
    for (unsigned b = 0; b < kBuckets; ++b) {
      Block *block = buckets_[b].first;
      while (block) {
        if (owns_)
          for (Elem &e : block->elem)
            if (e.key[0] && !e.deleted && e.value != T())
              kill_reg(e.value);
        Block *nextBlock = block->next;
        delete block;
        block = nextBlock;
      }
      buckets_[b] = Bucket();
    }
  }
  slotsUsed_ = 0;
  items_ = 0;
  walkBucket_ = kBuckets;
  walkBlock_ = nullptr;
  walkSlot_ = 0;
}

template <class T>
void HashT<T>::reset() {
  kill();
  AllocBuckets();
}

template class HashT<unsigned>;

Hash_cmd::Hash_cmd(Cmd_str const *table) : HashT<unsigned>(0) {
  if (!table)
    return;
  for (; table->name && table->name[0]; ++table)
    add(table->name, table->code);
}
