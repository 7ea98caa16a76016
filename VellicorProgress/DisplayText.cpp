#include "VellicorProgress/DisplayText.h"

#include <array>
#include <sstream>
#include <vector>

#include <fmt/format.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

namespace vellicor {

namespace {

constexpr UChar32 emojiPresentation = 0xFE0F;
constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

std::size_t columnsOf(UChar32 character) {
  // It makes the character before it a wide one.
  if (character == emojiPresentation) return 1;
  const auto category = static_cast<UCharCategory>(u_charType(character));
  if (category == U_NON_SPACING_MARK || category == U_ENCLOSING_MARK) return 0;
  const auto width = static_cast<UEastAsianWidth>(u_getIntPropertyValue(character, UCHAR_EAST_ASIAN_WIDTH));
  return width == U_EA_WIDE || width == U_EA_FULLWIDTH ? 2 : 1;
}

// Calls `take` with each character.
template <typename Take>
void forEachCharacter(std::string_view text, Take&& take) {
  const icu::UnicodeString decoded =
      icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
  for (std::int32_t at = 0; at < decoded.length(); at = decoded.moveIndex32(at, 1))
    take(decoded.char32At(at));
}

void append(UChar32 character, std::string& text) { icu::UnicodeString(character).toUTF8String(text); }

/// One character with the combining ones behind it.
struct Cluster {
  std::string text;
  std::size_t columns = 0;
};

std::vector<Cluster> clustersOf(std::string_view text) {
  std::vector<Cluster> clusters;
  forEachCharacter(text, [&](UChar32 character) {
    const std::size_t columns = columnsOf(character);
    const bool isCombining = columns == 0 || character == emojiPresentation;
    if (clusters.empty() || !isCombining) clusters.emplace_back();
    append(character, clusters.back().text);
    clusters.back().columns += columns;
  });
  return clusters;
}

std::string_view ellipsis(Glyphs glyphs) { return glyphs == Glyphs::unicode ? "\xE2\x80\xA6" : "..."; }

bool isShowable(UChar32 character, Glyphs glyphs) {
  if (character < 0x20 || character == 0x7F) return false;
  if (glyphs == Glyphs::ascii) return character < 0x80;
  const auto category = static_cast<UCharCategory>(u_charType(character));
  return category != U_CONTROL_CHAR && category != U_FORMAT_CHAR && category != U_LINE_SEPARATOR &&
         category != U_PARAGRAPH_SEPARATOR;
}

// As many columns from the front, then as many from the back, as there are.
std::string cut(const std::string& text, std::size_t front, std::size_t back, std::string_view mark) {
  const std::vector<Cluster> clusters = clustersOf(text);
  std::size_t first = 0, last = clusters.size();
  for (; first < last && clusters[first].columns <= front; ++first) front -= clusters[first].columns;
  for (; last > first && clusters[last - 1].columns <= back; --last) back -= clusters[last - 1].columns;
  std::string shown;
  for (std::size_t i = 0; i < first; ++i) shown += clusters[i].text;
  shown += mark;
  for (std::size_t i = last; i < clusters.size(); ++i) shown += clusters[i].text;
  return shown;
}

struct Unit {
  double bytes;
  std::string_view name;
};
constexpr std::array units = {Unit{1, "B"},     Unit{1e3, "kB"},  Unit{1e6, "MB"}, Unit{1e9, "GB"},
                              Unit{1e12, "TB"}, Unit{1e15, "PB"}, Unit{1e18, "EB"}};

// The unit in which the rounded number stays below a thousand.
const Unit& unitFor(double bytes) {
  std::size_t unit = 0;
  while (unit + 1 < units.size() && bytes / units[unit].bytes >= 999.5) ++unit;
  return units[unit];
}

// The digits behind the point with which the number has three in all.
int digitsFor(const Unit& unit, double bytes) {
  const double number = bytes / unit.bytes;
  if (unit.bytes == 1 || number >= 99.95) return 0;
  return number < 9.995 ? 2 : 1;
}

std::string numberIn(const Unit& unit, int digits, double bytes) {
  return fmt::format("{:.{}f}", bytes / unit.bytes, digits);
}

}  // namespace

std::string displayText(std::string_view text, Glyphs glyphs) {
  std::string shown;
  forEachCharacter(text, [&](UChar32 character) {
    if (isShowable(character, glyphs)) {
      append(character, shown);
    } else {
      shown += glyphs == Glyphs::unicode ? replacementCharacter : "?";
    }
  });
  return shown;
}

std::size_t displayColumns(std::string_view text) {
  std::size_t columns = 0;
  for (const Cluster& cluster : clustersOf(text)) columns += cluster.columns;
  return columns;
}

std::string cutMiddle(const std::string& text, std::size_t columns, Glyphs glyphs) {
  if (displayColumns(text) <= columns) return text;
  const std::string_view mark = ellipsis(glyphs);
  const std::size_t markColumns = displayColumns(mark);
  if (columns <= markColumns + 1) return cut(text, columns, 0, "");
  const std::size_t kept = columns - markColumns;
  return cut(text, kept / 2, kept - kept / 2, mark);
}

std::string cutEnd(const std::string& text, std::size_t columns, Glyphs glyphs) {
  if (displayColumns(text) <= columns) return text;
  const std::string_view mark = ellipsis(glyphs);
  const std::size_t markColumns = displayColumns(mark);
  return columns <= markColumns ? cut(text, columns, 0, "") : cut(text, columns - markColumns, 0, mark);
}

std::string foldWords(const std::string& text, std::size_t columns) {
  std::istringstream words(text);
  std::string folded;
  std::size_t used = 0;
  for (std::string word; std::getline(words, word, ' ');) {
    const std::size_t width = displayColumns(word);
    const bool fits = used == 0 || used + 1 + width <= columns;
    if (!fits) used = 0;
    if (!folded.empty()) folded += fits ? ' ' : '\n';
    used += (used == 0 ? 0 : 1) + width;
    folded += word;
  }
  return folded;
}

std::string bytesText(double bytes) {
  const Unit& unit = unitFor(bytes);
  return fmt::format("{} {}", numberIn(unit, digitsFor(unit, bytes), bytes), unit.name);
}

std::string bytesOfText(std::uint64_t part, std::uint64_t whole) {
  const auto total = static_cast<double>(whole);
  const Unit& unit = unitFor(total);
  const int digits = digitsFor(unit, total);
  return fmt::format("{}/{} {}", numberIn(unit, digits, static_cast<double>(part)),
                     numberIn(unit, digits, total), unit.name);
}

std::string durationText(std::chrono::nanoseconds duration) {
  const double seconds = std::chrono::duration<double>(duration).count();
  if (seconds < 9.95) return fmt::format("{:.1f} s", seconds);
  const auto whole = std::chrono::round<std::chrono::seconds>(duration);
  return whole.count() < 60 ? fmt::format("{} s", whole.count()) : clockText(whole);
}

std::string clockText(std::chrono::seconds duration) {
  const std::int64_t seconds = duration.count();
  if (duration >= std::chrono::hours(100)) return ">99 h";
  if (seconds < 3600) return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
  return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

}  // namespace vellicor
