#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

namespace vellicor::fuzz {

using Bytes = std::span<const std::byte>;

/// A decoder of bytes that others choose.
struct Target {
  std::string_view name;
  /// Hands the bytes to the decoder and aborts with a text when what comes back is wrong; an exception that the
  /// decoder does not document leaves it.
  void (*run)(Bytes bytes);
  /// The cap that the system applies before it decodes.
  std::size_t maximumBytes;
};

extern const std::array<Target, 12> targets;

}  // namespace vellicor::fuzz
