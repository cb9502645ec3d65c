// MWPacketFifo.h: the packet buffer of the multi-writer (internal).
//
// Whole packets in arrival order, bounded in bytes: a packet that does not
// fit pushes out the oldest ones, which are counted as dropped. A packet
// larger than the whole capacity is refused. No lock: SockMWBuffs guards it
// with its main lock.
#pragma once

#include <deque>
#include <vector>

namespace shared::detail {

class MWPacketFifo {
public:
  explicit MWPacketFifo(unsigned capacityBytes) : capacity_(capacityBytes) {}

  // False when len exceeds the capacity (nothing is dropped then).
  bool Push(char const *pkt, unsigned len) {
    if (len > capacity_)
      return false;
    while (bytes_ + len > capacity_ && !packets_.empty()) {
      bytes_ -= static_cast<unsigned>(packets_.front().size());
      packets_.pop_front();
      ++dropped_;
    }
    packets_.emplace_back(pkt, pkt + len);
    bytes_ += len;
    return true;
  }
  // Puts a packet ahead of all others (resending); same bound as Push, but
  // the newest packets give way.
  bool PushFront(char const *pkt, unsigned len) {
    if (len > capacity_)
      return false;
    while (bytes_ + len > capacity_ && !packets_.empty()) {
      bytes_ -= static_cast<unsigned>(packets_.back().size());
      packets_.pop_back();
      ++dropped_;
    }
    packets_.emplace_front(pkt, pkt + len);
    bytes_ += len;
    return true;
  }
  bool Empty() const { return packets_.empty(); }
  unsigned FrontSize() const { return packets_.empty() ? 0 : static_cast<unsigned>(packets_.front().size()); }
  std::vector<char> Pop() {
    std::vector<char> p = std::move(packets_.front());
    packets_.pop_front();
    bytes_ -= static_cast<unsigned>(p.size());
    return p;
  }
  void Clear() {
    packets_.clear();
    bytes_ = 0;
  }
  unsigned Bytes() const { return bytes_; }
  unsigned Capacity() const { return capacity_; }
  unsigned Dropped() const { return dropped_; }
  void ResetCounters() { dropped_ = 0; }

private:
  std::deque<std::vector<char>> packets_;
  unsigned bytes_ = 0;
  unsigned const capacity_;
  unsigned dropped_ = 0;
};

}  // namespace shared::detail
