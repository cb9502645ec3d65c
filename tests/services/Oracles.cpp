// Independent implementations the services are checked against, in a file
// of their own: zlib's adler32 and the crypto library's SHA1 must not meet the
// library's functions of the same names.
#include <cstddef>
#include <cstdint>
#include <vector>

#include <openssl/evp.h>
#include <zlib.h>

namespace oracle {

std::uint32_t Adler32(std::uint32_t start, unsigned char const *data, std::size_t len) {
  uLong sum = start;
  while (len > 0) {
    uInt chunk = len > (1u << 30) ? (1u << 30) : static_cast<uInt>(len);
    sum = ::adler32(sum, data, chunk);
    data += chunk;
    len -= chunk;
  }
  return static_cast<std::uint32_t>(sum);
}

std::vector<unsigned char> Sha1(unsigned char const *data, std::size_t len) {
  std::vector<unsigned char> md(EVP_MAX_MD_SIZE);
  unsigned int mdLen = 0;
  if (EVP_Digest(data, len, md.data(), &mdLen, EVP_sha1(), nullptr) != 1)
    return {};
  md.resize(mdLen);
  return md;
}

}  // namespace oracle
