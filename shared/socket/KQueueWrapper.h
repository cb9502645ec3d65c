// KQueueWrapper.h: the kqueue demultiplexer (mode 4), not available here.
//
// It keeps the full interface and answers every call with nothing: set
// refuses (0), EventHandler fails (-1), the walk ends at once (-1).
#pragma once

#include "socket/SockEventsWrapper.h"

class SHAREDLIB_API KQueueWrapper : public SockEventsWrapper {
public:
  explicit KQueueWrapper(char const *name);
  ~KQueueWrapper() override;

  unsigned long GetMode() override;
  int set(unsigned int fd, void *ctx, int events) override;
  void clr(unsigned int fd) override;
  void zero() override;
  int EventHandler(unsigned long events, long timeoutMs, int nfds) override;
  unsigned int firstEvent(unsigned long *events, unsigned int *pos, void **ctx) override;
  unsigned int nextEvent(unsigned long *events, unsigned int *pos, void **ctx) override;

  int init() override;
  void reset() override;
};
