#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vellicor {

/// An unsigned 64-bit decimal number, a leading "+" allowed; nothing for any other text.
std::optional<std::uint64_t> parseUnsignedDecimal(std::string_view text);

/// ASCII lower case, as header values, hosts and schemes compare.
std::string asciiLowercased(std::string_view text);

}  // namespace vellicor
