#include "socket/PassReplies.h"

#include <utility>

namespace shared::socket::detail {

PassReplies::Entry *PassReplies::Find(std::uint32_t sock) {
  // Few sockets have bytes at once (usually the one being served), so a
  // scan beats any index.
  for (std::size_t i = 0; i < used_; ++i) {
    if (entries_[i].sock == sock)
      return &entries_[i];
  }
  return nullptr;
}

bool PassReplies::Add(std::uint32_t sock, char const *data, unsigned len, bool retry) {
  Entry *e = Find(sock);
  if (!e) {
    if (used_ == entries_.size())
      entries_.emplace_back();
    e = &entries_[used_++];
    e->sock = sock;
    e->retry = false;
    e->bytes.clear();
  }
  e->bytes.append(data, len);
  e->retry = e->retry || retry;
  return e->bytes.size() < kFlushBytes || SendEntry(*e);
}

bool PassReplies::SendEntry(Entry &e) {
  // The bytes leave the table before the send, so anything the send does in
  // response (a close that flushes) cannot find and resend them.
  std::string bytes;
  bytes.swap(e.bytes);
  std::uint32_t const sock = e.sock;
  bool const retry = e.retry;
  Release(static_cast<std::size_t>(&e - entries_.data()));
  bool ok = send_(owner_, sock, bytes.data(), static_cast<unsigned>(bytes.size()), retry);
  // Hand the buffer back for reuse by the next socket.
  if (used_ < entries_.size() && entries_[used_].bytes.capacity() < bytes.capacity()) {
    bytes.clear();
    entries_[used_].bytes.swap(bytes);
  }
  return ok;
}

bool PassReplies::Flush(std::uint32_t sock) {
  Entry *e = Find(sock);
  return e ? SendEntry(*e) : true;
}

void PassReplies::FlushAll() {
  while (used_ > 0)
    SendEntry(entries_[0]);
}

// Moves the last open entry into the freed place; the freed entry (with its
// buffer) goes just past the open ones.
void PassReplies::Release(std::size_t index) {
  --used_;
  if (index != used_)
    std::swap(entries_[index], entries_[used_]);
  entries_[used_].bytes.clear();
}

}  // namespace shared::socket::detail
