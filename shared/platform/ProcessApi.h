// ProcessApi.h: thin wrappers over the system's process accounting.
//
// Used by the CPU usage service (shared/services/CpuUsage.h). Any thread may
// call them; none keeps state.
#pragma once

#include <cstdint>

namespace shared::platform {

// CPU time the whole process has consumed so far, in microseconds, split into
// user and system time. False (both left untouched) when the system cannot
// tell.
bool SysProcessCpuTimes(std::int64_t *userUs, std::int64_t *systemUs);
// Number of processors online (at least 1).
int SysProcessorCount();

}  // namespace shared::platform
