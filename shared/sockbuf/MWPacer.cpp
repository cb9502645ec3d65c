#include "sockbuf/MWPacer.h"

#include <algorithm>
#include <cstdint>
#include <numeric>

namespace {
// How late a packet may leave and still keep its due time: at least the
// millisecond tick plus a usual wake-up's lateness, and up to one slot, so a
// writer kept from the CPU on a busy machine makes its time up instead of
// losing rate. Later than that the time is given up. The catch-up is no
// burst: the window total bounds each window, and the writer lets no more
// than a slot's budget plus one packet out in any slot-long span.
constexpr unsigned long long kMinLateUs = 4000;
}  // namespace

MWPacer::MWPacer(unsigned slots, unsigned long windowMs, bool perMsPacing)
    : ring_(slots, 0u), perMs_(perMsPacing), windowMs_(windowMs) {
  if (windowMs_ < slots)
    windowMs_ = slots;
  if (windowMs_ == 0)
    windowMs_ = kDefaultWindowMs;
  slotMs_ = slots ? windowMs_ / slots : 0;
}

void MWPacer::SetRate(unsigned kbps) {
  kbps_ = kbps;
  bytesPerSecond_ = static_cast<unsigned>(static_cast<std::uint64_t>(kbps) * 1024u / 8u);
  windowBytes_ = static_cast<unsigned>(static_cast<std::uint64_t>(windowMs_) * bytesPerSecond_ / 1000u);
  bytesPerMs_ = (bytesPerSecond_ + 999u) / 1000u;
  if (bytesPerMs_ == 0)
    bytesPerMs_ = 1;
  slotBytes_ = ring_.empty() ? 0 : windowBytes_ / Slots();
}

int MWPacer::SetWindow(unsigned long ms) {
  if (ms == 0 || ring_.empty() || ms < Slots() || kbps_ == 0)
    return 0;
  windowMs_ = ms;
  slotMs_ = ms / Slots();
  SetRate(kbps_);
  Clear();
  return 1;
}

void MWPacer::Clear() {
  std::fill(ring_.begin(), ring_.end(), 0u);
  total_ = 0;
  start_ = 0;
  dueUs_ = 0;
  slotLimit_ = false;
}

void MWPacer::Restart(unsigned long nowMs) {
  Clear();
  start_ = nowMs;
  dueUs_ = static_cast<unsigned long long>(nowMs) * 1000u;
}

unsigned long long MWPacer::PktUs(unsigned len) const {
  return (static_cast<unsigned long long>(len) * 1000000u + bytesPerSecond_ - 1) / bytesPerSecond_;
}

// A window that is not a multiple of the slot duration leaves a short tail
// after the last full slot; it belongs to the last slot.
unsigned MWPacer::SlotOf(unsigned long t) const {
  unsigned long i = (t % windowMs_) / slotMs_;
  return i < Slots() ? static_cast<unsigned>(i) : Slots() - 1;
}

bool MWPacer::Advance(unsigned long nowMs) {
  if (nowMs < start_ || nowMs - start_ >= windowMs_) {
    Restart(nowMs);
    return true;
  }
  unsigned const cur = SlotOf(nowMs);
  unsigned const first = SlotOf(start_);
  if (cur != first) {
    for (unsigned i = cur; i != first; i = Prev(i))
      ring_[i] = 0;
    total_ = std::accumulate(ring_.begin(), ring_.end(), 0u);
  }
  return false;
}

int MWPacer::CanSendPkt(unsigned len, unsigned long nowMs, unsigned *waitMs) {
  if (waitMs)
    *waitMs = 0;
  if (len == 0)
    return 0;
  if (kbps_ == 0 || ring_.empty())
    return nowMs != 0 ? 1 : 0;
  if (Advance(nowMs))
    return 1;
  unsigned const cur = SlotOf(nowMs);
  bool ok;
  if (static_cast<std::uint64_t>(total_) + len > windowBytes_)
    ok = false;
  else if (perMs_)
    // The packet goes once the time since the last one was due covers its
    // bytes. The exact byte rate, not the rounded-up bytes per ms, which runs
    // up to 10% fast at low rates and lets the window total cut in bursts.
    ok = static_cast<unsigned long long>(nowMs) * 1000u >= dueUs_ + PktUs(len);
  else
    // A slot takes packets until it holds its budget, so the last one may
    // overrun it by less than a packet: a strict cut would lose up to a
    // packet per slot and never pass a packet larger than a slot.
    ok = !(slotLimit_ && ring_[cur] >= slotBytes_);
  if (!ok && waitMs)
    *waitMs = AdviseWait(len, nowMs, cur);
  return ok ? 1 : 0;
}

unsigned MWPacer::AdviseWait(unsigned len, unsigned long nowMs, unsigned cur) const {
  if (perMs_) {
    std::uint64_t need = len / bytesPerMs_;
    std::uint64_t elapsed = nowMs - dueUs_ / 1000u;
    return need > elapsed ? static_cast<unsigned>(need - elapsed) : 0u;
  }
  // The k newest slots plus the packet exceed the window: the k-th newest
  // must leave the ring, which happens slots - k slot boundaries after the
  // next one.
  std::uint64_t sum = len;
  unsigned k = 0;
  for (unsigned i = cur; k < Slots(); i = Prev(i)) {
    sum += ring_[i];
    ++k;
    if (sum > windowBytes_) {
      unsigned long wait = slotMs_ - nowMs % slotMs_ + slotMs_ * (Slots() - k);
      return static_cast<unsigned>(wait ? wait : slotMs_);
    }
  }
  return static_cast<unsigned>(slotMs_);
}

unsigned long MWPacer::DueMs(unsigned len) const {
  if (!perMs_ || kbps_ == 0 || ring_.empty())
    return 0;
  return static_cast<unsigned long>((dueUs_ + PktUs(len) + 999u) / 1000u);
}

void MWPacer::Count(unsigned len, unsigned long nowMs) {
  if (ring_.empty() || kbps_ == 0)
    return;
  Advance(nowMs);
  ring_[SlotOf(nowMs)] += len;
  total_ += len;
  start_ = nowMs;
  slotLimit_ = true;
  // The next packet is measured from when this one was due. Never from later
  // than now (a packet let through by a restart runs no debt), and never from
  // more than a slot before now, so a long stall is not made up.
  unsigned long long const nowUs = static_cast<unsigned long long>(nowMs) * 1000u;
  unsigned long long const lateUs = std::max(kMinLateUs, static_cast<unsigned long long>(slotMs_) * 1000u);
  unsigned long long const due = dueUs_ + PktUs(len);
  dueUs_ = std::clamp(due, nowUs >= lateUs ? nowUs - lateUs : 0ull, nowUs);
}
