// PassReplies.h (internal to SocketCtrl): bytes written to stream sockets by
// the callbacks of a dispatch pass, gathered per socket so that they leave
// in as few sends as possible.
//
// A client that sends several lines at once gets all their replies in one
// send instead of one send each. Bytes of one socket keep the order in which
// they were written. The controller sends a socket's bytes when the pass
// moves on to another socket, when they grow past kFlushBytes, before the
// socket is closed or written outside the gathering, and at the end of the
// pass. The send itself is the owner's (SendFn): it reports whether every
// byte was taken.
//
// Pass thread only (no lock of its own). Buffers are kept between passes,
// so a steady reply load allocates nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace shared::socket::detail {

class PassReplies {
public:
  static constexpr std::size_t kFlushBytes = 65536;
  // How gathered bytes leave; retry: some write asked to wait for room.
  // True when every byte was taken.
  using SendFn = bool (*)(void *owner, std::uint32_t sock, char const *data, unsigned len, bool retry);

  PassReplies(SendFn send, void *owner) : send_(send), owner_(owner) {}

  // Appends bytes for sock; false when this made the socket's bytes pass
  // kFlushBytes and their send failed.
  bool Add(std::uint32_t sock, char const *data, unsigned len, bool retry);
  // Sends the bytes of sock now (if any); false when the send failed.
  bool Flush(std::uint32_t sock);
  // Sends every socket's bytes (failures are the send function's to report).
  void FlushAll();
  bool Empty() const { return used_ == 0; }

private:
  struct Entry {
    std::uint32_t sock = 0;
    bool retry = false;
    std::string bytes;  // kept allocated between passes
  };
  Entry *Find(std::uint32_t sock);
  bool SendEntry(Entry &e);
  void Release(std::size_t index);

  SendFn send_;
  void *owner_;
  std::vector<Entry> entries_;  // [0, used_) hold bytes
  std::size_t used_ = 0;
};

}  // namespace shared::socket::detail
