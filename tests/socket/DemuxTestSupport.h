// Helpers of the demultiplexer tests: socket pairs and an owner that walks
// its active sockets like a SocketCtrl does.
#pragma once

#include "socket/FdCtrl.h"
#include "socket/SockEventsWrapper.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace demux_test {

constexpr unsigned int kNone = 0xFFFFFFFFu;

// The backends that work here, as test parameters, and their test names.
inline auto const kWorkingBackends =
    ::testing::Values(static_cast<unsigned char>(kSewModeSelect), static_cast<unsigned char>(kSewModePoll),
                      static_cast<unsigned char>(kSewModeLinux));
inline std::string BackendName(::testing::TestParamInfo<unsigned char> const &param) {
  switch (param.param) {
    case kSewModeSelect: return "Select";
    case kSewModePoll: return "Poll";
    default: return "EPoll";
  }
}

// A connected, non-blocking stream pair: a is watched, b is the peer.
struct Pair {
  int a = -1;
  int b = -1;
  Pair() {
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0) {
      a = sv[0];
      b = sv[1];
      ::fcntl(a, F_SETFL, ::fcntl(a, F_GETFL) | O_NONBLOCK);
      ::fcntl(b, F_SETFL, ::fcntl(b, F_GETFL) | O_NONBLOCK);
    }
  }
  ~Pair() { Close(); }
  Pair(Pair const &) = delete;
  Pair &operator=(Pair const &) = delete;
  bool ok() const { return a >= 0 && b >= 0; }
  unsigned int sock() const { return static_cast<unsigned int>(a); }
  void Poke() const { (void)!::write(b, "x", 1); }  // makes a readable
  void Close() {
    if (a >= 0) ::close(a);
    if (b >= 0) ::close(b);
    a = b = -1;
  }
  // Fills a's send side until the kernel refuses more, so a is not writable.
  void FillSendBuffer() const {
    static char chunk[65536];
    while (::write(a, chunk, sizeof(chunk)) > 0) {
    }
  }
};

// The owner of the sockets: its active set in insertion order, walked
// through ISEWIterator as the select backend expects.
class Owner : public ISEWIterator {
public:
  unsigned int firstActiveSocket(unsigned int *pos) override { return active.first(pos); }
  unsigned int nextActiveSocket(unsigned int *pos) override { return active.next(pos); }
  fdVector active;
};

// Raises the soft descriptor limit to at least want (bounded by the hard
// limit); false when the hard limit is lower.
inline bool RaiseFdLimit(rlim_t want) {
  rlimit lim{};
  if (::getrlimit(RLIMIT_NOFILE, &lim) != 0) return false;
  if (lim.rlim_cur >= want) return true;
  if (lim.rlim_max != RLIM_INFINITY && lim.rlim_max < want) return false;
  lim.rlim_cur = want;
  return ::setrlimit(RLIMIT_NOFILE, &lim) == 0;
}

}  // namespace demux_test
