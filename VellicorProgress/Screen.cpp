#include "VellicorProgress/Screen.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace vellicor {

namespace {

enum class Ink { plain, bold, done, failed, bar, reused };

constexpr std::size_t labelColumns = 10;
constexpr std::size_t rateColumns = 9;
constexpr std::size_t leftColumns = 12;
constexpr std::size_t shortestBar = 8;
constexpr std::size_t shortestLoneBar = 3;
constexpr std::size_t longestBar = 60;
constexpr std::size_t shortestName = 12;
constexpr std::string_view gap = "  ";

std::string_view labelOf(InstallPhase phase) {
  switch (phase) {
    case InstallPhase::metadata:
      return "Metadata";
    case InstallPhase::planning:
      return "Plan";
    case InstallPhase::checkingDisk:
      return "Disk space";
    case InstallPhase::reserving:
      return "Reserving";
    case InstallPhase::copying:
      return "Copying";
    case InstallPhase::hashing:
      return "Hashing";
    case InstallPhase::finalizing:
      return "Finalizing";
  }
  return "";
}

std::string_view codeOf(Ink ink) {
  switch (ink) {
    case Ink::plain:
      return "";
    case Ink::bold:
      return "\033[1m";
    case Ink::done:
      return "\033[32m";
    case Ink::failed:
      return "\033[31m";
    case Ink::bar:
      return "\033[36m";
    case Ink::reused:
      return "\033[34m";
  }
  return "";
}

/// A line under construction that knows its width, which colours do not change.
class Line {
 public:
  explicit Line(const Look& look) : look_(look) {}

  Line& add(std::string_view text, Ink ink = Ink::plain) {
    const bool isPainted = look_.colours == Look::Colours::ansi && ink != Ink::plain && !text.empty();
    if (isPainted) text_ += codeOf(ink);
    text_ += text;
    if (isPainted) text_ += "\033[0m";
    return *this;
  }
  std::string take() { return std::move(text_); }

 private:
  const Look& look_;
  std::string text_;
};

std::size_t usableColumns(const Look& look) { return look.columns > 1 ? look.columns - 1 : 1; }

std::string label(InstallPhase phase) { return fmt::format("{:<{}} ", labelOf(phase), labelColumns); }

// Filled cells in eighths where there are glyphs for them.
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

void addBar(Line& line, const PhaseState& state, std::size_t width, const Look& look) {
  const bool isFramed = look.glyphs == Glyphs::ascii;
  if (isFramed) width -= 2;
  const auto cellsWide = static_cast<double>(width);
  const auto reused = static_cast<std::size_t>(share(state.reusedBytes, state.totalBytes) * cellsWide);
  const double done = share(state.doneBytes, state.totalBytes) * cellsWide;
  if (isFramed) line.add("[");
  line.add(cells(static_cast<double>(reused), reused, look.glyphs), Ink::reused);
  line.add(cells(std::max(0.0, done - static_cast<double>(reused)), width - reused, look.glyphs), Ink::bar);
  if (isFramed) line.add("]");
}

std::string leftText(const PhaseState& state) {
  if (state.left) return clockText(*state.left) + " left";
  return state.rate ? "stalled" : "";
}

std::string rateText(double rate) { return bytesText(rate) + "/s"; }

std::string reusedText(const PhaseState& state) {
  return state.reusedBytes == 0 ? "" : fmt::format("{}% reused", state.reusedPercent());
}

/// The parts of a copy's line that may be left out, with the columns they take.
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

// Every part has a width of its own, so that the bar does not jump while numbers change.
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
    Line line(look);
    line.add(label(state.phase), Ink::bold);
    if (parts.bar) {
      addBar(line, state, std::min(columns - others - 1, longestBar), look);
      line.add(" ");
    }
    return line.add(figures).take();
  }
  return cutEnd(fmt::format("{} {}%", labelOf(state.phase), state.percent()), columns, look.glyphs);
}

std::string waitingText(const PhaseState& state) {
  constexpr std::string_view offline = "no network; waiting for one";
  if (state.isOffline && state.phase == InstallPhase::copying) {
    return fmt::format("{}%, {}", state.percent(), offline);
  }
  if (state.isOffline) return std::string(offline);
  switch (state.phase) {
    case InstallPhase::metadata:
      return "reading the source's metadata and any saved download";
    case InstallPhase::planning:
      return fmt::format("{} of source, {} of output", bytesText(static_cast<double>(state.totalBytes)),
                         bytesText(static_cast<double>(state.outputBytes)));
    case InstallPhase::checkingDisk:
      return "enough is free";
    case InstallPhase::reserving:
      return fmt::format("{} for the output", bytesText(static_cast<double>(state.outputBytes)));
    case InstallPhase::finalizing:
      return "writing the manifest, moving the artifact into place";
    case InstallPhase::copying:
    case InstallPhase::hashing:
      return "";
  }
  return "";
}

