#include "VellicorRepackCore/Base/Paths.h"

#include <algorithm>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "VellicorRepackCore/Base/Environment.h"

namespace vellicor {

std::string standardizedPath(const std::string& path) {
  const std::string absolute = absolutePath(path);
  std::vector<std::string_view> components;
  for (std::size_t start = 0; start < absolute.size();) {
    const std::size_t end = std::min(absolute.find('/', start), absolute.size());
    const std::string_view component = std::string_view(absolute).substr(start, end - start);
    start = end + 1;
    if (component.empty() || component == ".") continue;
    if (component != "..") {
      components.push_back(component);
    } else if (!components.empty()) {
      components.pop_back();
    }
  }
  return fmt::format("/{}", fmt::join(components, "/"));
}

std::string joinPath(std::string_view base, std::string_view component) {
  return fmt::format("{}{}{}", base, base.ends_with('/') ? "" : "/", component);
}

std::string parentPath(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return "";
  return std::string(path.substr(0, std::max<std::size_t>(slash, 1)));
}

std::string lastPathComponent(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

}  // namespace vellicor
