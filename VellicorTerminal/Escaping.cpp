#include "VellicorTerminal/Escaping.h"

#include <cstdint>
#include <new>

#include <unicode/utf8.h>

namespace vellicor {

namespace {

std::string escapes(std::string_view bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 0xFU]);
  }
  return text;
}

bool isShown(char32_t character, Glyphs glyphs) {
  const auto isWithin = [character](char32_t first, char32_t last) {
    return character >= first && character <= last;
  };
  if (glyphs == Glyphs::ascii) return isWithin(0x20, 0x7E);
  const bool isControl = character < 0x20 || isWithin(0x7F, 0x9F);
  const bool isDirection =
      character == 0x061C || isWithin(0x200E, 0x200F) || isWithin(0x202A, 0x202E) || isWithin(0x2066, 0x2069);
  const bool isSeparator = isWithin(0x2028, 0x2029);
  return character != Character::malformed && !isControl && !isDirection && !isSeparator;
}

std::string takeEscaped(std::string_view& text, Glyphs glyphs) {
  const Character first = takeCharacter(text);
  return isShown(first.value, glyphs) ? std::string(first.bytes) : escapes(first.bytes);
}

}  // namespace

Character takeCharacter(std::string_view& text) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  std::size_t length = 0;
  std::int32_t value = 0;
  U8_NEXT(bytes, length, text.size(), value);
  const Character taken{text.substr(0, length),
                        value < 0 ? Character::malformed : static_cast<char32_t>(value)};
  text.remove_prefix(length);
  return taken;
}

std::string escaped(std::string_view text, Glyphs glyphs) {
  std::string written;
  while (!text.empty()) written += takeEscaped(text, glyphs);
  return written;
}

std::string errorLine(std::string_view text) {
  constexpr std::string_view ellipsis = "...";
  std::string line;
  std::size_t cut = 0;
  while (!text.empty() && line.size() <= maximumErrorLineBytes) {
    if (line.size() <= maximumErrorLineBytes - ellipsis.size()) cut = line.size();
    line += takeEscaped(text, Glyphs::unicode);
  }
  if (line.size() > maximumErrorLineBytes) line.replace(cut, std::string::npos, ellipsis);
  return line += '\n';
}

std::string_view reasonOf(const std::exception& error) {
  return dynamic_cast<const std::bad_alloc*>(&error) == nullptr ? error.what() : "not enough memory";
}

}  // namespace vellicor
