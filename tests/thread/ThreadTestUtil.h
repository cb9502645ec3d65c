// Helpers shared by the thread tests: a one-shot latch, polling with a
// deadline, and registry look-ups.
#pragma once

#include "thread/ThreadRegistry.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace testutil {

// Opened once; waiters give up after a generous deadline so that a broken
// test fails instead of hanging.
class Latch {
public:
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  bool Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::seconds(30), [this] { return open_; });
  }
  // For a latch that should stay shut: false after ms without an Open.
  bool WaitFor(int ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return open_; });
  }
  bool IsOpen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_;
  }

private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
};

template <class Pred>
bool Eventually(Pred pred) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

inline std::vector<std::string> RegistryTexts() {
  std::vector<std::string> out;
  char const *text = nullptr;
  for (int more = ThreadMgr_ListFirst(&text); more; more = ThreadMgr_ListNext(&text))
    out.emplace_back(text ? text : "");
  return out;
}

// Entries equal to text / ending with suffix.
inline int CountRegistry(std::string const &text) {
  int n = 0;
  for (auto const &t : RegistryTexts())
    n += (t == text);
  return n;
}

inline bool Listed(std::string const &suffix) {
  for (auto const &t : RegistryTexts())
    if (t.size() > suffix.size() && t.compare(t.size() - suffix.size(), suffix.size(), suffix) == 0)
      return true;
  return false;
}

}  // namespace testutil
