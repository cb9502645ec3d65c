// Closed-loop line load: conns connections to 127.0.0.1:port, each keeping
// inflight 64-byte lines outstanding; every echo is checked against the line
// sent (text and order) before the next line goes out.
#pragma once

struct LoadResult {
  double linesPerSecond = 0;
  double p50Us = 0;
  double p99Us = 0;
  long errors = 0;  // wrong, lost or reordered echoes, failed connections
};

LoadResult RunLoad(int port, int conns, int inflight, double warmupSeconds, double seconds);
