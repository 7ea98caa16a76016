#include "VellicorTerminal/SafeText.h"

#include <array>
#include <new>
#include <optional>

namespace vellicor {

namespace {

/// The character that a text begins with, and its bytes; nothing for a byte that is not UTF-8.
struct Character {
  std::string_view bytes;
  std::optional<char32_t> value;
};

std::size_t lengthAfter(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead < 0xE0) return 2;
  if (lead >= 0xE0 && lead < 0xF0) return 3;
  return lead >= 0xF0 && lead < 0xF5 ? 4 : 0;
}

Character firstCharacter(std::string_view text) {
  constexpr std::array<char32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};
  const Character malformed{text.substr(0, 1), std::nullopt};
  const auto lead = static_cast<unsigned char>(text[0]);
  const std::size_t length = lengthAfter(lead);
  if (length == 0 || length > text.size()) return malformed;
  if (length == 1) return {text.substr(0, 1), lead};
  char32_t value = lead & (0x7FU >> length);
  for (const char c : text.substr(1, length - 1)) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0U) != 0x80U) return malformed;
    value = value << 6 | (byte & 0x3FU);
  }
  const bool isSurrogate = value >= 0xD800 && value < 0xE000;
  if (value < smallest.at(length) || value > 0x10FFFF || isSurrogate) return malformed;
  return {text.substr(0, length), value};
}

std::string escapes(std::string_view bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 0xFU]);
  }
  return text;
}

/// Takes the first character off the text; returns it as it is to be written.
std::string takeEscaped(std::string_view& text, bool (*shows)(char32_t)) {
  const Character first = firstCharacter(text);
  text.remove_prefix(first.bytes.size());
  return first.value && shows(*first.value) ? std::string(first.bytes) : escapes(first.bytes);
}

}  // namespace

std::string escaped(std::string_view text, bool (*shows)(char32_t)) {
  std::string written;
  while (!text.empty()) written += takeEscaped(text, shows);
  return written;
}

bool isShown(char32_t character) {
  const auto isWithin = [character](char32_t first, char32_t last) {
    return character >= first && character <= last;
  };
  const bool isControl = character < 0x20 || isWithin(0x7F, 0x9F);
  const bool isDirection =
      character == 0x061C || isWithin(0x200E, 0x200F) || isWithin(0x202A, 0x202E) || isWithin(0x2066, 0x2069);
  const bool isSeparator = isWithin(0x2028, 0x2029);
  return !isControl && !isDirection && !isSeparator;
}

std::string errorLine(std::string_view text) {
  constexpr std::string_view ellipsis = "...";
  std::string line;
  std::size_t cut = 0;
  while (!text.empty() && line.size() <= maximumErrorLineBytes) {
    if (line.size() <= maximumErrorLineBytes - ellipsis.size()) cut = line.size();
    line += takeEscaped(text, isShown);
  }
  if (line.size() > maximumErrorLineBytes) line.replace(cut, std::string::npos, ellipsis);
  return line += '\n';
}

std::string_view reasonOf(const std::exception& error) {
  return dynamic_cast<const std::bad_alloc*>(&error) == nullptr ? error.what() : "not enough memory";
}

}  // namespace vellicor
