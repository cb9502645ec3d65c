// Packets and a register owner for the stream register tests.
#pragma once

#include "sockbuf/ISockBufOwner.h"
#include "sockbuf/ISockBuff.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

namespace pkttest {

using Bytes = std::vector<unsigned char>;

inline void Put32(Bytes& b, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

inline std::uint32_t Get32(unsigned char const* p) {
  return p[0] | p[1] << 8 | p[2] << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

// A media packet: the 12-byte header (little-endian), then payload.
inline Bytes Pkt(std::uint32_t media, std::uint32_t seq, Bytes const& payload, unsigned char b10 = 0,
                 unsigned char b11 = 0) {
  Bytes b;
  Put32(b, media);
  Put32(b, seq);
  b.push_back(static_cast<unsigned char>(payload.size()));
  b.push_back(static_cast<unsigned char>(payload.size() >> 8));
  b.push_back(b10);
  b.push_back(b11);
  b.insert(b.end(), payload.begin(), payload.end());
  return b;
}

// A packet of n payload bytes, each the low byte of seq.
inline Bytes Pkt(std::uint32_t media, std::uint32_t seq, unsigned n = 4) {
  return Pkt(media, seq, Bytes(n, static_cast<unsigned char>(seq)));
}

inline unsigned Len(Bytes const& b) { return static_cast<unsigned>(b.size()); }

// Records what registers forward to it.
class PacketSink : public ISockBuffExt {
 public:
  virtual ~PacketSink() = default;
  int OpenUrl() override { return 1; }
  int CloseUrl() override { return 1; }
  int IsOpened() override { return 1; }
  HRESULT __stdcall WriteExt(void const* buf, unsigned len, unsigned* pWritten, int flag) override {
    std::lock_guard<std::mutex> lock(mutex_);
    auto const* p = static_cast<unsigned char const*>(buf);
    packets_.emplace_back(p, p + len);
    flags_.push_back(flag);
    if (pWritten)
      *pWritten = len;
    return S_OK;
  }
  std::vector<Bytes> Packets() {
    std::lock_guard<std::mutex> lock(mutex_);
    return packets_;
  }
  std::vector<int> Flags() {
    std::lock_guard<std::mutex> lock(mutex_);
    return flags_;
  }

 private:
  std::mutex mutex_;
  std::vector<Bytes> packets_;
  std::vector<int> flags_;
};

class FakeOwner : public ISockBufOwner {
 public:
  virtual ~FakeOwner() = default;
  int OpenUrl() override {
    ++opens;
    return openResult.load();
  }
  int VerifyConnection() override {
    ++verifies;
    return 1;
  }
  ISockBuffExt* GetPktMWObj() override { return writer; }
  int IsSockError() override { return sockError.load(); }

  std::atomic<int> opens{0};
  std::atomic<int> verifies{0};
  std::atomic<int> openResult{1};
  std::atomic<int> sockError{0};
  ISockBuffExt* writer = nullptr;
};

}  // namespace pkttest
