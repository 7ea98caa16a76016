#pragma once

#include <optional>
#include <string>

namespace vellicor {

/// The value of an environment variable: nothing when it is not set, an empty string when it is set and
/// empty.
std::optional<std::string> environmentVariable(const char* name);

/// The same, with a set and empty variable counting as not set.
std::optional<std::string> nonEmptyEnvironmentVariable(const char* name);

/// The path against the current directory, joined with a slash; an absolute one as it is, whatever became of
/// the current directory. Throws `InstallPathUnsafe` when that is needed and has no path.
std::string absolutePath(const std::string& path);

}  // namespace vellicor
