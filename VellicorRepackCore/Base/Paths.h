#pragma once

#include <string>
#include <string_view>

namespace vellicor {

/// Absolute form of a path against the current directory, with "." and ".." components and a trailing slash
/// removed lexically; symbolic links are not resolved.
std::string standardizedPath(const std::string& path);

/// `base` and `component` with a single "/" between them.
std::string joinPath(std::string_view base, std::string_view component);

/// The path without its last component, and the last component.
std::string parentPath(std::string_view path);
std::string lastPathComponent(std::string_view path);

}  // namespace vellicor
