// A scripted proxy for what a real server will not send: it accepts one
// connection on 127.0.0.1 and runs its steps in order (read exactly n
// bytes and keep them, or send bytes), then closes the connection.
#pragma once

#include "ProxyTestSupport.h"

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace proxytest {

class FakeProxy {
public:
  FakeProxy &Expect(size_t n) {
    steps_.push_back({true, n, {}});
    return *this;
  }
  FakeProxy &Reply(std::string bytes) {
    steps_.push_back({false, 0, std::move(bytes)});
    return *this;
  }
  // Starts serving the script; call once all steps are given.
  int Start() {
    thread_ = std::jthread([this] {
      int c = listener_.Accept();
      if (c < 0)
        return;
      for (auto const &s : steps_) {
        if (s.read) {
          std::string got = ReadN(c, s.n);
          received_ += got;
          if (got.size() < s.n)
            break;
        } else if (!SendAll(c, s.bytes)) {
          break;
        }
      }
      ::close(c);
    });
    return listener_.port();
  }
  // Waits for the script to end; the bytes read by its Expect steps.
  std::string const &Finish() {
    if (thread_.joinable())
      thread_.join();
    return received_;
  }

private:
  struct Step {
    bool read;
    size_t n;
    std::string bytes;
  };
  Listener listener_;
  std::vector<Step> steps_;
  std::string received_;  // written by the script thread, read after the join
  std::jthread thread_;
};

inline std::string Bytes(std::initializer_list<int> b) {
  std::string s;
  for (int v : b)
    s.push_back(static_cast<char>(v));
  return s;
}

}  // namespace proxytest
