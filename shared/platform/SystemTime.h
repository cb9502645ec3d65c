// SystemTime.h: the system clock reads behind the default clock source.
#pragma once

#include <cstdint>

namespace shared::platform {

// Calendar seconds since 1970-01-01 UTC from the cheapest clock that is
// exact to the second: the packet paths read it once per packet, and a
// precise clock read costs a hypervisor clock access on virtual machines.
std::int64_t CalendarSeconds();

}  // namespace shared::platform
