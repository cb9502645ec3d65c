// UPnP.h: static port mappings on the local network's internet gateway.
//
// The gateway is found by UPnP discovery (about 2 s) the first time it is
// needed and then remembered, with its control address and the LAN address
// it sees for this host, for later calls. When a remembered gateway no
// longer answers, it is discovered again once within the same call, so a
// restarted or replaced gateway costs one discovery, not a failure.
//
// Nothing is logged; results are 1 or 0. Calls from several threads are
// serialised on one process-wide lock (each call may block for a discovery
// and a few HTTP exchanges with the gateway). No other initialisation is
// needed before the first call.
#pragma once

#include "platform/Export.h"

SHAREDLIB_BEGIN_C

// Maps external port `port` of protocol ("TCP" or "UDP") to the same port on
// internalClient (dotted LAN address), enabled, without a lease limit. Any
// mapping of that external port and protocol is removed first. 1 when the
// gateway accepted the mapping; 0 for a blank protocol or client, a port
// outside 1..65535, no gateway, or a refusal.
SHAREDLIB_API int AdduPnPPort(char const *protocol, char const *internalClient, int port,
                              char const *description);
// Removes the mapping of external port `port` and protocol. The result only
// says whether a gateway was asked (1) or none was found (0), not whether a
// mapping existed.
SHAREDLIB_API int ResetuPnP(char const *protocol, int port);
// The LAN address the gateway sees for this host (the address to pass as
// internalClient), copied with ajusta_str: ip holds size + 1 bytes, 15 is
// enough. 1 on success; 0 (ip emptied) when there is no gateway.
SHAREDLIB_API int GetuPnPLocalIP(char *ip, unsigned int size);

SHAREDLIB_END_C
