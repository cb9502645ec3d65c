#include "server/detail/ReplyBatch.h"

#include <utility>

namespace shared::server::detail {

ReplyBatch::Entry *ReplyBatch::Find(std::uint32_t sock) {
  // Few batches are open at once (usually the one socket being served), so a
  // scan beats any index.
  for (std::size_t i = 0; i < used_; ++i) {
    if (entries_[i].sock == sock)
      return &entries_[i];
  }
  return nullptr;
}

void ReplyBatch::Add(std::uint32_t sock, char const *data, unsigned len, bool line,
                     std::vector<std::uint32_t> *failed) {
  Entry *e = Find(sock);
  if (!e) {
    if (used_ == entries_.size())
      entries_.emplace_back();
    e = &entries_[used_++];
    e->sock = sock;
    e->bytes.clear();
  }
  e->bytes.append(data, len);
  if (line)
    e->bytes.append("\r\n", 2);
  if (e->bytes.size() >= kFlushBytes && !Flush(sock) && failed)
    failed->push_back(sock);
}

bool ReplyBatch::SendEntry(Entry &e) {
  // The bytes leave the batch before the send, so a drop that the owner
  // makes in response cannot find and resend them.
  std::string bytes;
  bytes.swap(e.bytes);
  std::uint32_t const sock = e.sock;
  Release(static_cast<std::size_t>(&e - entries_.data()));
  bool ok = send_(owner_, sock, bytes.data(), static_cast<unsigned>(bytes.size()));
  // Hand the buffer back for reuse by the next batch.
  if (used_ < entries_.size() && entries_[used_].bytes.capacity() < bytes.capacity()) {
    bytes.clear();
    entries_[used_].bytes.swap(bytes);
  }
  return ok;
}

bool ReplyBatch::Flush(std::uint32_t sock) {
  Entry *e = Find(sock);
  return e ? SendEntry(*e) : true;
}

void ReplyBatch::FlushAll(std::vector<std::uint32_t> *failed) {
  while (used_ > 0) {
    std::uint32_t const sock = entries_[0].sock;
    if (!SendEntry(entries_[0]) && failed)
      failed->push_back(sock);
  }
}

void ReplyBatch::Drop(std::uint32_t sock) {
  if (Entry *e = Find(sock))
    Release(static_cast<std::size_t>(e - entries_.data()));
}

// Moves the last open batch into the freed place; the freed entry (with its
// buffer) goes just past the open ones.
void ReplyBatch::Release(std::size_t index) {
  --used_;
  if (index != used_)
    std::swap(entries_[index], entries_[used_]);
  entries_[used_].bytes.clear();
}

}  // namespace shared::server::detail
