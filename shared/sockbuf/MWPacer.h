// MWPacer.h: the pacing ring of the multi-writer buffers (SockMWBuffs).
//
// A ring of `slots` byte counters covers one pacing window of windowMs
// milliseconds; slot i counts the bytes sent while (t mod window) / slotMs
// was i. The running total is the bytes of the last window. CanSendPkt says
// whether a packet may go now and, if not, how long to wait.
//
//   window (windowMs) ----------------------------------------------+
//   | slot 0 | slot 1 | ... | slot cur | ... | slot slots-1 |       |
//   +--------+--------+-----+----------+-----+--------------+  ring_, total_
//
// The window's start (start_) is the time of the last restart or of the last
// packet counted. Slots between its slot and the current one were not
// written since, so they hold bytes one lap old and are cleared when the
// ring is consulted; a check a whole window (or more) after it, or before
// it (the tick count went back), restarts the ring. See docs/multiwriter.md.
//
// Per-millisecond pacing measures from the time the last packet was due
// (dueUs_), not from when it actually left, so tick rounding and late
// wake-ups do not add up into a rate shortfall.
//
// No lock: the owner serialises every call (SockMWBuffs holds its main lock).
// Times are milliseconds of the caller's clock, passed in explicitly.
#pragma once

#include "platform/Export.h"

#include <vector>

class SHAREDLIB_API MWPacer {
public:
  static constexpr unsigned long kDefaultWindowMs = 1000;

  // windowMs is raised to slots when smaller, and is kDefaultWindowMs when
  // it ends up 0. No rate is set: the pacer is unpaced until SetRate.
  MWPacer(unsigned slots, unsigned long windowMs, bool perMsPacing);

  // 1 when the ring exists (slots > 0).
  int IsOk() const { return ring_.empty() ? 0 : 1; }

  // Recomputes the pacing state for kbps (0: unpaced). Keeps the ring.
  void SetRate(unsigned kbps);
  // 1 when ms is non-zero, at least slots and a rate is set; the slot
  // duration becomes ms / slots. Otherwise 0 and nothing changes.
  int SetWindow(unsigned long ms);

  // 1 when a packet of len bytes may go at nowMs; 0 with *waitMs (when not
  // null) the advised wait in ms. Does not count the packet: see Count.
  int CanSendPkt(unsigned len, unsigned long nowMs, unsigned *waitMs);
  // Per-millisecond pacing: the first tick at which the time since the last
  // packet was due covers len bytes (the writer sleeps until then). 0 when
  // that pacing is off or no rate is set.
  unsigned long DueMs(unsigned len) const;
  // The sending path: adds len bytes sent at nowMs to its slot and the
  // running total, makes nowMs the window's start and arms the slot limit.
  void Count(unsigned len, unsigned long nowMs);
  // Zeroes the ring, the total, the slot-limit flag and the window's start.
  void Clear();

  unsigned Kbps() const { return kbps_; }
  unsigned BytesPerSecond() const { return bytesPerSecond_; }
  unsigned WindowBytes() const { return windowBytes_; }
  unsigned BytesPerMs() const { return bytesPerMs_; }
  unsigned SlotBytes() const { return slotBytes_; }
  unsigned long SlotMs() const { return slotMs_; }
  unsigned long WindowMs() const { return windowMs_; }
  unsigned Slots() const { return static_cast<unsigned>(ring_.size()); }
  unsigned Total() const { return total_; }
  unsigned long WindowStart() const { return start_; }
  bool SlotLimit() const { return slotLimit_; }
  unsigned SlotCount(unsigned i) const { return i < ring_.size() ? ring_[i] : 0; }

private:
  void Restart(unsigned long nowMs);
  // Steps that bring the ring up to nowMs: a restart, or clearing the slots
  // entered since the window's start. True when the ring was restarted.
  bool Advance(unsigned long nowMs);
  unsigned SlotOf(unsigned long t) const;
  unsigned Prev(unsigned i) const { return i == 0 ? Slots() - 1 : i - 1; }
  unsigned AdviseWait(unsigned len, unsigned long nowMs, unsigned cur) const;
  // Microseconds len bytes take at the exact byte rate.
  unsigned long long PktUs(unsigned len) const;

  std::vector<unsigned> ring_;
  unsigned total_ = 0;
  unsigned long start_ = 0;
  bool slotLimit_ = false;
  // Per-ms pacing: when the last packet was due, in microseconds.
  unsigned long long dueUs_ = 0;
  bool const perMs_;
  unsigned long windowMs_;
  unsigned long slotMs_ = 0;
  unsigned kbps_ = 0;
  unsigned bytesPerSecond_ = 0;
  unsigned windowBytes_ = 0;
  unsigned bytesPerMs_ = 0;
  unsigned slotBytes_ = 0;
};
