#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vellicor {

/// Without a line feed at its end.
extern const std::string_view usageText;

struct HelpMode {};
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
using Mode = std::variant<HelpMode, InstallMode, DiscardMode, VerifyMode>;

/// Scans the arguments (the first is the program's own name) and applies the mode rules. Throws `UsageError`.
Mode parseCommandLine(const std::vector<std::string>& arguments);

}  // namespace vellicor
