#pragma once

#include <array>
#include <string_view>

namespace vellicor {

/// The supported checkpoint as data, compiled in: its shard index, byte for byte, and the JSON headers of its
/// shards (without their 8-byte length prefixes), byte for byte.
struct SupportedModelData {
  static std::string_view indexJson();
  static std::array<std::string_view, 3> shardHeaders();
};

}  // namespace vellicor
