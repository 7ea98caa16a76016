#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace vellicor {

/// Constants and element types of the Morlen V1 artifact format.
struct MorlenFormatV1 {
  static constexpr std::string_view magic = "MORLEN";
  static constexpr std::int64_t versionMajor = 1;
  static constexpr std::int64_t versionMinor = 0;

  /// Alignment of data regions inside artifact files, in bytes.
  static constexpr std::uint64_t alignmentBytes = 16384;
  static constexpr std::size_t residentHeaderBytes = 24;
  static constexpr std::size_t residentEntryBytes = 72;
  /// The largest resident index that a V1 reader accepts, in bytes.
  static constexpr std::uint64_t residentIndexMaxBytes = 16777216;
  /// The largest manifest.json and layout.json that a V1 reader accepts, in bytes.
  static constexpr std::uint64_t manifestMaxBytes = 4194304;
  static constexpr std::uint64_t layoutMaxBytes = 16777216;

  /// The artifact's own entries, relative to its directory. All other names stand in the manifest.
  static constexpr const char* manifestPath = "manifest.json";
  static constexpr const char* receiptPath = "verified-install.json";
  static constexpr const char* weightsPath = "model_weights.bin";
  static constexpr const char* expertsDirectory = "packed_experts";
  static constexpr const char* layoutPath = "packed_experts/layout.json";
  static constexpr const char* tokenizerDirectory = "tokenizer";

  /// The path of a layer's file; `file` is its base name, as the layout gives it.
  static std::string layerPath(std::string_view file);

  /// The size of every layer's file, in bytes. Throws `MorlenFormatError` overflow(field).
  static std::uint64_t layerBytes(std::int64_t expertsPerLayer, std::uint64_t expertStride,
                                  std::string_view field);

  /// The only manifest flags that a V1 reader accepts.
  static constexpr std::array<std::string_view, 3> knownFlags = {"streamingPresent", "turboQuantKV",
                                                                 "aneSharedExpert"};

  /// Element type of a stored tensor; the value is the byte written to the file.
  enum class DType : std::uint8_t { u32 = 0, bf16 = 1, fp16 = 2, fp32 = 3 };

  /// The element type of a stored byte, or nothing for a byte that names none.
  static std::optional<DType> dtypeFromRaw(std::uint8_t raw);

  /// "u32", "bf16", "fp16" or "fp32".
  static std::string_view name(DType dtype);
};

/// The format library's one error. `what()` is the text a user sees: "<field>: <reason>".
class MorlenFormatError : public std::exception {
 public:
  struct Invalid {
    std::string field;
    std::string reason;
    bool operator==(const Invalid&) const = default;
  };
  struct Overflow {
    std::string field;
    bool operator==(const Overflow&) const = default;
  };
  struct Truncated {
    std::string field;
    bool operator==(const Truncated&) const = default;
  };
  using Payload = std::variant<Invalid, Overflow, Truncated>;

  static MorlenFormatError invalid(std::string field, std::string reason);
  static MorlenFormatError overflow(std::string field);
  static MorlenFormatError truncated(std::string field);

  const Payload& payload() const noexcept { return payload_; }
  /// The whole text; `what()` ends at a NUL character, which a hostile name may hold.
  const std::string& description() const noexcept { return text_; }
  const char* what() const noexcept override { return text_.c_str(); }
  bool operator==(const MorlenFormatError& other) const { return payload_ == other.payload_; }

 private:
  explicit MorlenFormatError(Payload payload);

  Payload payload_;
  std::string text_;
};

/// a + b. Throws `MorlenFormatError` overflow(field) when the sum does not fit in 64 bits.
std::uint64_t morlenCheckedAdd(std::uint64_t a, std::uint64_t b, std::string_view field);

/// a x b. Throws `MorlenFormatError` overflow(field) when the product does not fit in 64 bits.
std::uint64_t morlenCheckedMultiply(std::uint64_t a, std::uint64_t b, std::string_view field);

/// `value` rounded up to a multiple of `alignmentBytes`. Throws `MorlenFormatError` overflow(field).
std::uint64_t morlenRoundUpToAlignment(std::uint64_t value, std::string_view field);

/// The rules that every relative path named inside an artifact obeys.
struct MorlenPathValidator {
  /// Accepts a non-empty sequence of non-empty names joined by "/", none of them "." or "..", without NUL.
  /// Throws `MorlenFormatError` invalid(field, ...).
  static void validateRelativePath(std::string_view path, std::string_view field);

  /// Accepts a relative path of exactly one name. Throws `MorlenFormatError` invalid(field, ...).
  static void validateBasename(std::string_view name, std::string_view field);

  /// The key under which two paths are the same file on a file system that ignores case and normalization:
  /// NFC, then lower case.
  static std::string appleFilesystemKey(std::string_view path);
};

}  // namespace vellicor
