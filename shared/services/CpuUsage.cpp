#include "services/CpuUsage.h"

#include "platform/Clock.h"
#include "platform/ProcessApi.h"

namespace sp = shared::platform;

std::int64_t GetProcessCpuTime() {
  std::int64_t user = 0;
  std::int64_t system = 0;
  if (!sp::SysProcessCpuTimes(&user, &system))
    return -1;
  return user + system;
}

int ProcessorCount() { return sp::SysProcessorCount(); }

XCpuUsage::XCpuUsage()
    : lastCpuUs_(GetProcessCpuTime()), lastTick_(sp::TickCount()), processors_(ProcessorCount()) {}

double XCpuUsage::Compute(std::int64_t cpuUs, std::int64_t wallUs, int processors) {
  if (wallUs <= 0 || cpuUs <= 0)
    return 0.0;
  if (processors < 1)
    processors = 1;
  double usage = 100.0 * static_cast<double>(cpuUs) / (static_cast<double>(wallUs) * processors);
  return usage > 100.0 ? 100.0 : usage;
}

double XCpuUsage::GetUsage(double *perCore) {
  std::int64_t cpu = GetProcessCpuTime();
  std::uint32_t tick = sp::TickCount();
  // The tick count wraps at 2^32 ms; the unsigned difference is still right.
  std::uint32_t elapsedMs = tick - lastTick_;
  if (cpu >= 0 && lastCpuUs_ >= 0 && elapsedMs > 0) {
    std::int64_t wallUs = static_cast<std::int64_t>(elapsedMs) * 1000;
    lastUsage_ = Compute(cpu - lastCpuUs_, wallUs, processors_);
    // The same time against one processor (at most 100 x processors).
    lastPerCore_ = lastUsage_ * processors_;
    lastCpuUs_ = cpu;
    lastTick_ = tick;
  } else if (cpu >= 0 && lastCpuUs_ < 0) {
    lastCpuUs_ = cpu;
    lastTick_ = tick;
  }
  if (perCore)
    *perCore = lastPerCore_;
  return lastUsage_;
}
