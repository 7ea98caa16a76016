#include "VellicorProgress/Screen.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <fmt/format.h>

#include "VellicorTerminal/TerminalText.h"
#include "VellicorTerminal/Units.h"

namespace vellicor {

namespace {

using Ink = std::string_view;
constexpr Ink boldInk = "\033[1m";
constexpr Ink doneInk = "\033[32m";
constexpr Ink failedInk = "\033[31m";
constexpr Ink barInk = "\033[36m";
constexpr Ink reusedInk = "\033[34m";

constexpr std::size_t labelColumns = 10;
constexpr std::size_t rateColumns = 9;
constexpr std::size_t leftColumns = 12;
constexpr std::size_t shortestBar = 8;
constexpr std::size_t shortestLoneBar = 3;
constexpr std::size_t longestBar = 60;
constexpr std::size_t shortestName = 12;
constexpr std::string_view gap = "  ";

std::string painted(std::string_view text, Ink ink, const Look& look) {
  const bool isPlain = look.colours == Look::Colours::none || text.empty();
  return isPlain ? std::string(text) : fmt::format("{}{}\033[0m", ink, text);
}

std::size_t usableColumns(const Look& look) { return look.columns > 1 ? look.columns - 1 : 1; }

std::string label(InstallPhase phase) { return fmt::format("{:<{}} ", traitsOf(phase).label, labelColumns); }

// Glyphs fill cells in eighths.
std::string cells(double filled, std::size_t width, Glyphs glyphs) {
  constexpr std::array<std::string_view, 8> eighths = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
  std::string text;
  if (glyphs == Glyphs::ascii) {
    text.append(static_cast<std::size_t>(filled), '#');
    text.append(width - text.size(), '-');
    return text;
  }
  const auto count = static_cast<std::size_t>(filled * 8);
  for (std::size_t i = 0; i < count / 8; ++i) text += "█";
  text += eighths.at(count % 8);
  for (std::size_t i = (count + 7) / 8; i < width; ++i) text += "░";
  return text;
}

double share(std::uint64_t part, std::uint64_t whole) {
  return whole == 0 ? 1 : static_cast<double>(part) / static_cast<double>(whole);
}

std::string bar(const PhaseState& state, std::size_t width, const Look& look) {
  const bool isFramed = look.glyphs == Glyphs::ascii;
  if (isFramed) width -= 2;
  const auto cellsWide = static_cast<double>(width);
  const auto reused = static_cast<std::size_t>(share(state.reusedBytes, state.totalBytes) * cellsWide);
  const double done = share(state.doneBytes, state.totalBytes) * cellsWide;
  const double fetched = std::max(0.0, done - static_cast<double>(reused));
  const std::string filled =
      painted(cells(static_cast<double>(reused), reused, look.glyphs), reusedInk, look) +
      painted(cells(fetched, width - reused, look.glyphs), barInk, look);
  return isFramed ? "[" + filled + "]" : filled;
}

std::string leftText(const PhaseState& state) {
  if (state.left) return clockText(*state.left) + " left";
  return state.rate ? "stalled" : "";
}

std::string rateText(double rate) { return bytesText(rate) + "/s"; }

std::string reusedText(const PhaseState& state) {
  return state.reusedBytes == 0 ? "" : fmt::format("{}% reused", state.reusedPercent());
}

/// The parts of a copy's line that may be left out.
struct CopyParts {
  bool bar = true;
  bool bytes = true;
  bool rate = true;
  bool left = true;
  bool reused = true;
};
constexpr std::array copyForms = {
    CopyParts{},
    CopyParts{.reused = false},
    CopyParts{.rate = false, .reused = false},
    CopyParts{.bytes = false, .rate = false, .reused = false},
    CopyParts{.bar = false, .bytes = false, .rate = false, .reused = false},
    CopyParts{.bytes = false, .rate = false, .left = false, .reused = false},
    CopyParts{.bar = false, .bytes = false, .rate = false, .left = false, .reused = false},
};

// Every part has a fixed width, so that the bar does not jump while numbers change.
std::string copyFigures(const PhaseState& state, const CopyParts& parts) {
  std::string text = fmt::format("{:3}%", state.percent());
  if (parts.bytes) {
    const std::size_t widest = bytesOfText(state.totalBytes, state.totalBytes).size();
    text += fmt::format("{}{:>{}}", gap, bytesOfText(state.doneBytes, state.totalBytes), widest);
  }
  if (parts.rate) {
    text += fmt::format("{}{:>{}}", gap, state.rate ? rateText(*state.rate) : "", rateColumns);
  }
  if (parts.left) text += fmt::format("{}{:>{}}", gap, leftText(state), leftColumns);
  const std::string reused = reusedText(state);
  if (parts.reused && !reused.empty()) text += fmt::format("{}{}", gap, reused);
  return text;
}

std::string copyLine(const PhaseState& state, const Look& look) {
  const std::size_t columns = usableColumns(look);
  for (const CopyParts& parts : copyForms) {
    const std::string figures = copyFigures(state, parts);
    const std::size_t others = labelColumns + 1 + figures.size();
    const std::size_t barAndGap = parts.bar ? (parts.left ? shortestBar : shortestLoneBar) + 1 : 0;
    if (others > columns || columns - others < barAndGap) continue;
    const std::string drawn =
        parts.bar ? bar(state, std::min(columns - others - 1, longestBar), look) + " " : "";
    return painted(label(state.phase), boldInk, look).append(drawn).append(figures);
  }
  const std::string least = fmt::format("{} {}%", traitsOf(state.phase).label, state.percent());
  return shortened(least, columns, Cut::end, look.glyphs);
}

std::string waitingText(const PhaseState& state) {
  constexpr std::string_view offline = "no network; waiting for one";
  if (state.isOffline && state.phase == InstallPhase::copying) {
    return fmt::format("{}%, {}", state.percent(), offline);
  }
  if (state.isOffline) return std::string(offline);
  if (state.phase == InstallPhase::planning) {
    return fmt::format("{} of source, {} of output", bytesText(state.totalBytes),
                       bytesText(state.outputBytes));
  }
  if (state.phase == InstallPhase::reserving) {
    return fmt::format("{} for the output", bytesText(state.outputBytes));
  }
  return std::string(traitsOf(state.phase).doing);
}

/// The label, a text of which at least `shortest` columns must show, and the first of the figures that fit.
std::string textLine(const PhaseState& state, const std::string& text, std::size_t shortest,
                     const std::vector<std::string>& figures, const Look& look) {
  const std::size_t columns = usableColumns(look);
  for (const std::string& added : figures) {
    const std::size_t others = labelColumns + 1 + added.size();
    if (others > columns || columns - others < shortest) continue;
    return painted(label(state.phase), boldInk, look) +
           shortened(text, columns - others, Cut::middle, look.glyphs) + added;
  }
  return shortened(label(state.phase) + text, columns, Cut::end, look.glyphs);
}

std::string hashLine(const PhaseState& state, const Look& look) {
  const std::string name = escaped(state.file, look.glyphs);
  const std::string count = fmt::format("{}file {}", gap, state.files);
  const std::string time = fmt::format("{}{}", gap, durationText(state.elapsed));
  return textLine(state, name, std::min(shortestName, displayColumns(name)), {count + time, count, ""}, look);
}

std::string waitLine(const PhaseState& state, const Look& look) {
  const std::string text = waitingText(state);
  return textLine(state, text, text.size(), {fmt::format("{}{}", gap, durationText(state.elapsed))}, look);
}

std::string copiedText(const PhaseState& state) {
  if (state.fetchedBytes() == 0) {
    return fmt::format("nothing to fetch, {} reused", bytesText(state.reusedBytes));
  }
  const std::uint64_t fetched = state.fetchedBytes();
  const double seconds = std::chrono::duration<double>(state.elapsed).count();
  std::string text = fmt::format("{} fetched in {}", bytesText(fetched), durationText(state.elapsed));
  if (seconds >= 1) text += fmt::format(", {}", rateText(static_cast<double>(fetched) / seconds));
  if (state.reusedBytes > 0) {
    text += fmt::format(", {} ({}%) reused", bytesText(state.reusedBytes), state.reusedPercent());
  }
  return text;
}

std::string finishedText(const PhaseState& state) {
  const std::string time = durationText(state.elapsed);
  if (state.phase == InstallPhase::copying) return copiedText(state);
  if (state.phase == InstallPhase::hashing) {
    return fmt::format("{} {} in {}", state.files, state.files == 1 ? "file" : "files", time);
  }
  if (traitsOf(state.phase).isMomentary) return waitingText(state);
  const std::string done = state.phase == InstallPhase::reserving ? waitingText(state) : "done";
  return fmt::format("{} in {}", done, time);
}

std::string stoppedText(const PhaseState& state) {
  if (state.phase != InstallPhase::copying) {
    return fmt::format("stopped after {}", durationText(state.elapsed));
  }
  return fmt::format("stopped at {}%, {}, after {}", state.percent(),
                     bytesOfText(state.doneBytes, state.totalBytes), durationText(state.elapsed));
}

std::string endedText(const PhaseState& state, PhaseEnd end) {
  return end == PhaseEnd::finished ? finishedText(state) : stoppedText(state);
}

}  // namespace

PhaseTraits traitsOf(InstallPhase phase) {
  switch (phase) {
    case InstallPhase::metadata:
      return {.label = "Metadata",
              .doing = "reading the source's metadata and any saved download",
              .waitsForHub = true};
    case InstallPhase::planning:
      return {.label = "Plan", .doing = "", .isMomentary = true};
    case InstallPhase::checkingDisk:
      return {.label = "Disk space", .doing = "enough is free", .isMomentary = true};
    case InstallPhase::reserving:
      return {.label = "Reserving", .doing = ""};
    case InstallPhase::copying:
      return {.label = "Copying", .doing = "", .waitsForHub = true, .isSaved = true};
    case InstallPhase::hashing:
      return {.label = "Hashing", .doing = "", .isSaved = true};
    case InstallPhase::finalizing:
      return {.label = "Finalizing",
              .doing = "writing the manifest, moving the artifact into place",
              .isSaved = true};
  }
  std::abort();
}

std::string liveLine(const PhaseState& state, const Look& look) {
  if (state.isOffline) return waitLine(state, look);
  if (state.phase == InstallPhase::copying) return copyLine(state, look);
  return state.phase == InstallPhase::hashing ? hashLine(state, look) : waitLine(state, look);
}

std::string endedLine(const PhaseState& state, PhaseEnd end, const Look& look) {
  const std::string text =
      shortened(label(state.phase) + endedText(state, end), usableColumns(look), Cut::end, look.glyphs);
  const std::string_view shown = text;
  const std::size_t labelEnd = std::min(labelColumns, shown.size());
  const Ink ink = end == PhaseEnd::finished ? doneInk : failedInk;
  return painted(shown.substr(0, labelEnd), ink, look) + text.substr(labelEnd);
}

std::string plainLine(const PhaseState& state, Glyphs glyphs) {
  std::vector<std::string> parts;
  const bool isOnline = !state.isOffline;
  if (isOnline && state.phase == InstallPhase::copying) {
    parts = {fmt::format("{}%", state.percent()), bytesOfText(state.doneBytes, state.totalBytes),
             state.rate ? rateText(*state.rate) : "", leftText(state), reusedText(state)};
  } else if (isOnline && state.phase == InstallPhase::hashing) {
    parts = {escaped(state.file, glyphs), fmt::format("file {}", state.files)};
  } else {
    parts = {waitingText(state)};
  }
  std::erase(parts, "");
  return fmt::format("{}: {}", traitsOf(state.phase).label, fmt::join(parts, ", "));
}

std::string plainEndedLine(const PhaseState& state, PhaseEnd end) {
  return fmt::format("{}: {}", traitsOf(state.phase).label, endedText(state, end));
}

}  // namespace vellicor
