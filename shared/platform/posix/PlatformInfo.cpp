#include "platform/PlatformInfo.h"

SHAREDLIB_BEGIN_C

int IsLinux(void) {
#if defined(__linux__)
  return 1;
#else
  return 0;
#endif
}

int IsApple(void) {
#if defined(__APPLE__)
  return 1;
#else
  return 0;
#endif
}

// A POSIX build never runs on Windows.
int IsWindowsVistaOrHigher(void) { return 0; }

SHAREDLIB_END_C
