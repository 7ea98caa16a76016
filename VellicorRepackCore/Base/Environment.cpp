#include "VellicorRepackCore/Base/Environment.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {

std::optional<std::string> environmentVariable(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

std::optional<std::string> nonEmptyEnvironmentVariable(const char* name) {
  std::optional<std::string> value = environmentVariable(name);
  if (value && value->empty()) return std::nullopt;
  return value;
}

std::string absolutePath(const std::string& path) {
  if (path.starts_with('/')) return path;
  std::error_code error;
  const std::filesystem::path current = std::filesystem::current_path(error);
  if (error) {
    throw RepackError(
        InstallPathUnsafe{.path = path, .detail = "the current directory has no path; give an absolute one"});
  }
  return (current / path).string();
}

}  // namespace vellicor
