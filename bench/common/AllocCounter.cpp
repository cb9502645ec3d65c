#include "common/AllocCounter.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

// glibc's own entry points, so the replacements below can forward to them.
extern "C" void *__libc_malloc(std::size_t);
extern "C" void *__libc_calloc(std::size_t, std::size_t);
extern "C" void *__libc_realloc(void *, std::size_t);
extern "C" void __libc_free(void *);

namespace {
std::atomic<std::uint64_t> g_allocations{0};
}

namespace bench {
std::uint64_t AllocationCount() { return g_allocations.load(std::memory_order_relaxed); }
}  // namespace bench

extern "C" void *malloc(std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}

extern "C" void *calloc(std::size_t n, std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(n, size);
}

extern "C" void *realloc(void *p, std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(p, size);
}

extern "C" void free(void *p) { __libc_free(p); }

void *operator new(std::size_t size) {
  if (void *p = malloc(size ? size : 1))
    return p;
  throw std::bad_alloc();
}
void *operator new[](std::size_t size) { return operator new(size); }
void operator delete(void *p) noexcept { free(p); }
void operator delete[](void *p) noexcept { free(p); }
void operator delete(void *p, std::size_t) noexcept { free(p); }
void operator delete[](void *p, std::size_t) noexcept { free(p); }
