#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "VellicorTerminal/Escaping.h"

namespace vellicor {

/// The columns that a terminal needs for UTF-8 text: two for wide characters, none for combining ones. Where
/// terminals differ, the larger number.
std::size_t displayColumns(std::string_view text);

/// Which part of a long text gives way to an ellipsis.
enum class Cut { beginning, middle, end };

/// The text, cut where it does not fit into `columns`.
std::string shortened(std::string_view text, std::size_t columns, Cut cut, Glyphs glyphs = Glyphs::ascii);

/// The text with line feeds in place of spaces, so that its lines fit into `columns` where words allow it.
std::string foldWords(const std::string& text, std::size_t columns);

}  // namespace vellicor
