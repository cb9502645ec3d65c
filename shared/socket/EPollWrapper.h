// EPollWrapper.h: the Linux-mode demultiplexer (mode 8), over epoll.
//
// No socket limit, exact millisecond time-outs, -1 as "no limit" while
// sockets are registered. The kernel keeps the interest list, so a wait and
// the walk after it cost O(ready sockets), not O(registered). The walk
// follows the kernel's order of ready sockets and hands back each socket's
// ctx.
//
// The interest (read/write/error) follows the kinds the wait asks for; when
// one wait asks for other kinds than the previous one, every registration is
// re-armed once (O(registered)). A steady loop asking the same kinds pays
// nothing for it.
//
// clr during a walk removes the socket from the kernel at once and bumps its
// generation, so a result of the current wait for it (or for a new socket
// that reuses its number) is skipped.
#pragma once

#include "socket/SockEventsWrapper.h"

class SHAREDLIB_API EPollWrapper : public SockEventsWrapper {
public:
  explicit EPollWrapper(char const *name);
  ~EPollWrapper() override;

  unsigned long GetMode() override;
  int set(unsigned int fd, void *ctx, int events) override;
  void clr(unsigned int fd) override;
  void unwatch(unsigned int fd) override;
  void forget(unsigned int fd) override;
  void zero() override;
  int EventHandler(unsigned long events, long timeoutMs, int nfds) override;
  unsigned int firstEvent(unsigned long *events, unsigned int *pos, void **ctx) override;
  unsigned int nextEvent(unsigned long *events, unsigned int *pos, void **ctx) override;

  int init() override;
  void reset() override;

private:
  unsigned int Walk(unsigned long *events, unsigned int *pos, void **ctx);

  struct State;
  State *state_ = nullptr;  // allocated by init
};
