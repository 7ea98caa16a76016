#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace vellicor {

/// One incremental SHA-256 (FIPS 180-4). Used by one thread, finished once; a copy goes on by itself from
/// where the original stands.
class Sha256Stream {
 public:
  Sha256Stream();
  ~Sha256Stream();
  Sha256Stream(const Sha256Stream& other);
  Sha256Stream(Sha256Stream&&) noexcept;
  Sha256Stream& operator=(Sha256Stream&&) noexcept;

  void update(std::span<const std::byte> bytes);
  void update(std::string_view text) { update(std::as_bytes(std::span(text.data(), text.size()))); }

  /// The digest as 64 lower-case hexadecimal characters.
  std::string finalizeHexString();

 private:
  struct Hasher;
  std::unique_ptr<Hasher> hasher_;
};

/// SHA-256 of a buffer as 64 lower-case hexadecimal characters.
std::string hashData(std::span<const std::byte> bytes);
inline std::string hashData(std::string_view text) {
  return hashData(std::as_bytes(std::span(text.data(), text.size())));
}

/// SHA-256 over a canonical stream of items: a string is its UTF-8 byte count (8 bytes, little-endian) and
/// its bytes, an integer is 8 bytes, little-endian. Identifying digests are built with it.
class FingerprintWriter {
 public:
  void append(std::string_view text);
  void append(std::uint64_t number);
  /// Bytes as they are, without a count.
  void appendBytes(std::span<const std::byte> bytes) { stream_.update(bytes); }
  std::string finalizeHexString() { return stream_.finalizeHexString(); }

 private:
  Sha256Stream stream_;
};

}  // namespace vellicor
