// Compat.h: C run-time routines the library uses that POSIX spells otherwise.
//
// On Windows these come from the C run-time itself. Elsewhere the library
// provides them with the same contracts, except that _snprintf and
// _vsnprintf always NUL-terminate a non-empty buffer here (the Windows ones
// leave it unterminated on truncation, which no caller relied on).
// Any thread may call them; none keeps state.
#pragma once

#include "platform/Export.h"

#include <cstdarg>
#include <cstddef>

#if defined(_WIN32)
#  include <stdio.h>
#  include <stdlib.h>
#  include <string.h>
#else
SHAREDLIB_BEGIN_C
// Case-insensitive comparison in the "C" sense of toupper/tolower.
SHAREDLIB_API int _stricmp(char const *a, char const *b);
SHAREDLIB_API int _strnicmp(char const *a, char const *b, std::size_t n);
// Signed conversion of value in radix 2..36 into buf (which must hold 34
// bytes for radix 2); a negative value gets a '-' in radix 10 only, as the
// Windows one does. Returns buf.
SHAREDLIB_API char *_itoa(int value, char *buf, int radix);
// Bounded formatting; returns the length written, or -1 when cut.
SHAREDLIB_API int _snprintf(char *buf, std::size_t size, char const *fmt, ...)
    __attribute__((format(printf, 3, 4)));
SHAREDLIB_API int _vsnprintf(char *buf, std::size_t size, char const *fmt, va_list args)
    __attribute__((format(printf, 3, 0)));
SHAREDLIB_END_C
#endif
