#pragma once

#include <string>

namespace vellicor {

/// A file system in user space keeps a file that was removed or replaced while it was open under a name of
/// its own, until it is told, some time after, that the file was closed. Waits until there is no such file
/// below the directory, ten seconds at the most.
void awaitRemovals(const std::string& directory);

/// Removes a file or a tree, if there is one, once nothing else removes from it.
void removeSettled(const std::string& path);

}  // namespace vellicor
