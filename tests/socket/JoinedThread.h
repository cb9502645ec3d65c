// A std::thread that is joined when it goes out of scope, so a test whose
// assertion fails (and returns early) still joins every thread it started.
#pragma once

#include <thread>
#include <utility>

class JoinedThread {
public:
  template <typename Fn>
  explicit JoinedThread(Fn &&fn) : t_(std::forward<Fn>(fn)) {}
  ~JoinedThread() { Join(); }
  JoinedThread(JoinedThread const &) = delete;
  JoinedThread &operator=(JoinedThread const &) = delete;
  JoinedThread(JoinedThread &&) = default;

  void Join() {
    if (t_.joinable())
      t_.join();
  }

private:
  std::thread t_;
};
