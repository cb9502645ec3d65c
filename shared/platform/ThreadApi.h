// ThreadApi.h: the operating system's threads, behind thin wrappers.
//
// The thread classes of shared/thread/ are written against these few calls
// and never against the OS API itself. A native thread is started running
// (suspension is built above this layer), joined or detached exactly once by
// its owner, and may end itself early with ThreadExitCurrent.
//
// Any thread may call any function here; each says which thread it acts on.
#pragma once

#include "platform/Export.h"

#include <cstddef>
#include <cstdint>

namespace shared::platform {

// An opaque native thread handle, valid until joined or detached.
using NativeThread = std::uintptr_t;

// Longest thread name the OS keeps, in characters (longer names are cut).
SHAREDLIB_API std::size_t MaxThreadNameLength();

// Starts fn(arg) on a new OS thread with default attributes; the thread
// exists when this returns true. false (and *out untouched) when the OS
// refuses, for example for lack of resources.
SHAREDLIB_API bool ThreadStart(void (*fn)(void *), void *arg, NativeThread *out);
// Waits for the thread to end and releases it. Never on the thread itself.
SHAREDLIB_API void ThreadJoin(NativeThread thread);
// Lets the thread release itself when it ends. May be called on the thread.
SHAREDLIB_API void ThreadDetach(NativeThread thread);
// True when the calling thread is thread.
SHAREDLIB_API bool ThreadIsCurrent(NativeThread thread);
// Ends the calling thread. C++ destructors of the frames being left run
// (the stack is unwound), so scope guards still release what they hold.
[[noreturn]] SHAREDLIB_API void ThreadExitCurrent();

// The kernel's id of the calling thread (what debuggers and `top -H` show).
SHAREDLIB_API unsigned long CurrentThreadId();
// Names the calling thread for debuggers and process listings, cut to
// MaxThreadNameLength() characters. Null or empty names are ignored.
SHAREDLIB_API void SetCurrentThreadName(char const *name);

}  // namespace shared::platform
