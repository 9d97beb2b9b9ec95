// SHA-256 in hexadecimal, as the corpus tables print it.
#pragma once

#include <string>
#include <string_view>

#include <openssl/sha.h>

namespace zel::test {

inline std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
  std::string out;
  for (const unsigned char byte : digest) {
    out += "0123456789abcdef"[byte >> 4];
    out += "0123456789abcdef"[byte & 15];
  }
  return out;
}

}  // namespace zel::test
