#include "VellicorTerminal/TerminalText.h"

#include <sstream>
#include <vector>

#include <unicode/uchar.h>

namespace vellicor {

namespace {

constexpr char32_t emojiPresentation = 0xFE0F;

std::size_t columnsOf(char32_t character) {
  // It makes the character before it a wide one.
  if (character == emojiPresentation || character == Character::malformed) return 1;
  const auto point = static_cast<UChar32>(character);
  const auto category = static_cast<UCharCategory>(u_charType(point));
  if (category == U_NON_SPACING_MARK || category == U_ENCLOSING_MARK) return 0;
  const auto width = static_cast<UEastAsianWidth>(u_getIntPropertyValue(point, UCHAR_EAST_ASIAN_WIDTH));
  return width == U_EA_WIDE || width == U_EA_FULLWIDTH ? 2 : 1;
}

/// One character with the combining ones after it.
struct Cluster {
  std::string text;
  std::size_t columns = 0;
};

std::vector<Cluster> clustersOf(std::string_view text) {
  std::vector<Cluster> clusters;
  while (!text.empty()) {
    const Character character = takeCharacter(text);
    const std::size_t columns = columnsOf(character.value);
    const bool isCombining = columns == 0 || character.value == emojiPresentation;
    if (clusters.empty() || !isCombining) clusters.emplace_back();
    clusters.back().text += character.bytes;
    clusters.back().columns += columns;
  }
  return clusters;
}

/// Keeps up to `front` columns at the start and `back` at the end, with `mark` between them.
std::string cutOut(std::string_view text, std::size_t front, std::size_t back, std::string_view mark) {
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

}  // namespace

std::size_t displayColumns(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) columns += columnsOf(takeCharacter(text).value);
  return columns;
}

std::string shortened(std::string_view text, std::size_t columns, Cut cut, Glyphs glyphs) {
  if (displayColumns(text) <= columns) return std::string(text);
  const std::string_view mark = glyphs == Glyphs::unicode ? "…" : "...";
  const std::size_t markColumns = displayColumns(mark);
  if (columns <= markColumns) return cutOut(text, columns, 0, "");
  const std::size_t kept = columns - markColumns;
  const std::size_t front = cut == Cut::beginning ? 0 : cut == Cut::middle ? kept / 2 : kept;
  return cutOut(text, front, kept - front, mark);
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

}  // namespace vellicor
