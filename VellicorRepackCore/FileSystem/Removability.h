#pragma once

#include <optional>
#include <string>

namespace vellicor {

/// Looks for what would keep this user from removing a directory with all that is in it: a directory that may
/// not be searched or written, another owner's entry where only owners remove, an entry that is protected
/// from changes, a mount point. Nothing is changed. What the system does not tell counts as removable.
struct Removability {
  /// The path of the first such entry, the directory itself included. Throws `fileOpenFailed` or
  /// `fileStatFailed`.
  static std::optional<std::string> firstObstacle(const std::string& directory);
};

}  // namespace vellicor
