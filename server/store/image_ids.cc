// Image ids: the hex SHA-256 of an image's bytes, the same for both engines.
#include <array>
#include <cstdint>
#include <span>
#include <string>

#include <openssl/evp.h>

#include "server/store.h"

namespace saffra::server {

namespace {

std::string sha256Hex(std::span<const std::uint8_t> bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    throw StoreError("cannot hash image");
  }
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

}  // namespace

std::string Store::imageIdOf(std::span<const std::uint8_t> png) {
  return sha256Hex(png);
}

bool isImageId(const std::string& id) {
  return id.size() == 64 && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace saffra::server
