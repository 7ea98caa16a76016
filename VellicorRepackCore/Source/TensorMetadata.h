#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorRepackCore/Source/SharedText.h"

namespace vellicor {

/// One tensor of one source shard.
struct SourceTensor {
  enum class Dtype : std::uint8_t { u32 = 0, bf16 = 1, fp16 = 2, fp32 = 3 };

  /// The element type of a safetensors dtype string ("U32", "BF16", "F16", "F32"), or nothing.
  static std::optional<Dtype> dtypeFromHeader(std::string_view text);
  /// "u32", "bf16", "fp16" or "fp32".
  static std::string_view dtypeName(Dtype dtype);
  /// Bytes of one element.
  static std::uint64_t elementBytes(Dtype dtype);

  std::string name;
  SharedText shardPath;
  Dtype dtype = Dtype::u32;
  std::vector<std::uint64_t> shape;
  /// Offset of the first byte in the shard file.
  std::uint64_t absoluteOffset = 0;
  std::uint64_t sizeBytes = 0;

  bool operator==(const SourceTensor&) const = default;
};

/// How one quantised tensor is packed.
struct QuantSpec {
  std::int64_t bits = 0;
  bool operator==(const QuantSpec&) const = default;
};

}  // namespace vellicor
