#include "server/detail/IdleList.h"

#include <new>

namespace shared::server::detail {

IdleList::~IdleList() {
  while (head_)
    Remove(head_);
}

IdleNode *IdleList::Append(SockSrvUser *user, std::int64_t time) {
  auto *node = new (std::nothrow) IdleNode;
  if (!node)
    return nullptr;
  node->user = user;
  node->time = time;
  LinkTail(node);
  ++count_;
  return node;
}

void IdleList::Touch(IdleNode *node, std::int64_t time) {
  node->time = time;
  if (node == tail_)
    return;
  Unlink(node);
  LinkTail(node);
}

void IdleList::Remove(IdleNode *node) {
  Unlink(node);
  --count_;
  delete node;
}

IdleNode *IdleList::First(Cursor c) {
  cursor_[c] = head_ ? head_->next : nullptr;
  return head_;
}

IdleNode *IdleList::Next(Cursor c) {
  IdleNode *node = cursor_[c];
  cursor_[c] = node ? node->next : nullptr;
  return node;
}

void IdleList::Unlink(IdleNode *node) {
  for (IdleNode *&cur : cursor_) {
    if (cur == node)
      cur = node->next;
  }
  (node->prev ? node->prev->next : head_) = node->next;
  (node->next ? node->next->prev : tail_) = node->prev;
  node->prev = node->next = nullptr;
}

void IdleList::LinkTail(IdleNode *node) {
  node->prev = tail_;
  node->next = nullptr;
  (tail_ ? tail_->next : head_) = node;
  tail_ = node;
}

}  // namespace shared::server::detail
