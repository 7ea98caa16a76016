#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/param.h>
#include <sys/stat.h>
#include <unistd.h>

#include "VellicorRepackCore/FileSystem/Platform.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

namespace {

std::int64_t nanoseconds(const struct timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

}  // namespace

namespace platform {

int openDirectoryWithoutLinks(const char* path) {
  return ::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW_ANY | O_CLOEXEC);
}

int exchangeEntries(int directoryA, const char* a, int directoryB, const char* b) {
  return ::renameatx_np(directoryA, a, directoryB, b, RENAME_SWAP);
}

int syncToDevice(int fd) {
  const int result = ::fcntl(fd, F_FULLFSYNC);
  const bool refused = result < 0 && (errno == ENOTSUP || errno == EINVAL || errno == ENOTTY);
  return refused ? ::fsync(fd) : result;
}

bool overwritesInPlace(int fd) {
  struct statfs status {};
  // Clones and snapshots keep what APFS overwrites.
  return ::fstatfs(fd, &status) == 0 && std::string_view(status.f_fstypename) != "apfs";
}

FileTimes fileTimes(const struct stat& status) {
  return {nanoseconds(status.st_mtimespec), nanoseconds(status.st_ctimespec)};
}

EntryTraits entryTraits(int directory, const char* name) {
  constexpr unsigned protectedFlags = UF_IMMUTABLE | UF_APPEND | SF_IMMUTABLE | SF_APPEND;
  struct stat entry {
  }, holder{};
  if (::fstatat(directory, name, &entry, AT_SYMLINK_NOFOLLOW) != 0 || ::fstat(directory, &holder) != 0)
    return {};
  return {.isMountPoint = entry.st_dev != holder.st_dev,
          .isProtected = (entry.st_flags & protectedFlags) != 0};
}

}  // namespace platform

void Posix::bypassPageCache(int fd) noexcept { ::fcntl(fd, F_NOCACHE, 1); }

void Posix::dropCachedPages(int, std::uint64_t, std::uint64_t) noexcept {}

bool Posix::isCached(int, std::uint64_t, std::uint64_t) noexcept { return false; }

std::size_t Posix::availableProcessors() noexcept {
  return std::max(std::thread::hardware_concurrency(), 1U);
}

void Posix::startWriteBack(int, std::uint64_t, std::uint64_t) noexcept {}

std::uint64_t Posix::availableBytes(const std::string& path) {
  struct statfs status {};
  checkedCall<FileStatFailed>(path, [&] { return ::statfs(path.c_str(), &status); });
  return platform::bytesOfBlocks(status.f_bavail, status.f_bsize);
}

}  // namespace vellicor
