#include "socket/KQueueWrapper.h"

KQueueWrapper::KQueueWrapper(char const *name) : SockEventsWrapper(name) {}
KQueueWrapper::~KQueueWrapper() = default;

unsigned long KQueueWrapper::GetMode() { return kSewModeKQueue; }
int KQueueWrapper::set(unsigned int, void *, int) { return 0; }
void KQueueWrapper::clr(unsigned int) {}
void KQueueWrapper::zero() {}
int KQueueWrapper::EventHandler(unsigned long, long, int) { return -1; }

unsigned int KQueueWrapper::firstEvent(unsigned long *events, unsigned int *pos, void **ctx) {
  return nextEvent(events, pos, ctx);
}

unsigned int KQueueWrapper::nextEvent(unsigned long *events, unsigned int *pos, void **ctx) {
  return EndOfWalk(events, pos, ctx);
}

int KQueueWrapper::init() { return 0; }
void KQueueWrapper::reset() {}
