#include "VellicorRepackCore/Base/AsciiText.h"

#include <algorithm>
#include <charconv>

namespace vellicor {

std::optional<std::uint64_t> parseUnsignedDecimal(std::string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  std::uint64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

std::string asciiLowercased(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lower;
}

}  // namespace vellicor
