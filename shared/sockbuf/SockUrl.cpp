#include "sockbuf/SockUrl.h"

#include <cstdio>
#include <cstring>

#include "platform/Compat.h"

namespace {

constexpr unsigned kMaxHost = sizeof(SockUrl::host) - 1;
constexpr unsigned kMaxPath = sizeof(SockUrl::path) - 1;

bool StartsWithNoCase(char const* s, char const* prefix, char const** rest) {
  std::size_t n = std::strlen(prefix);
  if (_strnicmp(s, prefix, n) != 0) return false;
  *rest = s + n;
  return true;
}

bool IsHostChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '.' || c == '-' || c == '_';
}

// "host:port" with host possibly empty; the port is decimal, 0..65535.
bool SplitHostPort(char const* s, char* host, unsigned short* port) {
  char const* colon = std::strrchr(s, ':');
  if (colon == nullptr) return false;
  std::size_t hostLen = static_cast<std::size_t>(colon - s);
  if (hostLen > kMaxHost) return false;
  for (std::size_t i = 0; i < hostLen; ++i) {
    if (!IsHostChar(s[i])) return false;
  }
  char const* digits = colon + 1;
  std::size_t nDigits = std::strlen(digits);
  if (nDigits == 0 || nDigits > 5) return false;
  unsigned long value = 0;
  for (std::size_t i = 0; i < nDigits; ++i) {
    if (digits[i] < '0' || digits[i] > '9') return false;
    value = value * 10 + static_cast<unsigned long>(digits[i] - '0');
  }
  if (value > 65535) return false;
  std::memcpy(host, s, hostLen);
  host[hostLen] = '\0';
  *port = static_cast<unsigned short>(value);
  return true;
}

// A dotted IPv4 address in 224.0.0.0/4.
bool IsMulticastGroup(char const* host) {
  unsigned parts[4];
  char tail = 0;
  if (std::sscanf(host, "%3u.%3u.%3u.%3u%c", &parts[0], &parts[1], &parts[2], &parts[3], &tail) != 4)
    return false;
  for (unsigned p : parts) {
    if (p > 255) return false;
  }
  return parts[0] >= 224 && parts[0] <= 239;
}

}  // namespace

int SockUrl::Parse(char const* url) {
  *this = SockUrl{};
  if (url == nullptr) return 0;
  char const* rest = nullptr;
  SockUrl parsed;
  if (StartsWithNoCase(url, "file://", &rest)) {
    std::size_t n = std::strlen(rest);
    if (n == 0 || n > kMaxPath) return 0;
    std::memcpy(parsed.path, rest, n + 1);
    parsed.kind = kFile;
  } else if (StartsWithNoCase(url, "tcp-listen://", &rest)) {
    if (!SplitHostPort(rest, parsed.host, &parsed.port)) return 0;
    parsed.kind = kTcpListen;
  } else if (StartsWithNoCase(url, "tcp://", &rest)) {
    if (!SplitHostPort(rest, parsed.host, &parsed.port)) return 0;
    if (parsed.host[0] == '\0' || parsed.port == 0) return 0;
    parsed.kind = kTcp;
  } else if (StartsWithNoCase(url, "udp://@", &rest)) {
    if (!SplitHostPort(rest, parsed.host, &parsed.port)) return 0;
    if (!IsMulticastGroup(parsed.host)) return 0;
    parsed.kind = kUdpMulticast;
  } else if (StartsWithNoCase(url, "udp://", &rest)) {
    if (!SplitHostPort(rest, parsed.host, &parsed.port)) return 0;
    parsed.kind = kUdp;
  } else {
    return 0;
  }
  *this = parsed;
  return 1;
}
