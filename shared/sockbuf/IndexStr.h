// IndexStr.h: the seek table at the head of a recorded stream file.
//
// Block layout at offset 0 of the file (integers little-endian), followed by
// the recorded packets back to back:
//
//   0    21            85        89        93       97
//   +----+-------------+---------+---------+--------+--------------------+
//   | tag| version     | checksum| capacity| count  | capacity x offset  |
//   +----+-------------+---------+---------+--------+--------------------+
//   tag:     "IPTV-AVCONF" padded with spaces to 20, then NUL
//   version: "1.0.0.0" padded with spaces to 63, then NUL
//   checksum: Adler-32 started from 0 (not 1) over tag, version, capacity,
//             count and the index entries, in that order
//
// Entries are file offsets of packet starts spread evenly over the file;
// unused entries are 0.
//
// Threads: no lock; one thread at a time per object. Descriptors are the
// file layer's (file/FilePrimitives.h).
#pragma once

#include "platform/Export.h"

#include <cstdint>

class SHAREDLIB_API IndexStr {
 public:
  static constexpr unsigned kMaxIndexes = 1000;
  static constexpr unsigned kTagLen = 21;
  static constexpr unsigned kVersionLen = 64;
  static constexpr unsigned kFixedLen = 97;  // bytes before the entries

  // n is capped at 1000.
  explicit IndexStr(unsigned n);

  void reset();
  // 1 when appended, 0 when the table is full.
  int AddIndex(unsigned offset);
  // Entry i, 0 when i >= count.
  unsigned GetIndex(unsigned i) const;
  unsigned GetnIndex() const { return count_; }
  // Repeats the last entry up to the capacity (when 0 < count < capacity);
  // returns the count.
  unsigned FillIndexes();
  // Writes the block at offset 0 of fd; 1 when all of it was written.
  int SaveIndexes(int fd);
  // Reads and checks the block at offset 0 of fd; 1 when it is valid. A
  // block that fails any check leaves the table reset.
  int ReadIndexes(int fd);
  // Rebuilds the entries of a finished recording by walking its packets,
  // and writes the block back into the file. 1 on success.
  int CreateIndexes(char const* fileName);

  unsigned GetBlockSize() const { return blockSize_; }
  unsigned GetCapacity() const { return capacity_; }
  std::uint32_t GetChecksum() const { return checksum_; }

 private:
  std::uint32_t ComputeChecksum() const;
  // The block as it lies in the file; returns its length.
  unsigned Serialize(unsigned char* out) const;

  char tag_[kTagLen];
  char version_[kVersionLen];
  std::uint32_t checksum_ = 0;
  std::uint32_t capacity_ = 0;
  std::uint32_t count_ = 0;
  std::uint32_t indexes_[kMaxIndexes];
  unsigned const configured_;
  unsigned const blockSize_;
};
