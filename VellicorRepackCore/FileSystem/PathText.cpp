#include "VellicorRepackCore/FileSystem/PathText.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <openssl/rand.h>

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

std::string randomUuid() {
  std::array<unsigned char, 16> bytes;
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    throw std::runtime_error("the secure random source is not available");
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);  // version 4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);  // the RFC's variant
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02X}", bytes[i]);
  }
  return text;
}

}  // namespace vellicor
