#pragma once

#include <cstddef>

#include "VellicorProgress/Screen.h"
#include "VellicorProgress/Viewer.h"

namespace vellicor {

inline constexpr std::size_t usualColumns = 80;

/// How to write to standard output.
struct Terminal {
  bool isTerminal = false;
  /// Live on every terminal that is not dumb.
  Viewer::Mode mode = Viewer::Mode::plain;
  /// Colours in live mode without NO_COLOR, Unicode glyphs in a UTF-8 locale, and the width of the window,
  /// else COLUMNS, else 80.
  Look look;

  /// Looks at the process's own standard output and environment. An empty variable counts as not set.
  static Terminal ofStandardOutput();
};

/// Whether this process may draw: it is in the foreground of the terminal, or the terminal does not control
/// it.
bool isInForeground(int terminal);

}  // namespace vellicor
