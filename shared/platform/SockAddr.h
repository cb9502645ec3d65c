// SockAddr.h: the IPv4 address structure of the public socket interfaces.
//
// Public headers that take a `sockaddr_in` include this instead of a system
// header, so users need no platform include of their own. Only IPv4 is used
// anywhere in the library.
#pragma once

#include "platform/Types.h"

#if !defined(_WIN32)
#  include <netinet/in.h>
#endif

static_assert(sizeof(sockaddr_in) == 16, "the IPv4 address record is 16 bytes");
