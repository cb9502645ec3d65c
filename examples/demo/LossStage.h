// LossStage.h: the sender's optional loss and reorder stage, so that the
// receiver's ordering and defragmenting windows have work to do.
//
// Fragments pass through Push in sending order. With the loss rate a
// fragment is dropped (and the frame it belongs to remembered as damaged);
// with the reorder rate it is held back and sent right after the next
// fragment of the same media. Decisions come from a seeded generator, so a
// run can be repeated. Flush sends whatever is held.
//
// Not locked: one thread (the demo's sending loop) uses it.
#pragma once

#include "DemoMedia.h"

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <utility>

class SockMWBuffs;

namespace demo {

// Where fragments go after the stage.
class IFragmentSink {
public:
  virtual bool Send(Bytes const &fragment) = 0;

protected:
  ~IFragmentSink() = default;
};

class LossStage {
public:
  // Rates in [0, 1].
  LossStage(IFragmentSink &out, double lossRate, double reorderRate, std::uint32_t seed);

  // Fragment layout: media id at 0, frame number at 12 (the fragment header).
  void Push(Bytes const &fragment);
  void Flush();
  // Bypass: Push sends everything unchanged from now on (the tail of a run).
  void Bypass() {
    Flush();
    bypass_ = true;
  }

  unsigned Dropped() const { return dropped_; }
  unsigned Reordered() const { return reordered_; }
  unsigned SendFailures() const { return failures_; }
  bool Damaged(std::uint32_t media, std::uint32_t frame) const {
    return damaged_.count({media, frame}) != 0;
  }

private:
  void Out(Bytes const &fragment);

  IFragmentSink &out_;
  std::bernoulli_distribution loss_;
  std::bernoulli_distribution reorder_;
  std::mt19937 gen_;
  bool bypass_ = false;
  std::map<std::uint32_t, Bytes> held_;  // per media, at most one fragment
  std::set<std::pair<std::uint32_t, std::uint32_t>> damaged_;
  unsigned dropped_ = 0;
  unsigned reordered_ = 0;
  unsigned failures_ = 0;
};

}  // namespace demo
