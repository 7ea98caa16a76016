#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vellicor {

/// The characters that the terminal can show.
enum class Glyphs { ascii, unicode };

/// UTF-8 text that can be shown without harm: every control character, every piece that is not UTF-8 and,
/// where only ASCII can be shown, every other character becomes one replacement character. For texts below
/// 2 GiB, as everything here is.
std::string displayText(std::string_view text, Glyphs glyphs);

/// The columns that a terminal needs for UTF-8 text: two for wide characters, none for combining ones. Where
/// terminals differ the larger number.
std::size_t displayColumns(std::string_view text);

/// The text, with its middle or its end cut out for an ellipsis so that it fits into `columns`.
std::string cutMiddle(const std::string& text, std::size_t columns, Glyphs glyphs);
std::string cutEnd(const std::string& text, std::size_t columns, Glyphs glyphs);

/// The text with line feeds in place of spaces, so that its lines fit into `columns` where words allow it.
std::string foldWords(const std::string& text, std::size_t columns);

/// "512 B", "6.05 MB", "14.2 GB", "142 GB": decimal units, three digits.
std::string bytesText(double bytes);
/// "6.0/14.2 GB": both in the unit and with the digits of the whole.
std::string bytesOfText(std::uint64_t part, std::uint64_t whole);
/// "0.4 s", "12 s", "6:54", "1:03:54".
std::string durationText(std::chrono::nanoseconds duration);
/// "0:12", "6:54", "1:03:54", or ">99 h".
std::string clockText(std::chrono::seconds duration);

}  // namespace vellicor
