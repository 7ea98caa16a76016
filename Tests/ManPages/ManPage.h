#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace vellicor::testing {

/// The whole of a file of the checkout.
std::string projectFile(const std::string& relativePath);

/// A page of docs/man, as far as the tests compare it: macros are left out and an argument placeholder reads
/// "<name>".
class ManPage {
 public:
  explicit ManPage(const std::string& name);

  /// The heads of the list items in a section, in order: "open(<path>) failed: errno <errno>".
  std::vector<std::string> heads(std::string_view section) const;
  /// The forms of the command, as usage texts spell them: "Program --output <file> [--force]".
  std::vector<std::string> synopsis() const;

 private:
  std::vector<std::string> linesOf(std::string_view section) const;

  std::vector<std::string> lines_;
};

/// What the programs can print: the pieces of every string literal in the folders' sources, as they stand
/// between the replacement fields, without outer spaces.
class SourceTexts {
 public:
  explicit SourceTexts(const std::vector<std::string>& folders);

  /// Whether the text, placeholders apart, is put together from whole pieces.
  bool compose(const std::string& text) const;
  /// The sources that hold the word, as paths within the checkout.
  std::set<std::string> filesWith(const std::string& word) const;

 private:
  bool isWritten(std::string_view fragment) const;

  std::vector<std::pair<std::string, std::string>> files_;
  std::set<std::string, std::less<>> pieces_;
};

}  // namespace vellicor::testing
