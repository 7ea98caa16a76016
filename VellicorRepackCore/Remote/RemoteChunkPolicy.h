#pragma once

#include <cstdint>

namespace vellicor {

/// Sizes of range requests, in bytes. A configured size lies between 1 and `maxBytes`.
struct RemoteChunkPolicy {
  static constexpr std::int64_t defaultBytes = 67108864;
  static constexpr std::int64_t maxBytes = 67108864;
};

}  // namespace vellicor
