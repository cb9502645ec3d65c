// SelectWrapper.h: the select-semantics demultiplexer (mode 1).
//
// Observable behaviour is that of a Winsock select loop over fd_set lists of
// 2048 entries:
//   - at most 2048 registrations; set counts calls, the master list holds
//     each socket once (a socket set twice needs two clr to reach count 0);
//   - time-outs are whole seconds (timeoutMs / 1000, the rest dropped), so
//     anything under 1000 ms polls without waiting;
//   - timeoutMs -1 while sockets are registered is an invalid time value:
//     EventHandler returns -1 at once;
//   - the result sets of kinds a wait did not ask for keep what an earlier
//     wait left in them, and firstEvent/nextEvent still report them;
//   - the walk follows the owner's order of active sockets (the iterator).
// The wait itself is done with poll() over the master list, because a Linux
// fd_set cannot hold descriptors above 1023; nothing observable changes.
//
// Storage: the master list is allocated on first set (or init); the three
// result sets on the first wait that asks for their kind, then reused, so a
// steady loop allocates nothing. The destructor frees all of it.
#pragma once

#include "socket/SockEventsWrapper.h"

#include <cstdint>

class SHAREDLIB_API SelectWrapper : public SockEventsWrapper {
public:
  explicit SelectWrapper(char const *name);
  ~SelectWrapper() override;

  unsigned long GetMode() override;
  int set(unsigned int fd, void *ctx, int events) override;
  void clr(unsigned int fd) override;
  void zero() override;
  int EventHandler(unsigned long events, long timeoutMs, int nfds) override;
  unsigned int firstEvent(unsigned long *events, unsigned int *pos, void **ctx) override;
  unsigned int nextEvent(unsigned long *events, unsigned int *pos, void **ctx) override;

  int init() override;
  void reset() override;

  // A socket list in fd_set shape: a count, then the handles.
  struct FdList {
    std::uint32_t count;
    std::uint32_t fds[kSewSelectMaxSockets];
  };
  static_assert(sizeof(FdList) == 8196, "fd_set shape of 2048 sockets");

private:
  unsigned int Walk(bool first, unsigned long *events, unsigned int *pos);

  FdList *master_ = nullptr;  // each registered socket once, in set order
  FdList *read_ = nullptr;    // result sets, narrowed by each wait that asks
  FdList *write_ = nullptr;
  FdList *error_ = nullptr;
  struct PollScratch;         // the poll() array of the wait, reused
  PollScratch *scratch_ = nullptr;
};
