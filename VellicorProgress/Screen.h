#pragma once

#include <cstddef>
#include <string>

#include "VellicorProgress/DisplayText.h"
#include "VellicorProgress/ProgressMeter.h"

namespace vellicor {

/// How text is to be drawn.
struct Look {
  enum class Colours { none, ansi };

  /// Of the terminal; a line takes at least one less, because writing the last one wraps on some terminals.
  std::size_t columns = 80;
  Colours colours = Colours::none;
  Glyphs glyphs = Glyphs::ascii;
};

/// How a phase came to its end.
enum class PhaseEnd { finished, stopped };

/// The line of a phase under way. Where it is too narrow for all of them, the parts of a copy go in this
/// order: reused share, rate, bytes, bar, time left; the phase and the percentage stay, a short bar returns
/// where it has room. Other phases lose the time, then the count, then a piece of the name.
std::string liveLine(const PhaseState& state, const Look& look);
/// The line that stays of a phase, cut at the width.
std::string endedLine(const PhaseState& state, PhaseEnd end, const Look& look);

/// The same for a log: no bar, no width, no colour.
std::string plainLine(const PhaseState& state, Glyphs glyphs);
std::string plainEndedLine(const PhaseState& state, PhaseEnd end);

}  // namespace vellicor
