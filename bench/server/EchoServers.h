// The two line-echo servers of the benchmark. Each listens on 127.0.0.1 with
// a port the system picks, reports it through report(port), then serves
// until stop() says so (checked about every 100 ms). Each line is answered
// with the same text and CR LF.
#pragma once

using PortReport = void (*)(int port, void *arg);
using StopCheck = bool (*)(void *arg);

int RunSockSrvEcho(PortReport report, StopCheck stop, void *arg);
int RunLibeventEcho(PortReport report, StopCheck stop, void *arg);
