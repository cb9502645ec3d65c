#include "sockbuf/IndexStr.h"

#include "file/FilePrimitives.h"
#include "services/Adler32.h"
#include "sockbuf/SockBuf_reg.h"
#include "sockbuf/detail/MediaPkt.h"
#include "text/TextRoutines.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

namespace pkt = shared::sockbuf::detail;

constexpr char kTag[] = "IPTV-AVCONF";
constexpr char kVersion[] = "1.0.0.0";
constexpr unsigned kChunk = 0xFFFF;

// All n bytes or failure, whatever the file layer hands back per call.
bool ReadAll(int fd, unsigned char* buf, unsigned n) {
  while (n != 0) {
    int const got = read_x(fd, buf, n);
    if (got <= 0)
      return false;
    buf += got;
    n -= static_cast<unsigned>(got);
  }
  return true;
}

bool WriteAll(int fd, unsigned char const* buf, unsigned n) {
  while (n != 0) {
    int const put = write_x(fd, buf, n);
    if (put <= 0)
      return false;
    buf += put;
    n -= static_cast<unsigned>(put);
  }
  return true;
}

// The field without its surrounding blanks equals want.
bool FieldIs(char const* field, unsigned len, char const* want) {
  std::vector<char> text(field, field + len);
  text.push_back('\0');
  strim(text.data(), text.data());
  return std::strcmp(text.data(), want) == 0;
}

}  // namespace

IndexStr::IndexStr(unsigned n)
    : configured_(std::min(n, kMaxIndexes)), blockSize_(configured_ * 4 + kFixedLen) {
  reset();
}

void IndexStr::reset() {
  ajusta_string(kTag, kTagLen - 1, 'E', tag_);
  ajusta_string(kVersion, kVersionLen - 1, 'E', version_);
  std::memset(indexes_, 0, sizeof indexes_);
  capacity_ = configured_;
  count_ = 0;
  checksum_ = 0;
}

int IndexStr::AddIndex(unsigned offset) {
  if (count_ >= capacity_)
    return 0;
  indexes_[count_++] = offset;
  return 1;
}

unsigned IndexStr::GetIndex(unsigned i) const { return i < count_ ? indexes_[i] : 0; }

unsigned IndexStr::FillIndexes() {
  if (count_ > 0 && count_ < capacity_) {
    std::fill(indexes_ + count_, indexes_ + capacity_, indexes_[count_ - 1]);
    count_ = capacity_;
  }
  return count_;
}

unsigned IndexStr::Serialize(unsigned char* out) const {
  std::memcpy(out, tag_, kTagLen);
  std::memcpy(out + 21, version_, kVersionLen);
  pkt::PutLe32(out + 85, checksum_);
  pkt::PutLe32(out + 89, capacity_);
  pkt::PutLe32(out + 93, count_);
  for (unsigned i = 0; i < capacity_; ++i)
    pkt::PutLe32(out + kFixedLen + 4 * i, indexes_[i]);
  return kFixedLen + 4 * capacity_;
}

std::uint32_t IndexStr::ComputeChecksum() const {
  unsigned char block[kFixedLen + 4 * kMaxIndexes];
  unsigned const len = Serialize(block);
  // Deliberately from 0, and skipping the checksum field itself.
  std::uint32_t sum = adler32(0, block, 85);
  return adler32(sum, block + 89, len - 89);
}

int IndexStr::SaveIndexes(int fd) {
  checksum_ = ComputeChecksum();
  if (seek_x(nullptr, fd, 0, SEEK_SET) != 0)
    return 0;
  unsigned char block[kFixedLen + 4 * kMaxIndexes];
  unsigned const len = Serialize(block);
  return WriteAll(fd, block, len) && capacity_ != 0 ? 1 : 0;
}

int IndexStr::ReadIndexes(int fd) {
  if (fd == -1 || seek_x(nullptr, fd, 0, SEEK_SET) != 0)
    return 0;
  reset();
  unsigned char head[kFixedLen];
  bool ok = ReadAll(fd, head, kFixedLen);
  std::uint32_t const stored = ok ? pkt::Le32(head + 85) : 0;
  std::uint32_t const capacity = ok ? pkt::Le32(head + 89) : 0;
  std::uint32_t const count = ok ? pkt::Le32(head + 93) : 0;
  // The capacity is checked before any entry is read: the table holds 1000.
  ok = ok && capacity >= 1 && capacity <= kMaxIndexes;
  unsigned char entries[4 * kMaxIndexes];
  ok = ok && ReadAll(fd, entries, 4 * capacity);
  if (ok) {
    std::memcpy(tag_, head, kTagLen);
    std::memcpy(version_, head + 21, kVersionLen);
    capacity_ = capacity;
    count_ = count;
    for (unsigned i = 0; i < capacity; ++i)
      indexes_[i] = pkt::Le32(entries + 4 * i);
    ok = FieldIs(tag_, kTagLen, kTag) && FieldIs(version_, kVersionLen, kVersion) && count <= capacity &&
         ComputeChecksum() == stored;
  }
  if (!ok) {
    reset();
    return 0;
  }
  checksum_ = stored;
  return 1;
}

int IndexStr::CreateIndexes(char const* fileName) {
  reset();
  unsigned const fileLen = fileName ? GetFileLength(fileName) : 0;
  if (fileLen <= blockSize_)
    return 0;
  int const fd = open_ap(fileName, nullptr, O_RDWR, 0);
  if (fd == -1)
    return 0;
  int result = 0;
  if (seek_x(nullptr, fd, blockSize_, SEEK_SET) == blockSize_) {
    // Room for a packet cut at the end of one chunk plus the next chunk.
    SockBuf_reg cutter(pkt::kMaxPacketLen + kChunk, 0);
    cutter.SetBlock(0);
    cutter.OpenUrl();
    std::vector<unsigned char> chunk(kChunk);
    std::vector<unsigned char> packet(pkt::kMaxPacketLen);
    unsigned const step = std::max(1u, fileLen / std::max(1u, capacity_));
    std::uint64_t mark = 0;
    std::uint64_t offset = blockSize_;  // where the next packet starts
    for (;;) {
      int const got = read_x(fd, chunk.data(), kChunk);
      if (got <= 0 || !cutter.SaveData(chunk.data(), static_cast<unsigned>(got)))
        break;
      for (;;) {
        unsigned len = pkt::kMaxPacketLen;
        if (!cutter.GetData(packet.data(), &len))
          break;
        if (offset >= mark) {
          AddIndex(static_cast<unsigned>(offset));
          mark += step;
        }
        offset += len;
      }
    }
    result = SaveIndexes(fd);
  }
  close_x(fd);
  return result;
}
