#include "VellicorRepackCore/Base/Environment.h"

#include <cstdlib>

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

}  // namespace vellicor
