#include <filesystem>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "VellicorRepackCore/Base/Random.h"
#include "VellicorRepackCore/FileSystem/DirectoryNames.h"
#include "VellicorRepackCore/FileSystem/Entry.h"
#include "VellicorRepackCore/FileSystem/Platform.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

namespace {

std::filesystem::filesystem_error directoryError(const char* what, const std::string& path,
                                                 std::int32_t code) {
  return {what, path, std::error_code(code, std::generic_category())};
}

/// Makes a new name in a directory durable. In one that this user may write to and not read, it cannot be
/// asked for.
void syncNamesIn(const std::string& path) {
  const auto syncError = [&](std::int32_t code) {
    return directoryError("cannot sync directory", path, code);
  };
  const FileDescriptor directory(
      retryInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  const std::int32_t code = errno;
  if (!directory && code == EACCES) return;
  if (!directory) throw syncError(code);
  checkedCall(syncError, [&] { return platform::syncToDevice(directory.get()); });
}

/// The removal of one entry with all that is below it. Every step goes through a directory that is held open.
///
/// A tree may be deeper than there are descriptors and wider than there is memory: names are read a batch at
/// a time, and a directory below the last level is moved up into the top of the tree, where its turn comes.
class TreeRemoval {
 public:
  /// Whether there was anything to remove.
  bool remove(int directory, const std::string& name, const std::string& path, int level) {
    struct stat status {};
    const auto look = [&] { return ::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW); };
    if (!isThere(path, look)) return false;
    const bool isDirectory = S_ISDIR(status.st_mode);
    if (isDirectory && level == mostLevels) {
      return isThere(path, [&] { return ::renameat(directory, name.c_str(), top_, randomUuid().c_str()); });
    }
    if (isDirectory) removeContents(directory, name, path, level);
    return isThere(path, [&] { return ::unlinkat(directory, name.c_str(), isDirectory ? AT_REMOVEDIR : 0); });
  }

 private:
  static constexpr int mostLevels = 32;
  static constexpr std::size_t mostNames = 1024;

  static auto errorOf(const std::string& path) {
    return [&path](std::int32_t code) { return directoryError("cannot remove", path, code); };
  }

  /// Whether the call on an entry found it; any other failure throws.
  template <typename Call>
  static bool isThere(const std::string& path, Call&& call) {
    const auto result = retryInterrupted(call);
    const std::int32_t code = errno;
    if (result < 0 && code != ENOENT) throw errorOf(path)(code);
    return result >= 0;
  }

  static std::vector<std::string> someNamesIn(int directory, const std::string& path) {
    std::vector<std::string> names;
    forEachName(directory, errorOf(path), [&](const char* name) {
      names.emplace_back(name);
      return names.size() < mostNames;
    });
    return names;
  }

  void removeContents(int parent, const std::string& name, const std::string& path, int level) {
    FileDescriptor directory;
    const auto open = [&] { return ::openat(parent, name.c_str(), directoryFlags); };
    if (!isThere(path, [&] { return (directory = FileDescriptor(open())).get(); })) return;
    if (level == 0) top_ = directory.get();
    for (bool goesOn = true; goesOn;) {
      goesOn = false;
      for (const std::string& entry : someNamesIn(directory.get(), path)) {
        goesOn = remove(directory.get(), entry, joinPath(path, entry), level + 1) || goesOn;
      }
    }
  }

  int top_ = -1;
};

}  // namespace

void Posix::mkdir(const std::string& path) {
  const Entry entry(
      path, [&](std::int32_t code) { return RepackError(FileOpenFailed{.path = path, .errnoValue = code}); });
  constexpr mode_t mode = 0777;
  const int result =
      retryInterrupted([&] { return ::mkdirat(entry.directory.get(), entry.name.c_str(), mode); });
  const std::int32_t code = errno;
  if (result == 0) return;
  struct stat status {};
  const bool isDirectory =
      ::fstatat(entry.directory.get(), entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISDIR(status.st_mode);
  if (code != EEXIST || !isDirectory) throw directoryError("cannot create directory", path, code);
}

void Posix::mkdirP(const std::string& path) {
  std::vector<std::string> missing;
  for (std::string at = path; !at.empty() && !std::filesystem::is_directory(at); at = parentPath(at)) {
    missing.push_back(at);
  }
  for (; !missing.empty(); missing.pop_back()) {
    const bool isNew = std::filesystem::create_directory(missing.back());
    if (isNew) syncNamesIn(Entry::directoryOf(missing.back()));
  }
}

std::vector<std::string> Posix::listDirectory(const std::string& path) {
  const FileDescriptor directory = openDirectory(path);
  std::vector<std::string> names;
  const auto listError = [&](std::int32_t code) {
    return RepackError(FileOpenFailed{.path = path, .errnoValue = code});
  };
  forEachName(directory.get(), listError, [&](const char* name) {
    names.emplace_back(name);
    return true;
  });
  return names;
}

void Posix::removeTree(const std::string& path) {
  const Entry entry(
      path, [&](std::int32_t code) { return RepackError(FileOpenFailed{.path = path, .errnoValue = code}); });
  // A verification may put its receipt into an artifact that is being removed: once more for what came in
  // between.
  for (int attemptsLeft = 5;; --attemptsLeft) {
    try {
      TreeRemoval().remove(entry.directory.get(), entry.name, path, 0);
      return;
    } catch (const std::filesystem::filesystem_error& error) {
      if (error.code() != std::errc::directory_not_empty || attemptsLeft == 0) throw;
    }
  }
}

}  // namespace vellicor
