// ReplyBatch.h (internal): replies written on the server thread during a
// dispatch pass, gathered per socket and sent in as few writes as possible.
//
// A client that sends several lines at once gets all their replies in one
// send instead of one send each. Bytes of one socket keep the order in which
// they were written; a socket's batch is sent when the pass moves on to
// another socket, when it grows past kFlushBytes, before the socket is
// closed, and at the end of the pass. The send goes through the controller's
// write (queue order, accounting and error marking as for any write); a send
// that does not take every byte is reported to the owner, which drops the
// user as it would for a direct write.
//
// Server thread only (no lock of its own).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace shared::server::detail {

class ReplyBatch {
public:
  static constexpr std::size_t kFlushBytes = 65536;
  // How a gathered batch leaves: true when every byte was taken.
  using SendFn = bool (*)(void *owner, std::uint32_t sock, char const *data, unsigned len);

  ReplyBatch(SendFn send, void *owner) : send_(send), owner_(owner) {}

  // Appends bytes (and a CR LF when line) for sock. Sockets whose sends
  // failed are returned through failed (the owner drops them).
  void Add(std::uint32_t sock, char const *data, unsigned len, bool line, std::vector<std::uint32_t> *failed);
  // Sends the batch of sock now (if any); false when it failed.
  bool Flush(std::uint32_t sock);
  // Sends every batch; failed sockets go to failed.
  void FlushAll(std::vector<std::uint32_t> *failed);
  // Drops the batch of sock unsent (its socket is gone).
  void Drop(std::uint32_t sock);
  bool Empty() const { return used_ == 0; }

private:
  struct Entry {
    std::uint32_t sock = 0;
    std::string bytes;  // kept allocated between passes
  };
  Entry *Find(std::uint32_t sock);
  bool SendEntry(Entry &e);
  void Release(std::size_t index);

  SendFn send_;
  void *owner_;
  std::vector<Entry> entries_;  // [0, used_) hold batches
  std::size_t used_ = 0;
};

}  // namespace shared::server::detail
