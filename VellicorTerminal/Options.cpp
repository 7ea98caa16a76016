#include "VellicorTerminal/Options.h"

#include <algorithm>

#include <fmt/format.h>

#include "VellicorTerminal/Escaping.h"

namespace vellicor {

std::string usageErrorText(std::string_view speaker, std::string_view why, std::string_view usage) {
  return fmt::format("{}\n{}\n", errorLine(fmt::format("{}: {}", speaker, why)), usage);
}

bool takeOption(const std::vector<Option>& options, const std::vector<std::string>& arguments,
                std::size_t& position) {
  const auto option = std::ranges::find(options, arguments[position], &Option::name);
  if (option == options.end()) return false;
  if (bool* const* flag = std::get_if<bool*>(&option->place)) {
    **flag = true;
    return true;
  }
  if (position + 1 == arguments.size()) throw UsageError::missingValue(arguments[position]);
  const std::string& value = arguments[++position];
  if (auto* const* last = std::get_if<std::optional<std::string>*>(&option->place)) **last = value;
  if (auto* const* all = std::get_if<std::vector<std::string>*>(&option->place)) (*all)->push_back(value);
  return true;
}

}  // namespace vellicor
