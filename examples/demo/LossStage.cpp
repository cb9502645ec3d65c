#include "LossStage.h"

namespace demo {

LossStage::LossStage(IFragmentSink &out, double lossRate, double reorderRate, std::uint32_t seed)
    : out_(out), loss_(lossRate), reorder_(reorderRate), gen_(seed) {}

void LossStage::Out(Bytes const &fragment) {
  if (!out_.Send(fragment))
    ++failures_;
}

void LossStage::Push(Bytes const &fragment) {
  if (bypass_ || fragment.size() < 16) {
    Out(fragment);
    return;
  }
  std::uint32_t const media = Le32(fragment.data());
  if (loss_(gen_)) {
    ++dropped_;
    damaged_.insert({media, Le32(fragment.data() + 12)});
    return;
  }
  auto held = held_.find(media);
  if (held != held_.end()) {
    // The held one goes after this one: the pair arrives swapped.
    Out(fragment);
    Out(held->second);
    held_.erase(held);
    return;
  }
  if (reorder_(gen_)) {
    ++reordered_;
    held_[media] = fragment;
    return;
  }
  Out(fragment);
}

void LossStage::Flush() {
  for (auto const &h : held_)
    Out(h.second);
  held_.clear();
}

}  // namespace demo
