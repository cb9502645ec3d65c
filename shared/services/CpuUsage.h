// CpuUsage.h: how much processor time this process uses.
//
// GetProcessCpuTime gives the CPU time the whole process has consumed so far
// (all threads, user and system). XCpuUsage turns two such readings into a
// usage figure: the share of the machine's processors the process kept busy
// between them, from 0 to 100 (100 = every processor busy all the time), and
// the same time as a share of one processor (0 to 100 x processors).
//
// Wall time comes from the library clock (shared/platform/Clock.h), so a test
// can drive it. An XCpuUsage object is used by one thread at a time;
// GetProcessCpuTime and ProcessorCount may be called from any thread.
#pragma once

#include "platform/Export.h"

#include <cstdint>

// CPU time consumed by the process so far, in microseconds; -1 when the
// system cannot tell.
SHAREDLIB_API std::int64_t GetProcessCpuTime();
// Processors online (at least 1).
SHAREDLIB_API int ProcessorCount();

class SHAREDLIB_API XCpuUsage {
public:
  // Takes the first reading.
  XCpuUsage();

  // Usage in percent of the whole machine since the previous call (the first
  // call: since construction), and when perCore is non-null the same as a
  // percentage of one processor. When no whole millisecond has passed, or
  // the system cannot tell, the previous figures are given again (0 at first).
  double GetUsage(double *perCore = nullptr);

  // The figure for cpuUs microseconds of CPU time spent over wallUs
  // microseconds by a machine of processors processors, in percent of the
  // machine, limited to 0..100; 0 when wallUs <= 0.
  static double Compute(std::int64_t cpuUs, std::int64_t wallUs, int processors);

private:
  std::int64_t lastCpuUs_;
  std::uint32_t lastTick_;
  int processors_;
  double lastUsage_ = 0.0;
  double lastPerCore_ = 0.0;
};
