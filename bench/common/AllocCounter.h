// AllocCounter.h: counts heap allocations made by the whole process (the
// library included), for benchmarks that report allocations per operation.
#pragma once

#include <cstdint>

namespace bench {

// Number of successful malloc/calloc/realloc/operator new calls so far.
std::uint64_t AllocationCount();

}  // namespace bench
