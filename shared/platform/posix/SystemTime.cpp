#include "platform/SystemTime.h"

#include <time.h>

namespace shared::platform {

std::int64_t CalendarSeconds() {
  timespec ts{};
#ifdef CLOCK_REALTIME_COARSE
  // Updated once per scheduler tick and read without a clock access; it
  // lags by at most that tick, which whole seconds never show.
  if (clock_gettime(CLOCK_REALTIME_COARSE, &ts) == 0)
    return ts.tv_sec;
#endif
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec;
}

}  // namespace shared::platform
