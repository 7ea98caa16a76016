#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorRepackCore/Source/TensorMetadata.h"

namespace vellicor {

/// Reader of safetensors shard headers: an unsigned 64-bit little-endian header length, a JSON header, the
/// tensor data (https://github.com/huggingface/safetensors, "Format").
struct Safetensors {
  static constexpr std::uint64_t maximumHeaderBytes = 16777216;
  static constexpr std::uint64_t lengthPrefixBytes = 8;

  struct Header {
    /// In no particular order.
    std::vector<SourceTensor> tensors;
  };

  /// Validates one shard header. `headerBytes` is the JSON alone; `fileSize`, at least 8, is the whole
  /// shard's; `path` becomes every tensor's `shardPath`. Throws `RepackError`; JSON that does not parse is
  /// `JsonDecodingError`.
  static Header parseHeaderBytes(const std::string& path, std::uint64_t fileSize,
                                 std::string_view headerBytes);
};

}  // namespace vellicor
