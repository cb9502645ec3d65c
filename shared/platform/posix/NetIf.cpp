// Linux implementation of the adapter list (see platform/NetIf.h): the
// packet-family entries of getifaddrs carry the hardware addresses.
#include "platform/NetIf.h"

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>

namespace shared::platform {

int NetIfHardwareList(NetIfHwRecord *out, unsigned max, unsigned *count) {
  if (count == nullptr || (out == nullptr && max != 0))
    return 0;
  *count = 0;
  ifaddrs *list = nullptr;
  if (::getifaddrs(&list) != 0)
    return 0;
  unsigned n = 0;
  int ok = 1;
  for (ifaddrs *p = list; p != nullptr; p = p->ifa_next) {
    if (p->ifa_addr == nullptr || p->ifa_addr->sa_family != AF_PACKET)
      continue;
    if ((p->ifa_flags & IFF_LOOPBACK) != 0)
      continue;
    if (n == max) {
      ok = 0;
      break;
    }
    sockaddr_ll ll{};
    std::memcpy(&ll, p->ifa_addr, sizeof(ll));
    NetIfHwRecord &r = out[n++];
    std::memset(&r, 0, sizeof(r));
    std::strncpy(r.name, p->ifa_name ? p->ifa_name : "", sizeof(r.name) - 1);
    r.index = static_cast<std::uint32_t>(ll.sll_ifindex);
    r.addrLen = ll.sll_halen < sizeof(r.addr) ? ll.sll_halen : sizeof(r.addr);
    std::memcpy(r.addr, ll.sll_addr, r.addrLen);
  }
  ::freeifaddrs(list);
  *count = ok ? n : 0;
  return ok;
}

}  // namespace shared::platform
