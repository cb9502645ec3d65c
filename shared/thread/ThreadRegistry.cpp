#include "thread/ThreadRegistry.h"

#include "platform/Compat.h"
#include "platform/ThreadApi.h"
#include "thread/PosixThread.h"
#include "text/DebugOutput.h"
#include "text/TextRoutines.h"
#include "text/XStr.h"
#include "thread/Semaphore.h"

#include <atomic>
#include <new>

namespace {

struct Node {
  char key[64];  // upper-cased key; threads leave it empty
  XStrDyn *text;
  Node *prev;
  Node *next;
  unsigned long id;
  unsigned long token;  // unique per entry: what removal goes by
};

// Built while the library loads, on the loading thread (hence "Main
// Thread"); torn down at unload. Operations do nothing while not ready.
class Registry {
public:
  Registry() : lock_(3, 1, 0, static_cast<unsigned long>(-1), -1) {
    if (!lock_.IsOk())
      return;
    ready_.store(true, std::memory_order_release);
    unsigned long id = shared::platform::CurrentThreadId();
    char text[64];
    _snprintf(text, sizeof text, "%lx(%lu) Main Thread", id, id);
    Add(text, id);
  }

  ~Registry() {
    // Cleared first: a thread still ending while the library unloads finds
    // the registry gone and leaves it alone.
    ready_.store(false, std::memory_order_release);
    shared::SemGuard guard(lock_);
    while (head_)
      Unlink(head_);
  }

  Registry(Registry const &) = delete;
  Registry &operator=(Registry const &) = delete;

  bool Ready() const { return ready_.load(std::memory_order_acquire); }

  unsigned long Add(char const *text, unsigned long id) {
    if (id == 0 || !Ready())
      return 0;
    auto *node = new (std::nothrow) Node{};
    if (!node)
      return 0;
    node->text = new (std::nothrow) XStrDyn(comp_branco(text) ? "Undefined" : text);
    if (!node->text) {
      delete node;
      return 0;
    }
    node->id = id;
    shared::SemGuard guard(lock_);
    node->token = ++lastToken_;
    node->prev = tail_;
    if (tail_)
      tail_->next = node;
    else
      head_ = node;
    tail_ = node;
    ++count_;
    return node->token;
  }

  void Remove(unsigned long token) {
    if (token == 0 || !Ready())
      return;
    shared::SemGuard guard(lock_);
    for (Node *n = head_; n; n = n->next) {
      if (n->token == token) {
        Unlink(n);
        return;
      }
    }
  }

  int First(char const **text) {
    if (!Ready())
      return 0;
    shared::SemGuard guard(lock_);
    cursor_ = head_;
    beforeHead_ = false;
    return Store(cursor_, text);
  }

  int Next(char const **text) {
    if (!Ready())
      return 0;
    shared::SemGuard guard(lock_);
    Node *next = cursor_ ? cursor_->next : (beforeHead_ ? head_ : nullptr);
    beforeHead_ = false;
    if (!next)
      return 0;
    cursor_ = next;
    return Store(cursor_, text);
  }

  _SEMAPHORE &Lock() { return lock_; }

private:
  static int Store(Node *node, char const **text) {
    if (!node || !node->text || !node->text->GetStr())
      return 0;
    if (text)
      *text = node->text->GetStr();
    return 1;
  }

  // Caller holds lock_.
  void Unlink(Node *n) {
    // A walk standing on the removed entry goes on with the one after it.
    if (cursor_ == n) {
      cursor_ = n->prev;
      beforeHead_ = (n->prev == nullptr);
    }
    (n->prev ? n->prev->next : head_) = n->next;
    (n->next ? n->next->prev : tail_) = n->prev;
    delete n->text;
    delete n;
  }

  _SEMAPHORE lock_;  // kind 3: recursive, DisplayThreads re-enters it
  std::atomic<bool> ready_{false};
  Node *head_ = nullptr;    // guarded by lock_
  Node *tail_ = nullptr;    // guarded by lock_
  Node *cursor_ = nullptr;  // guarded by lock_: the listing walk
  bool beforeHead_ = false; // guarded by lock_: the walk's entry was the removed head
  unsigned long count_ = 0; // guarded by lock_: entries ever added
  unsigned long lastToken_ = 0;  // guarded by lock_: the last entry token handed out
};

// A namespace-scope object, so that it is built while the library loads, on
// the thread that loads it.
Registry g_registry;

}  // namespace

int ThreadMgr_ListFirst(char const **text) { return g_registry.First(text); }

int ThreadMgr_ListNext(char const **text) { return g_registry.Next(text); }

void ThreadMgr_DisplayThreads(void) {
  if (!g_registry.Ready())
    return;
  shared::SemGuard guard(g_registry.Lock());
  char const *text = nullptr;
  for (int more = ThreadMgr_ListFirst(&text); more; more = ThreadMgr_ListNext(&text)) {
    _DebugNotifyOnly(0, "ThreadMgr", "%s", text ? text : "");
  }
}

namespace shared::detail {

unsigned long ThreadRegistryAdd(char const *text, unsigned long id) { return g_registry.Add(text, id); }

void ThreadRegistryRemove(unsigned long token) { g_registry.Remove(token); }

}  // namespace shared::detail
