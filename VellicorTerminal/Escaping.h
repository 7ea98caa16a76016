#pragma once

#include <cstddef>
#include <exception>
#include <string>
#include <string_view>

namespace vellicor {

/// The characters that a terminal can show.
enum class Glyphs { ascii, unicode };

/// One character of a text, or one piece that is not UTF-8.
struct Character {
  static constexpr char32_t malformed = 0xFFFFFFFF;

  std::string_view bytes;
  char32_t value;
};
/// Takes the first character off `text`, which must not be empty.
Character takeCharacter(std::string_view& text);

/// `text` as a terminal may show it, with \xNN for every byte that is not UTF-8, of a character that is not
/// among the glyphs, and of one that a terminal obeys: control characters (C0, DEL, C1), those that change
/// the direction of text, and separators of lines.
std::string escaped(std::string_view text, Glyphs glyphs = Glyphs::unicode);

/// Without its line feed.
inline constexpr std::size_t maximumErrorLineBytes = 4096;

/// One line for standard error, with its line feed: escaped text that is cut with "..." at the limit, never
/// within a character or an escape.
std::string errorLine(std::string_view text);

/// The exception's own text, or plain words for an exception that has none.
std::string_view reasonOf(const std::exception& error);

}  // namespace vellicor
