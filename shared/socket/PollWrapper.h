// PollWrapper.h: the poll() demultiplexer (mode 2).
//
// No socket limit (the descriptor limit of the process applies), exact
// millisecond time-outs, and -1 as "no limit" while sockets are registered.
// A wait costs O(registered sockets), as poll() itself does. The walk after a
// wait follows registration order and hands back each socket's ctx.
//
// clr during a walk invalidates the socket's slot (it is skipped by the walk
// and by poll) instead of moving the array; the holes are squeezed out at the
// start of the next wait.
#pragma once

#include "socket/SockEventsWrapper.h"

class SHAREDLIB_API PollWrapper : public SockEventsWrapper {
public:
  explicit PollWrapper(char const *name);
  ~PollWrapper() override;

  unsigned long GetMode() override;
  int set(unsigned int fd, void *ctx, int events) override;
  void clr(unsigned int fd) override;
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
