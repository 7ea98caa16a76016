#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vellicor {

/// Lines of cells in aligned columns. The first line is a heading.
class Table {
 public:
  enum class Align { left, right };

  /// The first column gives way when a line is wider than `width`.
  Table(std::vector<Align> columns, std::optional<std::size_t> width)
      : columns_(std::move(columns)), width_(width) {}

  /// Takes one escaped text for each column.
  void add(std::vector<std::string> cells) { lines_.push_back(std::move(cells)); }
  std::string text() const;

 private:
  std::vector<std::size_t> columnWidths() const;

  std::vector<Align> columns_;
  std::optional<std::size_t> width_;
  std::vector<std::vector<std::string>> lines_;
};

}  // namespace vellicor
