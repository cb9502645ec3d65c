#include "platform/Clock.h"

#include <ctime>
#include <limits>

namespace shared::platform {

bool LocalTime(std::int64_t seconds, std::tm *out) {
  if (!out)
    return false;
  if (seconds < std::numeric_limits<std::time_t>::min() ||
      seconds > std::numeric_limits<std::time_t>::max())
    return false;
  std::time_t t = static_cast<std::time_t>(seconds);
  return localtime_r(&t, out) != nullptr;
}

}  // namespace shared::platform
