#pragma once

#include <cstddef>
#include <exception>
#include <string>
#include <string_view>

namespace vellicor {

/// `text` with \xNN for every byte of a character that `shows` refuses, and of what is not UTF-8.
std::string escaped(std::string_view text, bool (*shows)(char32_t character));

/// False for what a terminal obeys instead of showing it: control characters (C0, DEL, C1), those that change
/// the direction of text, and separators of lines.
bool isShown(char32_t character);

/// Without its line feed.
inline constexpr std::size_t maximumErrorLineBytes = 4096;

/// One line for standard error, with its line feed: `text` escaped where it `isShown` not, and cut with "..."
/// at the limit, within no character and no escape.
std::string errorLine(std::string_view text);

/// What the exception says, in plain words where it has none of its own.
std::string_view reasonOf(const std::exception& error);

}  // namespace vellicor
