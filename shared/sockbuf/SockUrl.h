// SockUrl.h: the one address form of the socket-buffer sources and sinks.
//
//   tcp://host:port           connect to host (port 1..65535)
//   tcp-listen://addr:port    listen on addr (empty or 0.0.0.0: any), one peer
//                             at a time; port 0 picks a free port
//   udp://host:port           datagrams: a reader binds host:port (port 0 picks
//                             one), a writer sends to host:port
//   udp://@group:port         multicast: a reader joins group (port 0 picks
//                             one), a writer sends to it; group is a dotted
//                             address in 224/4
//   file://path               a recording file (file:///tmp/a.rec is /tmp/a.rec)
//
// The scheme is case-insensitive; anything else is refused. Hosts are names
// or dotted addresses of at most 255 characters, paths at most 260. Parse is a
// pure function of its input: any thread.
#pragma once

#include "platform/Export.h"

struct SHAREDLIB_API SockUrl {
  enum Kind { kNone = 0, kTcp = 1, kTcpListen = 2, kUdp = 3, kUdpMulticast = 4, kFile = 5 };

  int kind = kNone;
  char host[256] = {};    // name or dotted address; the group for kUdpMulticast
  unsigned short port = 0;
  char path[261] = {};    // kFile only

  // 1 when url is one of the forms above (the fields then describe it);
  // 0 otherwise, with kind kNone and every field cleared.
  int Parse(char const* url);

  bool IsNetwork() const { return kind >= kTcp && kind <= kUdpMulticast; }
  bool IsStream() const { return kind == kTcp || kind == kTcpListen; }
};
