#include "VellicorRepackCore/FileSystem/Removability.h"

#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "VellicorRepackCore/FileSystem/DirectoryNames.h"
#include "VellicorRepackCore/FileSystem/Platform.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

namespace {

/// Whether a directory that only lets owners remove lets this user remove the entry.
bool ownershipAllows(const struct stat& directory, const struct stat& entry) {
  const uid_t user = ::geteuid();
  return (directory.st_mode & S_ISVTX) == 0 || user == 0 || user == directory.st_uid || user == entry.st_uid;
}

/// Whether the entries of a directory may be listed and removed. What else than a plain refusal comes back is
/// a system that cannot tell.
bool permissionsAllow(int parent, const char* name) {
  const int result = ::faccessat(parent, name, R_OK | W_OK | X_OK, AT_EACCESS);
  return result == 0 || (errno != EACCES && errno != EROFS);
}

std::optional<std::string> obstacleAt(int parent, const std::string& name, const std::string& path);

std::optional<std::string> obstacleBelow(int parent, const std::string& name, const std::string& path) {
  const auto openError = [&](std::int32_t code) {
    return RepackError(FileOpenFailed{.path = path, .errnoValue = code});
  };
  const FileDescriptor directory(
      checkedCall(openError, [&] { return ::openat(parent, name.c_str(), directoryFlags); }));
  std::optional<std::string> obstacle;
  forEachName(directory.get(), openError, [&](const char* entry) {
    obstacle = obstacleAt(directory.get(), entry, joinPath(path, entry));
    return !obstacle;
  });
  return obstacle;
}

std::optional<std::string> obstacleAt(int parent, const std::string& name, const std::string& path) {
  struct stat entry {};
  checkedCall<FileStatFailed>(path,
                              [&] { return ::fstatat(parent, name.c_str(), &entry, AT_SYMLINK_NOFOLLOW); });
  const platform::EntryTraits traits = platform::entryTraits(parent, name.c_str());
  const bool isHeld = traits.isMountPoint || traits.isProtected;
  if (isHeld || !ownershipAllows(fileStatus(parent, parentPath(path)), entry)) return path;
  if (!S_ISDIR(entry.st_mode)) return std::nullopt;
  if (!permissionsAllow(parent, name.c_str())) return path;
  return obstacleBelow(parent, name, path);
}

}  // namespace

std::optional<std::string> Removability::firstObstacle(const std::string& directory) {
  const FileDescriptor parent = Posix::openParent(directory);
  return obstacleAt(parent.get(), lastPathComponent(directory), directory);
}

}  // namespace vellicor
