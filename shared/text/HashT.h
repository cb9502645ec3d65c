// HashT.h: a small case-insensitive hash table from text keys to values, and
// Hash_cmd, the hashed index over a keyword table.
//
// 97 buckets; each bucket is a chain of blocks of 5 element slots. Keys are
// stored as given (cut to 63 characters) and compared ignoring case. Adding
// never checks for an existing key: a key added twice is stored twice and
// search finds the older element. Erased elements are only marked deleted;
// their slots are reused by later adds in the same bucket, and blocks are
// freed only by kill/reset/destruction.
//
//   bucket[formula(key)] --> block --> block --> ... (last)
//                            [5 slots | next | deleted count]
//
// Not locked. A table that is filled once and then only searched (Hash_cmd)
// may be searched by several threads at once: search does not touch the
// iteration position. Iteration (first/next/get_item) and changes need one
// thread at a time.
//
// When owns is set, erase and kill pass every released non-zero value to the
// virtual kill_reg. The base destructor runs kill() when the derived part is
// already gone, so a derived class that releases values in kill_reg calls
// kill() from its own destructor.
#pragma once

#include "platform/Export.h"
#include "text/CmdTables.h"

template <class T>
struct HashT_elem {
  char key[64];  // as given, NUL-terminated; "" marks a slot never filled
  int deleted;   // non-zero once erased, until the slot is reused
  T value;
};

template <class T>
struct HashT_block {
  HashT_elem<T> elem[5];
  HashT_block *next;
  int ndeleted;  // deleted elements in this block
};

template <class T>
struct HashT_bucket {
  unsigned nrecs;     // slots filled, deleted ones included
  unsigned ndeleted;  // of those, how many are deleted
  HashT_block<T> *first;
  HashT_block<T> *last;
};

template <class T>
class SHAREDLIB_API HashT {
public:
  static constexpr unsigned kBuckets = 97;
  static constexpr unsigned kBlockSlots = 5;
  static constexpr unsigned kKeyMax = 63;  // characters kept of a key

  HashT();
  explicit HashT(int owns);
  HashT(HashT const &) = delete;
  HashT &operator=(HashT const &) = delete;

  // Releases a value (erase with owns set, kill). Does nothing here.
  virtual void kill_reg(T value);
  virtual ~HashT();

  // 1 when stored; 0 for a null or empty key or when memory runs out.
  int add(char const *key, T value);
  // Value of the first live element whose key equals key ignoring case (keys
  // compare on their first 63 characters); T() when none.
  T search(char const *key) const;
  // Mark the first live match deleted; 1 when one was found. erase also
  // passes the value to kill_reg when owns is set; remove never does.
  int erase(char const *key);
  int remove(char const *key);

  // Slots filled in a bucket and, through deleted (may be null), how many of
  // them are deleted; 0 for bucket >= 97.
  unsigned get_nrecs(unsigned bucket, unsigned *deleted) const;

  // Iteration over live elements, bucket by bucket and in slot order. Each
  // copies the element's key into key (64 bytes, may be null) and returns its
  // value; at the end key is "" and the result T(). first starts over, next
  // moves on, get_item answers the current element again.
  T first(char *key);
  T next(char *key);
  T get_item(char *key);

  unsigned get_nitens() const { return items_; }   // live elements
  unsigned count() const { return slotsUsed_; }    // slots ever filled

  // kill frees every block (releasing owned values) and leaves the table
  // empty; reset does the same and starts the iteration over.
  void kill();
  void reset();

  // Bucket of a key: upper-cased and cut to 63 characters; with its length
  // len and the characters taken as signed bytes in unsigned arithmetic,
  // 0 for len 0, 8*c0 for len 1, else c0 + 3*c1 + 11*c[len-2] + 7*c[len-1];
  // all mod 97.
  static unsigned formula(char const *key);

private:
  using Elem = HashT_elem<T>;
  using Block = HashT_block<T>;
  using Bucket = HashT_bucket<T>;

  void AllocBuckets();
  // First live element matching key, with its block; null when none.
  Elem *Find(char const *key, Block **block) const;
  int Erase(char const *key, bool release);
  // Moves the walk position forward to a live element (or the end) and
  // answers it.
  T WalkToLive(char *key);

  Bucket *buckets_;
  unsigned walkBucket_;  // kBuckets once the walk is over
  Block *walkBlock_;
  unsigned walkSlot_;
  unsigned slotsUsed_;
  unsigned items_;
  int owns_;
};

extern template class HashT<unsigned>;

// Case-insensitive keyword-to-code index over a Cmd_str table: one hash and a
// short scan of one bucket per look-up. Built once, then searched only.
class SHAREDLIB_API Hash_cmd : public HashT<unsigned> {
public:
  // Adds every row up to the first one with an empty name; null adds none.
  explicit Hash_cmd(Cmd_str const *table);
};
