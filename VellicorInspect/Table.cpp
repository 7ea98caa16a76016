#include "VellicorInspect/Table.h"

#include <algorithm>
#include <numeric>
#include <string_view>

#include "VellicorTerminal/TerminalText.h"

namespace vellicor {

namespace {

constexpr std::string_view columnGap = "  ";
/// Shorter names say nothing: below this, lines become wider than the terminal instead.
constexpr std::size_t narrowestName = 32;

}  // namespace

std::vector<std::size_t> Table::columnWidths() const {
  std::vector<std::size_t> widths(columns_.size(), 0);
  for (const auto& cells : lines_) {
    for (std::size_t i = 0; i < widths.size(); ++i) widths[i] = std::max(widths[i], displayColumns(cells[i]));
  }
  const std::size_t others =
      std::accumulate(widths.begin() + 1, widths.end(), columnGap.size() * (widths.size() - 1));
  if (width_) widths[0] = std::min(widths[0], std::max(narrowestName, *width_ - std::min(*width_, others)));
  return widths;
}

std::string Table::text() const {
  const std::vector<std::size_t> widths = columnWidths();
  std::string out;
  for (const auto& cells : lines_) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      // The end of a name tells more than its beginning.
      const std::string cell = shortened(cells[i], widths[i], Cut::beginning);
      const std::string padding(widths[i] - std::min(widths[i], displayColumns(cell)), ' ');
      if (i > 0) line += columnGap;
      line += columns_[i] == Align::left ? cell + padding : padding + cell;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + "\n";
  }
  return out;
}

}  // namespace vellicor
