// Adler32.h: the Adler-32 checksum, used by the index block of recordings.
//
// C++ linkage on purpose: a C symbol of this name would collide with (and
// could silently replace) the one of a compression or crypto library linked
// into the same program.
//
// Keeps no state; any thread may call it.
#pragma once

#include "platform/Export.h"

#include <cstddef>
#include <cstdint>

// Continues the checksum adler over len bytes of buf and returns it. Start
// from 1 for the standard checksum; the recording index block starts from 0.
// The halves of adler are taken modulo 65521. A null buf returns adler.
SHAREDLIB_API std::uint32_t adler32(std::uint32_t adler, void const *buf, std::size_t len);
