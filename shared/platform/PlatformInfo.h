// PlatformInfo.h: which system the library runs on.
//
// The demultiplexer factory chooses its backend with these tests. Each is a
// constant of the build; any thread may call them.
#pragma once

#include "platform/Export.h"

SHAREDLIB_BEGIN_C
SHAREDLIB_API int IsLinux(void);
SHAREDLIB_API int IsApple(void);
SHAREDLIB_API int IsWindowsVistaOrHigher(void);
SHAREDLIB_END_C
