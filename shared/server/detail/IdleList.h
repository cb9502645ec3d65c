// IdleList.h (internal): the server's users in order of last activity.
//
//   head (oldest) <-> node <-> node <-> ... <-> tail (youngest)
//
// Each node holds one user and its activity time. Touch moves a node to the
// tail, so an idle check that walks from the head can stop at the first node
// younger than its limit: it costs the users it looks at, not all users.
//
// Walk cursors (one per kind of walk) stay valid when the node they name is
// unlinked or moved: they step to the following node first.
//
// Not synchronised: the owner (SockSrv) holds its lock around every call.
#pragma once

#include <cstdint>

class SockSrvUser;

namespace shared::server::detail {

struct IdleNode {
  SockSrvUser *user = nullptr;
  std::int64_t time = 0;
  IdleNode *prev = nullptr;
  IdleNode *next = nullptr;
};

class IdleList {
public:
  enum Cursor { kCheckCursor = 0, kUserCursor = 1, kCursors = 2 };

  IdleList() = default;
  ~IdleList();
  IdleList(IdleList const &) = delete;
  IdleList &operator=(IdleList const &) = delete;

  // A new node at the tail; null when out of memory.
  IdleNode *Append(SockSrvUser *user, std::int64_t time);
  // Moves node to the tail with a new time.
  void Touch(IdleNode *node, std::int64_t time);
  // Unlinks and frees node.
  void Remove(IdleNode *node);

  IdleNode *First(Cursor c);
  IdleNode *Next(Cursor c);
  unsigned Count() const { return count_; }

private:
  void Unlink(IdleNode *node);
  void LinkTail(IdleNode *node);

  IdleNode *head_ = nullptr;
  IdleNode *tail_ = nullptr;
  IdleNode *cursor_[kCursors] = {};  // the node the next Next returns
  unsigned count_ = 0;
};

}  // namespace shared::server::detail
