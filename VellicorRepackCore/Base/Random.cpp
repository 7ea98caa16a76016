#include "VellicorRepackCore/Base/Random.h"

#include <array>
#include <stdexcept>

#include <fmt/format.h>
#include <openssl/rand.h>

namespace vellicor {

void fillRandom(std::span<unsigned char> bytes) {
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw std::runtime_error("the secure random source is not available");
  }
}

std::string randomUuid() {
  std::array<unsigned char, 16> bytes;
  fillRandom(bytes);
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);  // version 4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);  // the RFC's variant
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02X}", bytes[i]);
  }
  return text;
}

}  // namespace vellicor
