#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "VellicorProgress/ProgressMeter.h"
#include "VellicorTerminal/Escaping.h"

namespace vellicor {

/// The constant facts of a phase.
struct PhaseTraits {
  std::string_view label;
  /// Shown while there are no figures.
  std::string_view doing;
  /// The phase has no duration: its one event ends it.
  bool isMomentary = false;
  bool waitsForHub = false;
  /// From here on an install that fails leaves a saved download.
  bool isSaved = false;
};
PhaseTraits traitsOf(InstallPhase phase);

/// How text is drawn.
struct Look {
  enum class Colours { none, ansi };

  /// Of the terminal. A line stays one column shorter, because some terminals wrap after the last one.
  std::size_t columns = 80;
  Colours colours = Colours::none;
  Glyphs glyphs = Glyphs::ascii;
};

enum class PhaseEnd { finished, stopped };

/// The line of a phase under way. In a narrow window a copy loses its parts in this order: reused share,
/// rate, bytes, bar, time left. Phase and percentage stay, and a short bar returns where it fits. Other
/// phases lose the time, then the count, then a piece of the name.
std::string liveLine(const PhaseState& state, const Look& look);
/// The line that a phase leaves, cut at the width.
std::string endedLine(const PhaseState& state, PhaseEnd end, const Look& look);

/// The same for a log: no bar, no width, no colour.
std::string plainLine(const PhaseState& state, Glyphs glyphs);
std::string plainEndedLine(const PhaseState& state, PhaseEnd end);

}  // namespace vellicor
