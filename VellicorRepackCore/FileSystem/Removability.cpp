#include "VellicorRepackCore/FileSystem/Removability.h"

#include <cerrno>
#include <memory>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "VellicorRepackCore/FileSystem/Platform.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

namespace {

struct CloseDirectory {
  void operator()(DIR* stream) const noexcept { ::closedir(stream); }
};

/// The names in an open directory. Takes the descriptor.
std::vector<std::string> namesIn(FileDescriptor directory, const std::string& path) {
  const std::unique_ptr<DIR, CloseDirectory> stream(::fdopendir(directory.get()));
  const std::int32_t code = errno;
  if (stream == nullptr) throw RepackError(FileOpenFailed{.path = path, .errnoValue = code});
  directory.release();  // The stream's now.
  std::vector<std::string> names;
  errno = 0;
  while (const struct dirent* entry = ::readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
    errno = 0;
  }
  const std::int32_t readError = errno;
  if (readError != 0) throw RepackError(FileOpenFailed{.path = path, .errnoValue = readError});
  return names;
}

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
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  const auto open = [&] {
    return FileDescriptor(
        checkedCall<FileOpenFailed>(path, [&] { return ::openat(parent, name.c_str(), flags); }));
  };
  const FileDescriptor directory = open();
  for (const std::string& entry : namesIn(open(), path)) {
    if (auto obstacle = obstacleAt(directory.get(), entry, joinPath(path, entry))) return obstacle;
  }
  return std::nullopt;
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
