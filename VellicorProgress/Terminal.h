#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "VellicorProgress/Screen.h"
#include "VellicorProgress/Viewer.h"

namespace vellicor {

inline constexpr std::size_t usualColumns = 80;

/// What decides how standard output is written to.
struct TerminalFacts {
  bool isTerminal = false;
  /// Of the window; nothing when it has none.
  std::optional<std::size_t> columns{};
  /// The environment: TERM, NO_COLOR, COLUMNS and the first of LC_ALL, LC_CTYPE, LANG that is set; an empty
  /// variable counts as none.
  std::optional<std::string> type{};
  std::optional<std::string> noColour{};
  std::optional<std::string> columnsVariable{};
  std::optional<std::string> locale{};

  /// Of the process's own standard output and environment.
  static TerminalFacts ofStandardOutput();

  /// Live on a terminal that is not a dumb one.
  Viewer::Mode mode() const;
  /// Colour where live and without NO_COLOR; glyphs beyond ASCII where the locale is a UTF-8 one; the
  /// window's width, then COLUMNS, then 80.
  Look look() const;
};

/// Whether this process may draw: its terminal has it in the foreground, or is not its controlling one.
bool isInForeground(int terminal);

}  // namespace vellicor
