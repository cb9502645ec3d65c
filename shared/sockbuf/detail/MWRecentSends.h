// MWRecentSends.h: the bytes the multi-writer let out in the last span
// (internal).
//
// The pacing ring bounds each window, and per-millisecond pacing spreads a
// slot's budget; neither stops a late writer from letting a run of packets
// out together once it wakes. The writer therefore also keeps the packets
// it sent in the trailing span (one slot) and lets the next one go only
// while they hold at most the budget (one slot's bytes): so no span carries
// more than the budget plus one packet.
//
//   sends_: (tick, bytes) oldest first ... newest     bytes_ = their sum
//           <---------------- span ---------------->| now
//
// Times are the tick count, taken after each send completed, so a span of
// sends never looks shorter than it was. Ticks are whole milliseconds: a
// send stamped n - span may have left less than span ms before one decided
// at tick n, so it still counts then (span + 1 ticks are held). Differences are 32-bit, so the wrap
// of the tick count is harmless; a tick older than the span or in the future
// (the clock went back) no longer counts.
//
// No lock: SockMWBuffs serialises every call under its main lock.
#pragma once

#include "sockbuf/MWPacer.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <utility>

namespace shared::detail {

class MWRecentSends {
public:
  // spanMs 0 or budget 0: no limit. Forgets nothing already recorded.
  void SetLimit(unsigned long spanMs, unsigned budget) {
    span_ = static_cast<std::uint32_t>(spanMs);
    budget_ = budget;
  }

  // 0 when a packet may go at nowMs, else the ms until it may.
  unsigned WaitMs(unsigned long nowMs) {
    if (span_ == 0 || budget_ == 0)
      return 0;
    Expire(nowMs);
    if (bytes_ <= budget_)
      return 0;
    // The oldest sends leave the span one by one; the one whose leaving
    // brings the rest within the budget decides.
    unsigned long long rest = bytes_;
    for (auto const &s : sends_) {
      rest -= s.second;
      if (rest <= budget_)
        return span_ + 1 - Age(s.first, nowMs);
    }
    return span_;  // not reached: rest ends at 0
  }

  void Add(unsigned long nowMs, unsigned len) {
    if (span_ == 0 || budget_ == 0 || len == 0)
      return;
    Expire(nowMs);
    sends_.emplace_back(static_cast<std::uint32_t>(nowMs), len);
    bytes_ += len;
  }

  void Clear() {
    sends_.clear();
    bytes_ = 0;
  }

  unsigned long long Bytes() const { return bytes_; }

private:
  static std::uint32_t Age(std::uint32_t t, unsigned long nowMs) { return static_cast<std::uint32_t>(nowMs) - t; }

  void Expire(unsigned long nowMs) {
    while (!sends_.empty() && Age(sends_.front().first, nowMs) > span_) {
      bytes_ -= sends_.front().second;
      sends_.pop_front();
    }
  }

  std::deque<std::pair<std::uint32_t, unsigned>> sends_;
  unsigned long long bytes_ = 0;
  std::uint32_t span_ = 0;
  unsigned budget_ = 0;
};

// The writer's decision for a packet of len bytes at nowMs: 0 when it may go
// now (the caller then counts it in the pacer, and in recent once sent), else
// the ms to sleep before asking again.
inline unsigned MWWriterWaitMs(MWPacer &pacer, MWRecentSends &recent, unsigned len, unsigned long nowMs) {
  unsigned advice = 0;
  if (pacer.CanSendPkt(len, nowMs, &advice)) {
    // The pacing lets it go; the last slot's sends may still hold it back,
    // so a late writer does not let a run out together.
    advice = recent.WaitMs(nowMs);
    if (advice == 0)
      return 0;
  } else if (unsigned long const due = pacer.DueMs(len); due > nowMs) {
    // The exact tick the per-millisecond rule passes: the advice, in whole
    // rounded-up bytes per ms, runs early and would cost idle wake-ups.
    advice = std::max(advice, static_cast<unsigned>(due - nowMs));
  }
  // Never past the next slot boundary, where slots expire.
  unsigned long const slot = pacer.SlotMs();
  unsigned const toBoundary = slot ? static_cast<unsigned>(slot - nowMs % slot) : advice;
  return std::max(1u, std::min(advice, toBoundary));
}

}  // namespace shared::detail
