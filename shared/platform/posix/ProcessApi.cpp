#include "platform/ProcessApi.h"

#include <sys/resource.h>
#include <unistd.h>

namespace shared::platform {

bool SysProcessCpuTimes(std::int64_t *userUs, std::int64_t *systemUs) {
  struct rusage ru {};
  if (!userUs || !systemUs || ::getrusage(RUSAGE_SELF, &ru) != 0)
    return false;
  *userUs = static_cast<std::int64_t>(ru.ru_utime.tv_sec) * 1000000 + ru.ru_utime.tv_usec;
  *systemUs = static_cast<std::int64_t>(ru.ru_stime.tv_sec) * 1000000 + ru.ru_stime.tv_usec;
  return true;
}

int SysProcessorCount() {
  long n = ::sysconf(_SC_NPROCESSORS_ONLN);
  return n < 1 ? 1 : static_cast<int>(n);
}

}  // namespace shared::platform
