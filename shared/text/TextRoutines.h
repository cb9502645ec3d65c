// TextRoutines.h: C-style routines over NUL-terminated 8-bit text and
// fixed-size fields.
//
// Every fixed text field of the library (names of 63 characters, paths of
// 260) is filled through ajusta_str. Only the space (0x20) is a blank for
// trimming; iswhite alone also accepts the tab. Buffers belong to the caller:
// each routine says how many bytes it writes. Null arguments give empty
// results, never a crash. No routine keeps state; any thread may call them.
#pragma once

#include "platform/Export.h"

SHAREDLIB_BEGIN_C

// --- Copying and comparing --------------------------------------------------

// dst[0] = NUL; then, when src is non-null and n non-zero, copies at most n
// characters and writes dst[n] = NUL. dst must hold n + 1 bytes. Returns dst.
SHAREDLIB_API char *CopyString(char *dst, char const *src, unsigned n);
// strncpy: at most n characters, no NUL added when src has n or more.
SHAREDLIB_API char *fstrncpy(char *dst, char const *src, unsigned n);
// Case-insensitive comparison (<0, 0, >0).
SHAREDLIB_API int fstricmp(char const *a, char const *b);

// --- Blank tests and lengths ------------------------------------------------

// 1 when s is null, empty or only spaces.
SHAREDLIB_API int comp_branco(char const *s);
// 1 for space and tab.
SHAREDLIB_API int iswhite(char c);
// Length of s without its trailing spaces (0 for null).
SHAREDLIB_API int strlen_b(char *s);

// --- Trimming and fitting ---------------------------------------------------

// Copies src without its trailing spaces into dst; src may be dst. Returns dst.
SHAREDLIB_API char *trim(char const *src, char *dst);
// Skips leading spaces, then trim. src may be dst. Returns dst.
SHAREDLIB_API char *strim(char const *src, char *dst);
// Fits src into a field of n characters (dst holds n + 1 bytes), keeping
// leading blanks and dropping trailing ones. Returns dst.
SHAREDLIB_API char *ajusta_str(char const *src, char *dst, int n);
// ajusta_str, then upper case: the normal form of hash and registry keys.
SHAREDLIB_API char *ajusta_upp_str(char const *src, char *dst, int n);
// Map every character through toupper / tolower into dst (may be src).
SHAREDLIB_API char *upper(char const *src, char *dst);
SHAREDLIB_API char *lower(char const *src, char *dst);
// Copies the line before the first CR or LF (at most size - 1 characters)
// into dst and returns how many characters of src the line used, its end
// included (CR, LF and CR LF each count whole). With no line end: needEOL
// non-zero gives dst = "" and 0; otherwise the whole text is the line.
// 0 for a null src or dst or size 0.
SHAREDLIB_API int removeEOL(char const *src, char *dst, unsigned size, int needEOL);

// --- Fixed-width fields -----------------------------------------------------

// Formats src (cut to 512, trimmed: both ends for 'T', trailing otherwise)
// into exactly width characters plus NUL: 'C' centres, 'D' right-aligns with
// spaces, 'Z' right-aligns with zeros, anything else left-aligns. dst holds
// width + 1 bytes. Returns dst.
SHAREDLIB_API char *ajusta_string(char const *src, unsigned width, char mode, char *dst);
// ajusta_string, then exactly width bytes into dst without a NUL.
SHAREDLIB_API char *ajusta_str_buf(char const *src, unsigned width, char mode, char *dst);

// --- Character classes and numbers ------------------------------------------

// 1 when s is non-empty and made only of decimal digits (an optional leading
// sign is accepted when followed by a digit).
SHAREDLIB_API int is_number(char const *s);
// 1 for letters and digits.
SHAREDLIB_API int is_alphanum(char c);
// 1 for control characters (below 0x20, and 0x7F).
SHAREDLIB_API int isctrlchar(char c);
// 1 for the separators of protocol text: space, tab, CR, LF, NUL, and the
// punctuation , ; : = ( ) [ ] { } < > " '.
SHAREDLIB_API int isdelim(char c);
// 1 when c occurs in set (NUL never does).
SHAREDLIB_API int ch_in_str(char c, char const *set);
// Decimal text to int/long: leading blanks, an optional sign, then digits up
// to the first non-digit; 0 for null or no digits. Saturates instead of
// overflowing.
SHAREDLIB_API int latoi(char const *s);
SHAREDLIB_API long latol(char const *s);
// Hexadecimal text (optional 0x) to number; stops at the first non-hex digit.
SHAREDLIB_API unsigned long lhtol(char const *s);
// One hex digit to its value; -1 when c is not one.
SHAREDLIB_API int hctoi(char c);
// Decimal text of value into buf (which must hold 12 / 21 bytes). Returns buf.
SHAREDLIB_API char *litoa(int value, char *buf);
SHAREDLIB_API char *lltoa(long value, char *buf);

// --- Filtering and substitution ---------------------------------------------

// Replaces every from by to in s, in place. Returns the number replaced.
SHAREDLIB_API int SubstChar(char *s, char from, char to);
// Removes every control character from s, in place. Returns the new length.
SHAREDLIB_API int FilterCtrlChars(char *s);
// Removes every occurrence of c from s, in place. Returns the new length.
SHAREDLIB_API int FilterChar(char *s, char c);
// Copies into dst (size bytes, NUL included) the part of src before the first
// sep / after the last sep; the whole src / "" when sep is absent. Returns dst.
SHAREDLIB_API char *get_prefix(char const *src, char sep, char *dst, unsigned size);
SHAREDLIB_API char *get_suffix(char const *src, char sep, char *dst, unsigned size);
// Fills dst with n copies of c and a NUL (dst holds n + 1). Returns dst.
SHAREDLIB_API char *fill_string(char *dst, char c, unsigned n);

SHAREDLIB_END_C
