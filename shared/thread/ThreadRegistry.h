// ThreadRegistry.h: the process-wide list of live threads, for diagnostics.
//
// Every thread made by CreateIThread is listed under its kernel thread id
// with the text "<id in hex>(<id in decimal>) <name>" (at most 63
// characters) from its creation until its IThread is destroyed. The thread
// that loads the library is listed first as "<hex>(<dec>) Main Thread".
//
// Each call is atomic, but the listing cursor is shared by the whole process:
// one walk at a time. A text returned by ThreadMgr_ListFirst/ListNext stays
// valid until that thread's entry is removed; ThreadMgr_DisplayThreads walks
// under the registry lock and is always safe.
#pragma once

#include "platform/Export.h"

SHAREDLIB_BEGIN_C
// Moves the cursor to the first entry and stores its text: 1, or 0 when the
// registry is empty or not built.
SHAREDLIB_API int ThreadMgr_ListFirst(char const **text);
// Moves the cursor to the next entry and stores its text: 1, or 0 at the end.
SHAREDLIB_API int ThreadMgr_ListNext(char const **text);
// Walks the whole list under the registry lock and sends each text as a
// debug notice of level 0 from "ThreadMgr" (text/DebugOutput.h: shown once a
// program raises the error level and chooses a sink).
SHAREDLIB_API void ThreadMgr_DisplayThreads(void);
SHAREDLIB_END_C
