// NetIf.h: the machine's network interfaces and their hardware addresses.
//
// CAdapter (shared/socket/CAdapter.h) reads the adapter list through this
// instead of the system's interface calls. The list is of the calling
// thread's network namespace. No state, no locks; any thread may call.
#pragma once

#include <cstdint>

namespace shared::platform {

// One adapter: a fixed-size record so a caller can keep a table of them in a
// raw buffer of its own. Hardware addresses longer than 8 bytes are cut.
struct NetIfHwRecord {
  char name[16];                // interface name, NUL-terminated
  std::uint32_t index;          // interface index
  std::uint32_t addrLen;        // real length of the hardware address (0 to 8)
  unsigned char addr[8];        // the address, zero past addrLen
};
static_assert(sizeof(NetIfHwRecord) == 32, "adapter records are packed in fixed 32-byte slots");

// Fills out[0..max) with the non-loopback interfaces that have a link-layer
// (packet family) entry, in the system's order, and stores their number in
// *count. Returns 1 on success; 0 when the system list cannot be read or
// holds more than max adapters (nothing usable is returned then).
int NetIfHardwareList(NetIfHwRecord *out, unsigned max, unsigned *count);

}  // namespace shared::platform
