// SHA-256 as lower-case hex digits. Link with OpenSSL::Crypto.
#pragma once

#include <openssl/sha.h>

#include <string>

namespace capsule::test {

inline std::string Sha256(const std::string& bytes) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(static_cast<const unsigned char*>(static_cast<const void*>(bytes.data())), bytes.size(),
         digest);
  std::string text;
  for (const unsigned char byte : digest) {
    constexpr const char* kDigits = "0123456789abcdef";
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

}  // namespace capsule::test
