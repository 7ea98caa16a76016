#pragma once

#include <optional>
#include <string>

namespace vellicor {

/// The value of an environment variable: nothing when it is not set, an empty string when it is set and
/// empty.
std::optional<std::string> environmentVariable(const char* name);

/// The same, with a set and empty variable counting as not set.
std::optional<std::string> nonEmptyEnvironmentVariable(const char* name);

}  // namespace vellicor
