// Types.h: the platform names the library's interfaces are written in.
//
// The library was first written over Win32; these are the few Win32 types and
// constants that appear in public signatures, given their exact widths and
// values on every platform. Nothing here allocates or calls the system.
#pragma once

#include <cstdint>

#if defined(_WIN32)
#  include <winsock2.h>
#  include <windows.h>
#else
// Width-exact stand-ins for the Win32 names.
using __int64 = long long;  // NOLINT: the Win32 spelling
#  ifndef __stdcall
#    define __stdcall
#  endif
// 32 bits on every platform: results cross module boundaries and are
// compared with the Win32 values, which a 64-bit long would sign-extend.
using HRESULT = std::int32_t;
// The socket handle: the descriptor number as an unsigned 32-bit value.
using SOCKET = std::uint32_t;
constexpr SOCKET INVALID_SOCKET = 0xFFFFFFFFu;
constexpr int SOCKET_ERROR = -1;
#endif

// The five result codes of the stream interfaces, with their storage values.
#ifndef S_OK
constexpr HRESULT S_OK = 0;
#endif
#ifndef STG_S_BLOCK
constexpr HRESULT STG_S_BLOCK = static_cast<HRESULT>(0x00030201L);
#endif
#ifndef STG_E_ACCESSDENIED
constexpr HRESULT STG_E_ACCESSDENIED = static_cast<HRESULT>(static_cast<std::int32_t>(0x80030005u));
#endif
#ifndef STG_E_INVALIDPOINTER
constexpr HRESULT STG_E_INVALIDPOINTER = static_cast<HRESULT>(static_cast<std::int32_t>(0x80030009u));
#endif
#ifndef STG_E_INCOMPLETE
constexpr HRESULT STG_E_INCOMPLETE = static_cast<HRESULT>(static_cast<std::int32_t>(0x80030201u));
#endif

static_assert(sizeof(SOCKET) == 4, "socket handles are 32-bit values");
static_assert(sizeof(__int64) == 8, "__int64 is 64-bit");
static_assert(sizeof(HRESULT) == 4, "HRESULT is a 32-bit value");
