// Export.h: the one export macro of the public API and the C-linkage brackets.
//
// The library is built with hidden visibility; only declarations marked
// SHAREDLIB_API are part of the ABI. The plain C routines of the library
// (text routines, socket primitives, platform tests) are declared between
// SHAREDLIB_BEGIN_C and SHAREDLIB_END_C so they keep C linkage.
#pragma once

#if defined(_WIN32)
#  if defined(SHAREDLIB_BUILDING)
#    define SHAREDLIB_API __declspec(dllexport)
#  else
#    define SHAREDLIB_API __declspec(dllimport)
#  endif
#else
#  define SHAREDLIB_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#  define SHAREDLIB_BEGIN_C extern "C" {
#  define SHAREDLIB_END_C }
#else
#  define SHAREDLIB_BEGIN_C
#  define SHAREDLIB_END_C
#endif
