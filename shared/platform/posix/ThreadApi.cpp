#include "platform/ThreadApi.h"

#include "platform/PlatformConfig.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <new>

namespace shared::platform {

namespace {

static_assert(sizeof(pthread_t) <= sizeof(NativeThread), "pthread_t must fit the opaque handle");

// Linux keeps 16 bytes of thread name, the NUL included.
constexpr std::size_t kMaxNameLength = 15;

pthread_t ToPthread(NativeThread thread) {
  pthread_t t{};
  std::memcpy(&t, &thread, sizeof t);
  return t;
}

NativeThread FromPthread(pthread_t t) {
  NativeThread thread = 0;
  std::memcpy(&thread, &t, sizeof t);
  return thread;
}

struct StartRecord {
  void (*fn)(void *);
  void *arg;
};

extern "C" void *NativeThreadMain(void *raw) {
  StartRecord record = *static_cast<StartRecord *>(raw);
  delete static_cast<StartRecord *>(raw);
  record.fn(record.arg);
  return nullptr;
}

}  // namespace

std::size_t MaxThreadNameLength() { return kMaxNameLength; }

bool ThreadStart(void (*fn)(void *), void *arg, NativeThread *out) {
  if (!fn || !out)
    return false;
  auto *record = new (std::nothrow) StartRecord{fn, arg};
  if (!record)
    return false;
  pthread_t t{};
  if (pthread_create(&t, nullptr, NativeThreadMain, record) != 0) {
    delete record;
    return false;
  }
  *out = FromPthread(t);
  return true;
}

void ThreadJoin(NativeThread thread) { pthread_join(ToPthread(thread), nullptr); }

void ThreadDetach(NativeThread thread) { pthread_detach(ToPthread(thread)); }

bool ThreadIsCurrent(NativeThread thread) { return pthread_equal(ToPthread(thread), pthread_self()) != 0; }

void ThreadExitCurrent() { pthread_exit(nullptr); }

unsigned long CurrentThreadId() {
#if SHAREDLIB_HAVE_GETTID
  return static_cast<unsigned long>(gettid());
#else
  return static_cast<unsigned long>(syscall(SYS_gettid));
#endif
}

void SetCurrentThreadName(char const *name) {
  if (!name || !*name)
    return;
#if SHAREDLIB_HAVE_PTHREAD_SETNAME_NP
  char cut[kMaxNameLength + 1];
  std::size_t n = std::strlen(name);
  if (n > kMaxNameLength)
    n = kMaxNameLength;
  std::memcpy(cut, name, n);
  cut[n] = '\0';
  pthread_setname_np(pthread_self(), cut);
#endif
}

}  // namespace shared::platform
