#include "VellicorInspect/Text.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <numeric>

#include <fmt/format.h>
#include <unicode/uchar.h>

#include "VellicorTerminal/SafeText.h"

namespace vellicor {

namespace {

constexpr std::string_view ellipsis = "...";
constexpr std::string_view columnGap = "  ";
/// Narrower than this, names say nothing, and lines become longer than the terminal instead.
constexpr std::size_t narrowestName = 32;

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

/// Where the character with this number begins, or the end of the text.
std::size_t byteOfCharacter(std::string_view text, std::size_t number) {
  std::size_t at = 0;
  for (; at < text.size(); ++at) {
    if (isContinuation(text[at])) continue;
    if (number == 0) break;
    --number;
  }
  return at;
}

std::string groupedDigits(std::uint64_t number) {
  const std::string digits = fmt::format("{}", number);
  std::string grouped;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) grouped += ',';
    grouped += digits[i];
  }
  return grouped;
}

}  // namespace

std::string printable(std::string_view text) {
  return escaped(text, [](char32_t character) {
    return character == U' ' || u_isgraph(static_cast<UChar32>(character)) != 0;
  });
}

std::string printableJson(std::string_view json) {
  std::string out;
  for (std::size_t at = 0; at < json.size(); ++at) {
    const auto byte = static_cast<unsigned char>(json[at]);
    const auto next = at + 1 < json.size() ? static_cast<unsigned char>(json[at + 1]) : 0U;
    const bool isHighControl = byte == 0xC2 && next >= 0x80 && next < 0xA0;
    if (byte != 0x7F && !isHighControl) {
      out += json[at];
      continue;
    }
    fmt::format_to(std::back_inserter(out), "\\u{:04x}", isHighControl ? next : byte);
    if (isHighControl) ++at;
  }
  return out;
}

std::string xmlText(std::string_view text) {
  std::string out;
  for (const char c : printable(text)) {
    if (c == '&')
      out += "&amp;";
    else if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else if (c == '"')
      out += "&quot;";
    else
      out += c;
  }
  return out;
}

std::size_t characterCount(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(text, [](char c) { return !isContinuation(c); }));
}

std::string elided(std::string_view text, std::size_t width) {
  const std::size_t count = characterCount(text);
  if (count <= width || width <= ellipsis.size()) return std::string(text);
  // The end of a name tells more than its beginning.
  return fmt::format("{}{}", ellipsis, text.substr(byteOfCharacter(text, count - (width - ellipsis.size()))));
}

std::string humanBytes(std::uint64_t bytes) {
  constexpr std::array units = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return fmt::format("{} B", bytes);
  double value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  for (; value >= 1023.95 && unit + 1 < units.size(); ++unit) value /= 1024;
  return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string exactBytes(std::uint64_t bytes) {
  return fmt::format("{} ({} bytes)", humanBytes(bytes), groupedDigits(bytes));
}

std::string percentage(std::uint64_t part, std::uint64_t whole) {
  return fmt::format("{:.1f}%",
                     whole == 0 ? 0 : 100 * static_cast<double>(part) / static_cast<double>(whole));
}

std::vector<std::size_t> Table::columnWidths() const {
  std::vector<std::size_t> widths(columns_.size(), 0);
  for (const auto& cells : lines_) {
    for (std::size_t i = 0; i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], characterCount(cells[i]));
    }
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
      const std::string cell = elided(cells[i], widths[i]);
      const std::string padding(widths[i] - std::min(widths[i], characterCount(cell)), ' ');
      if (i > 0) line += columnGap;
      line += columns_[i] == Align::left ? cell + padding : padding + cell;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + "\n";
  }
  return out;
}

}  // namespace vellicor
