// Helpers of the buffered reader tests: media packets with a time stamp, a
// notifier that records its calls, and non-blocking window reads.
#pragma once

#include "PktTestUtil.h"
#include "sockbuf/ISockBuff.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace readertest {

using pkttest::Bytes;
using pkttest::Get32;

// A media packet of payloadLen (>= 8) bytes whose time stamp (offset 16) is ts.
inline Bytes MediaPkt(std::uint32_t media, std::uint32_t seq, std::uint32_t ts,
                      unsigned payloadLen = 8, unsigned char b11 = 0) {
  Bytes payload(payloadLen, static_cast<unsigned char>(seq));
  for (int i = 0; i < 4; ++i) payload[4 + static_cast<unsigned>(i)] = static_cast<unsigned char>(ts >> (8 * i));
  return pkttest::Pkt(media, seq, payload, 0, b11);
}

inline std::uint32_t SeqOf(Bytes const& p) { return Get32(p.data() + 4); }

// Takes every packet a non-blocking window holds now.
inline std::vector<Bytes> Drain(ISockBuffExt* wnd) {
  std::vector<Bytes> out;
  Bytes buf(70000);
  unsigned n = 0;
  while (wnd != nullptr && wnd->Read(buf.data(), pkttest::Len(buf), &n) == S_OK)
    out.emplace_back(buf.begin(), buf.begin() + n);
  return out;
}

inline std::vector<std::uint32_t> Seqs(std::vector<Bytes> const& pkts) {
  std::vector<std::uint32_t> s;
  for (Bytes const& p : pkts) s.push_back(SeqOf(p));
  return s;
}

// Polls cond until it holds or 10 s pass; the real clock, never the test's.
inline bool WaitFor(std::function<bool()> const& cond) {
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!cond()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Reads a non-blocking window until count packets came or 10 s passed.
inline std::vector<Bytes> ReadN(ISockBuffExt* wnd, std::size_t count) {
  std::vector<Bytes> out;
  WaitFor([&] {
    for (Bytes& p : Drain(wnd)) out.push_back(std::move(p));
    return out.size() >= count;
  });
  return out;
}

class Notifier : public ISockBuffNotify {
 public:
  struct Read {
    unsigned mediaId;
    double percent;
    unsigned flags;
  };
  virtual ~Notifier() = default;
  int NewMediaId(unsigned mediaId, unsigned char, unsigned char) override {
    {
      std::lock_guard<std::mutex> l(mutex_);
      asked.push_back(mediaId);
    }
    // Unlocked: onNew calls back into the reader, whose lock PktRead holds
    // while it takes ours.
    return onNew ? onNew(mediaId) : 0;
  }
  void PktRead(unsigned long cookie, unsigned mediaId, double percent, unsigned flags) override {
    {
      std::lock_guard<std::mutex> l(mutex_);
      lastCookie = cookie;
      reads.push_back({mediaId, percent, flags});
    }
    if (onRead) onRead();
  }
  void EndOfStream() override {
    std::lock_guard<std::mutex> l(mutex_);
    ++ends;
  }
  std::vector<Read> Reads() {
    std::lock_guard<std::mutex> l(mutex_);
    return reads;
  }
  int Ends() {
    std::lock_guard<std::mutex> l(mutex_);
    return ends;
  }

  std::function<int(unsigned)> onNew;  // set before the reader runs
  std::function<void()> onRead;        // likewise
  std::vector<unsigned> asked;
  std::vector<Read> reads;
  unsigned long lastCookie = 0;
  int ends = 0;

 private:
  std::mutex mutex_;
};

}  // namespace readertest
