#include "VellicorRepackCore/Base/Sha256Stream.h"

#include <array>
#include <stdexcept>

#include <openssl/evp.h>

namespace vellicor {

namespace {

constexpr std::size_t digestBytes = 32;

struct FreeContext {
  void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
};

void require(bool succeeded) {
  if (!succeeded) throw std::runtime_error("SHA-256 is not available");
}

std::string lowerCaseHex(std::span<const unsigned char> bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const unsigned char byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

}  // namespace

struct Sha256Stream::Hasher {
  std::unique_ptr<EVP_MD_CTX, FreeContext> context{EVP_MD_CTX_new()};
};

Sha256Stream::Sha256Stream() : hasher_(std::make_unique<Hasher>()) {
  require(hasher_->context != nullptr &&
          EVP_DigestInit_ex(hasher_->context.get(), EVP_sha256(), nullptr) == 1);
}

Sha256Stream::Sha256Stream(const Sha256Stream& other) : hasher_(std::make_unique<Hasher>()) {
  require(hasher_->context != nullptr &&
          EVP_MD_CTX_copy_ex(hasher_->context.get(), other.hasher_->context.get()) == 1);
}

Sha256Stream::~Sha256Stream() = default;
Sha256Stream::Sha256Stream(Sha256Stream&&) noexcept = default;
Sha256Stream& Sha256Stream::operator=(Sha256Stream&&) noexcept = default;

void Sha256Stream::update(std::span<const std::byte> bytes) {
  require(EVP_DigestUpdate(hasher_->context.get(), bytes.data(), bytes.size()) == 1);
}

std::string Sha256Stream::finalizeHexString() {
  std::array<unsigned char, digestBytes> digest;
  require(EVP_DigestFinal_ex(hasher_->context.get(), digest.data(), nullptr) == 1);
  return lowerCaseHex(digest);
}

std::string hashData(std::span<const std::byte> bytes) {
  Sha256Stream stream;
  stream.update(bytes);
  return stream.finalizeHexString();
}

void FingerprintWriter::append(std::string_view text) {
  append(std::uint64_t{text.size()});
  stream_.update(text);
}

void FingerprintWriter::append(std::uint64_t number) {
  std::array<std::byte, 8> littleEndian;
  for (std::byte& byte : littleEndian) {
    byte = static_cast<std::byte>(number & 0xff);
    number >>= 8;
  }
  stream_.update(littleEndian);
}

}  // namespace vellicor
