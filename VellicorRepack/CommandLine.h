#pragma once

#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace vellicor {

/// The usage text, without a line feed behind its last line.
extern const std::string_view usageText;

/// What the arguments said, before the mode rules.
struct Arguments {
  std::optional<std::string> output;
  bool overwrite = false;
  bool resume = false;
  bool discardPartial = false;
  bool verifyInstall = false;
  std::optional<std::string> inputMorlen;
};

/// The parser's error. `what()` is its description.
class ParseError : public std::exception {
 public:
  enum class Kind { unknown, missingValue, missingRequired, invalidMode, help };

  static ParseError unknown(const std::string& argument);
  static ParseError missingValue(const std::string& option);
  static ParseError missingRequired(const std::string& option);
  static ParseError invalidMode(std::string message);
  static ParseError help();

  Kind kind() const noexcept { return kind_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  ParseError(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}

  Kind kind_;
  std::string text_;
};

struct InstallMode {
  std::string output;
  bool overwrite = false;
  bool resume = false;
};
struct DiscardMode {
  std::string output;
};
struct VerifyMode {
  std::string inputMorlen;
};
using Mode = std::variant<InstallMode, DiscardMode, VerifyMode>;

/// Scans the arguments (the first is the program's own name) and applies the mode rules. Throws `ParseError`.
Mode parseCommandLine(const std::vector<std::string>& arguments);

}  // namespace vellicor
