// DebugOutput.h: time and duration texts, the debug notice channel, and the
// console helpers of command-line programs.
//
// Time comes from the clock seam (platform/Clock.h): calendar seconds for
// dates and durations in seconds, the millisecond tick count for durations
// in milliseconds. Dates are local time.
//
// The debug channel: _DebugNotifyOnly formats a notice when its level is at
// most the process-wide error level (initially -1: every notice is skipped)
// and hands it to the sink chosen with SetDebugSink (initially none: the
// notice is dropped). Settings are process-wide and may change while threads
// emit notices; each notice reaches the sink as one whole line. The texts
// returned by GetDebugFile/GetDebugPath are rewritten in place by a later
// SetDebugFile/SetDebugPath: read them while setting up.
#pragma once

#include "platform/Export.h"
#include "platform/Types.h"

SHAREDLIB_BEGIN_C

// --- Time texts -------------------------------------------------------------

// Formats t (seconds since 1970; 0 = now) as local time with strftime's fmt
// into out (size bytes, NUL included); "" when it does not fit or t cannot be
// converted. With a blank fmt, or no usable out, the text is the classic
// "Sun Nov  2 19:01:11 2026" form instead: copied with CopyString(out, text,
// size) (so out must then hold size + 1 bytes) when out and size are given,
// else returned from a buffer of the calling thread.
SHAREDLIB_API char *GetFormatDate(__int64 t, char *out, unsigned size, char const *fmt);
// GetFormatDate of the current time.
SHAREDLIB_API char *GetSysTime(char *out, unsigned size, char const *fmt);
// Text of the time elapsed since start: with msecs 0, start and now are
// calendar seconds ("1day 1hr 1min 1sec", "2hrs 2mins 2secs", "0secs");
// otherwise they are tick counts in milliseconds ("1min 1sec 1msec",
// "0msecs"). A start in the future counts as no time elapsed. Copied with
// CopyString(out, text, size) when out and size are given (out holds
// size + 1 bytes); else returned from a buffer of the calling thread.
SHAREDLIB_API char *GetUptime(__int64 start, char *out, unsigned size, int msecs);

// --- Debug notice channel ---------------------------------------------------

// Notices with a level above this are skipped; -1 (the initial value) skips all.
SHAREDLIB_API void SetErrorLevel(int level);
SHAREDLIB_API int GetErrorLevel(void);
// Store a file name / a directory for debug output; blank or longer than 260
// characters empties it. Trailing blanks are trimmed.
SHAREDLIB_API void SetDebugFile(char const *name);
SHAREDLIB_API void SetDebugPath(char const *path);
SHAREDLIB_API char const *GetDebugFile(void);
SHAREDLIB_API char const *GetDebugPath(void);

// Where formatted notices go, one line "source: text" each.
enum {
  kDebugSinkNone = 0,    // dropped (the initial choice)
  kDebugSinkStderr = 1,  // standard error
  kDebugSinkFile = 2     // appended to <debug path>/<debug file>; nothing without a debug file
};
SHAREDLIB_API void SetDebugSink(int sink);
SHAREDLIB_API int GetDebugSink(void);

// A debug notice: "source: " and the formatted text, cut at 513 characters.
SHAREDLIB_API void _DebugNotifyOnly(int level, char const *source, char const *fmt, ...)
    __attribute__((format(printf, 3, 4)));

// --- Console ----------------------------------------------------------------

// Reads one line (its line end included) from standard input into a 513-byte
// buffer and copies min(size, 513) bytes of it into dst, the last of which
// becomes NUL. Returns dst, or null when nothing was read (end of input, null
// dst or size 0).
SHAREDLIB_API char *ConsoleReadLine(char *dst, unsigned size);
// Prints "\r\nPressione [Enter] para prosseguir..." and waits for one line of
// standard input, which it discards.
SHAREDLIB_API void ConsolePause(void);

SHAREDLIB_END_C
