// PosixThread.h: the IThread of POSIX systems (internal; use CreateIThread).
//
// A Windows thread can be created suspended and resumed later; POSIX
// threads have no suspended state, so this class builds one: the OS thread
// starts at once, records its kernel id and name, reports that it exists,
// and then waits on a gate until Resume() brings the suspend count to 0.
// Suspending a thread that already runs its body is not offered (there is
// no safe way to stop a POSIX thread at an arbitrary point): Suspend() is -1.
//
// The state the running thread needs (the gate, the end flag) lives in a
// control block shared with the thread, never in this object: a body may
// delete its own handle (XThread's worker does) and keep running.
#pragma once

#include "thread/Thread.h"

#include "platform/ThreadApi.h"

#include <memory>
#include <mutex>

namespace shared::detail {

// The registry's side used by the thread handles (ThreadRegistry.cpp).
// Adds text under id (a blank text reads "Undefined"); nothing for id 0.
// Returns the entry's token (0 when nothing was added).
SHAREDLIB_API unsigned long ThreadRegistryAdd(char const *text, unsigned long id);
// Removes the entry with this token. Entries go by token, not by thread id:
// the kernel reuses ids, and an ended thread whose handle is still alive can
// share its id with a newer thread.
SHAREDLIB_API void ThreadRegistryRemove(unsigned long token);

struct ThreadControl;

class PosixThread final : public IThread {
public:
  PosixThread(IThreadFunc fn, void *arg, char const *name);
  ~PosixThread() override;
  PosixThread(PosixThread const &) = delete;
  PosixThread &operator=(PosixThread const &) = delete;

  bool IsThreadOk() override;
  int Resume() override;
  int Suspend() override;
  void Register() override;
  void Exit(unsigned code) override;
  int WaitForMe(unsigned timeoutMs) override;

  // The kernel id of the thread (0 when none), its registry key.
  unsigned long ThreadId() const { return threadId_; }
  char const *Name() const { return name_; }

private:
  static void Main(void *raw);

  std::shared_ptr<ThreadControl> control_;  // null when no thread was made
  platform::NativeThread native_;
  unsigned long threadId_;
  unsigned long registryToken_ = 0;
  char name_[64];
  std::mutex joinMutex_;
  bool released_;  // guarded by joinMutex_: joined or detached
};

}  // namespace shared::detail