std::string hashLine(const PhaseState& state, const Look& look) {
  const std::string name = displayText(state.file, look.glyphs);
  const std::size_t columns = usableColumns(look);
  const std::string count = fmt::format("{}file {}", gap, state.files);
  const std::string time = fmt::format("{}{}", gap, durationText(state.elapsed));
  for (const std::string& figures : {count + time, count, std::string()}) {
    const std::size_t others = labelColumns + 1 + figures.size();
    const std::size_t needed = std::min(shortestName, displayColumns(name));
    if (others > columns || columns - others < needed) continue;
    const std::string shown = cutMiddle(name, columns - others, look.glyphs);
    return Line(look).add(label(state.phase), Ink::bold).add(shown).add(figures).take();
  }
  return cutEnd(label(state.phase) + name, columns, look.glyphs);
}

std::string waitLine(const PhaseState& state, const Look& look) {
  const std::size_t columns = usableColumns(look);
  const std::string time = fmt::format("{}{}", gap, durationText(state.elapsed));
  const std::string text = waitingText(state) + time;
  if (labelColumns + 1 + text.size() <= columns) {
    return Line(look).add(label(state.phase), Ink::bold).add(text).take();
  }
  return cutEnd(label(state.phase) + waitingText(state), columns, look.glyphs);
}

std::string_view countedFiles(std::uint64_t files) { return files == 1 ? "file" : "files"; }

std::string copiedText(const PhaseState& state) {
  if (state.fetchedBytes() == 0) {
    return fmt::format("nothing to fetch, {} reused", bytesText(static_cast<double>(state.reusedBytes)));
  }
  const auto fetched = static_cast<double>(state.fetchedBytes());
  const double seconds = std::chrono::duration<double>(state.elapsed).count();
  std::string text = fmt::format("{} fetched in {}", bytesText(fetched), durationText(state.elapsed));
  if (seconds >= 1) text += fmt::format(", {}", rateText(fetched / seconds));
  if (state.reusedBytes > 0) {
    text += fmt::format(", {} ({}%) reused", bytesText(static_cast<double>(state.reusedBytes)),
                        state.reusedPercent());
  }
  return text;
}

std::string finishedText(const PhaseState& state) {
  switch (state.phase) {
    case InstallPhase::copying:
      return copiedText(state);
    case InstallPhase::hashing:
      return fmt::format("{} {} in {}", state.files, countedFiles(state.files), durationText(state.elapsed));
    case InstallPhase::planning:
    case InstallPhase::checkingDisk:
      return waitingText(state);
    case InstallPhase::reserving:
      return fmt::format("{} in {}", waitingText(state), durationText(state.elapsed));
    case InstallPhase::metadata:
    case InstallPhase::finalizing:
      return fmt::format("done in {}", durationText(state.elapsed));
  }
  return "";
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

std::string liveLine(const PhaseState& state, const Look& look) {
  if (state.isOffline) return waitLine(state, look);
  switch (state.phase) {
    case InstallPhase::copying:
      return copyLine(state, look);
    case InstallPhase::hashing:
      return hashLine(state, look);
    case InstallPhase::metadata:
    case InstallPhase::planning:
    case InstallPhase::checkingDisk:
    case InstallPhase::reserving:
    case InstallPhase::finalizing:
      return waitLine(state, look);
  }
  return "";
}

std::string endedLine(const PhaseState& state, PhaseEnd end, const Look& look) {
  const std::string text =
      cutEnd(label(state.phase) + endedText(state, end), usableColumns(look), look.glyphs);
  const std::string_view shown = text;
  const std::size_t painted = std::min(labelColumns, shown.size());
  return Line(look)
      .add(shown.substr(0, painted), end == PhaseEnd::finished ? Ink::done : Ink::failed)
      .add(shown.substr(painted))
      .take();
}

std::string plainLine(const PhaseState& state, Glyphs glyphs) {
  std::vector<std::string> parts;
  const bool isOnline = !state.isOffline;
  if (isOnline && state.phase == InstallPhase::copying) {
    parts = {fmt::format("{}%", state.percent()), bytesOfText(state.doneBytes, state.totalBytes),
             state.rate ? rateText(*state.rate) : "", leftText(state), reusedText(state)};
  } else if (isOnline && state.phase == InstallPhase::hashing) {
    parts = {displayText(state.file, glyphs), fmt::format("file {}", state.files)};
  } else {
    parts = {waitingText(state)};
  }
  std::erase(parts, "");
  return fmt::format("{}: {}", labelOf(state.phase), fmt::join(parts, ", "));
}

std::string plainEndedLine(const PhaseState& state, PhaseEnd end) {
  return fmt::format("{}: {}", labelOf(state.phase), endedText(state, end));
}

}  // namespace vellicor
