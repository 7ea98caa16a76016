#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vellicor {

// How text of an untrusted artifact, and numbers, are shown.

/// `text` with \xNN for every byte of what would not show as a character of its own: control characters,
/// which a terminal would obey, invisible and direction-changing ones, and ill-formed UTF-8.
std::string printable(std::string_view text);

/// JSON text with \u00NN for the control characters that JSON lets pass as they are.
std::string printableJson(std::string_view json);

/// `printable` text as XML content or as an attribute in double quotes.
std::string xmlText(std::string_view text);

/// Characters of well-formed UTF-8.
std::size_t characterCount(std::string_view text);

/// At most `width` characters, with "..." for the beginning of what is longer.
std::string elided(std::string_view text, std::size_t width);

/// "3.2 MiB" or "812 B".
std::string humanBytes(std::uint64_t bytes);

/// "3.2 MiB (3,358,720 bytes)"
std::string exactBytes(std::uint64_t bytes);

/// "90.2%"; of nothing, "0.0%".
std::string percentage(std::uint64_t part, std::uint64_t whole);

/// Lines of cells in aligned columns, the first line a heading.
class Table {
 public:
  enum class Align { left, right };

  /// What the first column holds gives way when a line is longer than `width` characters.
  Table(std::vector<Align> columns, std::optional<std::size_t> width)
      : columns_(std::move(columns)), width_(width) {}

  /// As many cells as there are columns, of printable text.
  void add(std::vector<std::string> cells) { lines_.push_back(std::move(cells)); }
  std::string text() const;

 private:
  std::vector<std::size_t> columnWidths() const;

  std::vector<Align> columns_;
  std::optional<std::size_t> width_;
  std::vector<std::vector<std::string>> lines_;
};

}  // namespace vellicor
