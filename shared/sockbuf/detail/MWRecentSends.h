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
// Times are microseconds of the monotonic clock (TickMicros), taken after
// each send completed, so a span of sends never looks shorter than it was. A
// send counts while it is younger than the span: whole-millisecond ticks
// would have to hold it for span + 1 ticks to be safe, which caps a writer
// that is always ready at span / (span + 1) of its rate (1% at 100 ms). A
// time in the future (the clock went back) no longer counts.
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
    spanUs_ = std::uint64_t{spanMs} * 1000;
    budget_ = budget;
  }

  // 0 when a packet may go at nowUs, else the microseconds until it may.
  std::uint64_t WaitUs(std::uint64_t nowUs) {
    if (spanUs_ == 0 || budget_ == 0)
      return 0;
    Expire(nowUs);
    if (bytes_ <= budget_)
      return 0;
    // The oldest sends leave the span one by one; the one whose leaving
    // brings the rest within the budget decides.
    unsigned long long rest = bytes_;
    for (auto const &s : sends_) {
      rest -= s.second;
      if (rest <= budget_)
        return s.first + spanUs_ - nowUs;
    }
    return spanUs_;  // not reached: rest ends at 0
  }

  void Add(std::uint64_t nowUs, unsigned len) {
    if (spanUs_ == 0 || budget_ == 0 || len == 0)
      return;
    Expire(nowUs);
    sends_.emplace_back(nowUs, len);
    bytes_ += len;
  }

  void Clear() {
    sends_.clear();
    bytes_ = 0;
  }

  unsigned long long Bytes() const { return bytes_; }

private:
  void Expire(std::uint64_t nowUs) {
    if (!sends_.empty() && sends_.back().first > nowUs)
      Clear();  // the clock went back
    while (!sends_.empty() && nowUs - sends_.front().first >= spanUs_) {
      bytes_ -= sends_.front().second;
      sends_.pop_front();
    }
  }

  std::deque<std::pair<std::uint64_t, unsigned>> sends_;
  unsigned long long bytes_ = 0;
  std::uint64_t spanUs_ = 0;
  unsigned budget_ = 0;
};

// The writer's decision for a packet of len bytes at nowMs (the tick count)
// and nowUs (the same moment in microseconds): 0 when it may go now (the
// caller then counts it in the pacer, and in recent once sent), else the
// microseconds to sleep before asking again. The pacing decides in whole
// ticks, so its waits are whole milliseconds (at least one); the recent
// sends' wait is exact: rounded up to a tick, every wait for the span to
// move would be lost for good at a rate the slot limit leaves no room to
// make up.
inline std::uint64_t MWWriterWaitUs(MWPacer &pacer, MWRecentSends &recent, unsigned len, unsigned long nowMs,
                                    std::uint64_t nowUs) {
  unsigned advice = 0;
  if (pacer.CanSendPkt(len, nowMs, &advice)) {
    // The pacing lets it go; the last slot's sends may still hold it back
    // (never longer than the span), so a late writer does not let a run out
    // together.
    return recent.WaitUs(nowUs);
  }
  if (unsigned long const due = pacer.DueMs(len); due > nowMs) {
    // The exact tick the per-millisecond rule passes: the advice, in whole
    // rounded-up bytes per ms, runs early and would cost idle wake-ups.
    advice = std::max(advice, static_cast<unsigned>(due - nowMs));
  }
  // Never past the next slot boundary, where slots expire.
  unsigned long const slot = pacer.SlotMs();
  unsigned const toBoundary = slot ? static_cast<unsigned>(slot - nowMs % slot) : advice;
  return std::uint64_t{std::max(1u, std::min(advice, toBoundary))} * 1000;
}

}  // namespace shared::detail
