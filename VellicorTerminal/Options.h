#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vellicor {

/// Arguments that make no sense. `what()` says why.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;

  static UsageError unknown(const std::string& name) { return UsageError("unknown argument: " + name); }
  static UsageError missingValue(const std::string& name) { return UsageError("missing value for " + name); }
  static UsageError missingRequired(const std::string& name) {
    return UsageError("missing required argument: " + name);
  }
};

/// The error line "<speaker>: <why>", an empty line and the usage text.
std::string usageErrorText(std::string_view speaker, std::string_view why, std::string_view usage);

/// An option and where it is kept: a flag, the last of its values, or all of them.
struct Option {
  std::string_view name;
  std::variant<bool*, std::optional<std::string>*, std::vector<std::string>*> place;
};

/// Takes the argument at `position` if it is one of the options, and the next one as its value, whatever that
/// looks like. `position` then is the last argument taken. Throws `UsageError` when the value is missing.
bool takeOption(const std::vector<Option>& options, const std::vector<std::string>& arguments,
                std::size_t& position);

}  // namespace vellicor
