// Oracles.h: independent implementations the services are checked against.
//
// Kept in their own file: zlib's adler32 and the crypto library's SHA1 have
// the same names as the library's own, and must not meet them in one file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace oracle {

// zlib's adler32 from start over the bytes.
std::uint32_t Adler32(std::uint32_t start, unsigned char const *data, std::size_t len);
// The crypto library's SHA-1 digest.
std::vector<unsigned char> Sha1(unsigned char const *data, std::size_t len);

}  // namespace oracle
