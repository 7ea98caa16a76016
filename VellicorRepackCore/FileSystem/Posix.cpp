#include "VellicorRepackCore/FileSystem/Posix.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "VellicorRepackCore/FileSystem/Entry.h"
#include "VellicorRepackCore/FileSystem/Platform.h"
#include "VellicorRepackCore/FileSystem/RemovedUnlessKept.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

namespace {

constexpr std::uint64_t largestOffset = std::numeric_limits<std::int64_t>::max();
/// Some systems refuse a single transfer of 2 GiB or more, others shorten it.
constexpr std::int64_t largestTransfer = std::int64_t{1} << 30;

// Every descriptor is closed on exec.
FileDescriptor openPath(const std::string& path, int flags, unsigned mode = 0) {
  return FileDescriptor(
      checkedCall<FileOpenFailed>(path, [&] { return ::open(path.c_str(), flags | O_CLOEXEC, mode); }));
}

auto openErrorOf(const std::string& path) {
  return [&path](std::int32_t code) { return RepackError(FileOpenFailed{.path = path, .errnoValue = code}); };
}

FileDescriptor openWithoutLinks(const std::string& path, int flags, unsigned mode = 0) {
  const auto openError = openErrorOf(path);
  const Entry entry(path, openError);
  return FileDescriptor(checkedCall(openError, [&] {
    return ::openat(entry.directory.get(), entry.name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode);
  }));
}

Posix::EntryKind kindOf(mode_t mode) {
  if (S_ISREG(mode)) return Posix::EntryKind::regular;
  if (S_ISDIR(mode)) return Posix::EntryKind::directory;
  if (S_ISLNK(mode)) return Posix::EntryKind::symlink;
  return Posix::EntryKind::other;
}

void requireRange(std::string_view operation, const std::string& path, std::int64_t count,
                  std::uint64_t offset) {
  if (count < 0) {
    throw RepackError(
        ConfigurationInvalid{fmt::format("{} count {} is invalid for {}", operation, count, path)});
  }
  if (offset > largestOffset - static_cast<std::uint64_t>(count)) {
    throw RepackError(ConfigurationInvalid{
        fmt::format("{} range {}+{} is not representable for {}", operation, offset, count, path)});
  }
}

/// Transfers `count` bytes; `transfer(done, n)` moves at most `n` bytes after the first `done`, and
/// `ShortTransfer` is thrown when it fails or makes no progress.
template <typename ShortTransfer, typename Transfer>
void transferAll(const std::string& path, std::int64_t count, Transfer&& transfer) {
  std::int64_t done = 0;
  while (done < count) {
    const auto piece = static_cast<std::size_t>(std::min(count - done, largestTransfer));
    errno = 0;
    const ssize_t result = retryInterrupted([&] { return transfer(done, piece); });
    const std::int32_t code = errno;
    if (result <= 0) throw RepackError(ShortTransfer{path, count, done, code});
    done += result;
  }
}

/// The first `size` bytes of an open file.
std::string readPrefix(int fd, const std::string& path, std::uint64_t size) {
  std::string content(size, '\0');
  Posix::preadAll(fd, path, content.data(), static_cast<std::int64_t>(size), 0);
  return content;
}

void writeContent(int fd, const std::string& path, std::string_view data) {
  Posix::pwriteAll(fd, path, data.data(), static_cast<std::int64_t>(data.size()), 0);
}

void removeStaleTemporary(const std::string& temporary, const std::string& directory) {
  switch (Posix::entryKind(temporary)) {
    case Posix::EntryKind::absent:
      return;
    case Posix::EntryKind::regular:
      Posix::unlink(temporary);
      Posix::fsyncDirectory(directory);
      return;
    case Posix::EntryKind::directory:
    case Posix::EntryKind::symlink:
    case Posix::EntryKind::other:
      throw RepackError(
          InstallPathUnsafe{.path = temporary, .detail = "atomic-write temporary has the wrong type"});
  }
}

}  // namespace

std::string_view Posix::name(EntryKind kind) {
  switch (kind) {
    case EntryKind::absent:
      return "absent";
    case EntryKind::regular:
      return "regular";
    case EntryKind::directory:
      return "directory";
    case EntryKind::symlink:
      return "symlink";
    case EntryKind::other:
      return "other";
  }
  return "other";
}

FileDescriptor Posix::openRead(const std::string& path) { return openPath(path, O_RDONLY); }

FileDescriptor Posix::openReadNoFollow(const std::string& path) { return openWithoutLinks(path, O_RDONLY); }

FileDescriptor Posix::openExistingRW(const std::string& path) { return openWithoutLinks(path, O_RDWR); }

FileDescriptor Posix::openCreateRW(const std::string& path) {
  return openPath(path, O_RDWR | O_CREAT | O_TRUNC, 0644);
}

FileDescriptor Posix::openCreateRWNoFollow(const std::string& path) {
  return openWithoutLinks(path, O_RDWR | O_CREAT | O_TRUNC, static_cast<unsigned>(FileMode::shared));
}

FileDescriptor Posix::openCreateExclusive(const std::string& path, FileMode mode) {
  return openWithoutLinks(path, O_WRONLY | O_CREAT | O_EXCL, static_cast<unsigned>(mode));
}

FileDescriptor Posix::openDirectory(const std::string& path) {
  return openWithoutLinks(path, O_RDONLY | O_DIRECTORY);
}

FileDescriptor Posix::openLock(const std::string& path) {
  return openWithoutLinks(path, O_RDWR | O_CREAT, static_cast<unsigned>(FileMode::ownerOnly));
}

FileDescriptor Posix::openParent(const std::string& path) {
  return std::move(Entry(path, openErrorOf(path)).directory);
}

std::uint64_t Posix::fileSize(int fd, const std::string& path) {
  const off_t size = fileStatus(fd, path).st_size;
  if (size < 0) throw RepackError(FileStatFailed{.path = path, .errnoValue = EINVAL});
  return static_cast<std::uint64_t>(size);
}

Posix::EntryKind Posix::entryKind(const std::string& path) {
  struct stat status {};
  const int result = retryInterrupted([&] { return ::lstat(path.c_str(), &status); });
  const std::int32_t code = errno;
  if (result == 0) return kindOf(status.st_mode);
  if (code == ENOENT) return EntryKind::absent;
  throw RepackError(FileStatFailed{.path = path, .errnoValue = code});
}

bool Posix::descriptorMatchesPath(int fd, const std::string& path, EntryKind kind) {
  const struct stat opened = fileStatus(fd, path);
  struct stat named {};
  checkedCall<FileStatFailed>(path, [&] { return ::lstat(path.c_str(), &named); });
  return opened.st_dev == named.st_dev && opened.st_ino == named.st_ino && kindOf(named.st_mode) == kind;
}

bool Posix::isMountPoint(const std::string& path) {
  return platform::entryTraits(openParent(path).get(), lastPathComponent(path).c_str()).isMountPoint;
}

std::string Posix::physicalPath(const std::string& path) {
  struct Free {
    void operator()(char* p) const noexcept { std::free(p); }
  };
  const std::unique_ptr<char, Free> resolved(::realpath(path.c_str(), nullptr));
  const std::int32_t code = errno;
  if (!resolved) throw RepackError(FileStatFailed{.path = path, .errnoValue = code});
  return resolved.get();
}

void Posix::rename(const std::string& from, const std::string& to) {
  const auto renameError = [&](std::int32_t code) {
    return RepackError(RenameFailed{.from = from, .to = to, .errnoValue = code});
  };
  const Entry source(from, renameError), target(to, renameError);
  checkedCall(renameError, [&] {
    return ::renameat(source.directory.get(), source.name.c_str(), target.directory.get(),
                      target.name.c_str());
  });
}

void Posix::renameSwap(const std::string& a, const std::string& b) {
  const auto swapError = [&](std::int32_t code) {
    return RepackError(PromotionUnsupported{.path = a, .errnoValue = code});
  };
  const Entry first(a, swapError), second(b, swapError);
  checkedCall(swapError, [&] {
    return platform::exchangeEntries(first.directory.get(), first.name.c_str(), second.directory.get(),
                                     second.name.c_str());
  });
}

void Posix::unlink(const std::string& path) {
  const auto openError = openErrorOf(path);
  const Entry entry(path, openError);
  checkedCall(openError, [&] { return ::unlinkat(entry.directory.get(), entry.name.c_str(), 0); });
}

void Posix::removeEmptyDirectory(const std::string& path) {
  const auto removeError = [&](std::int32_t code) {
    return RepackError(FileOpenFailed{.path = path, .errnoValue = code});
  };
  const Entry entry(path, removeError);
  const auto remove = [&] {
    const int result = ::unlinkat(entry.directory.get(), entry.name.c_str(), AT_REMOVEDIR);
    return result < 0 && errno == ENOENT ? 0 : result;
  };
  checkedCall(removeError, remove);
}

void Posix::preadAll(int fd, const std::string& path, void* buffer, std::int64_t count,
                     std::uint64_t offset) {
  requireRange("pread", path, count, offset);
  transferAll<PreadShort>(path, count, [&](std::int64_t done, std::size_t piece) {
    return ::pread(fd, static_cast<std::byte*>(buffer) + done, piece, static_cast<off_t>(offset) + done);
  });
}

void Posix::pwriteAll(int fd, const std::string& path, const void* buffer, std::int64_t count,
                      std::uint64_t offset) {
  requireRange("pwrite", path, count, offset);
  transferAll<PwriteShort>(path, count, [&](std::int64_t done, std::size_t piece) {
    return ::pwrite(fd, static_cast<const std::byte*>(buffer) + done, piece,
                    static_cast<off_t>(offset) + done);
  });
}

void Posix::ftruncate(int fd, const std::string& path, std::uint64_t size) {
  if (size > largestOffset) {
    throw RepackError(
        ConfigurationInvalid{fmt::format("ftruncate value {} is not representable for {}", size, path)});
  }
  checkedCall<FtruncateFailed>(path, [&] { return ::ftruncate(fd, static_cast<off_t>(size)); });
}

void Posix::fsync(int fd, const std::string& path) {
  checkedCall<FsyncFailed>(path, [&] { return platform::syncToDevice(fd); });
}

void Posix::fsyncDirectory(const std::string& path) {
  const FileDescriptor directory = openDirectory(path);
  fsync(directory.get(), path);
}

std::string Posix::readBoundedData(const std::string& path, std::uint64_t maximumBytes, FinalLink finalLink) {
  // Without O_NONBLOCK, opening a named pipe would wait for a writer.
  constexpr int flags = O_RDONLY | O_NONBLOCK;
  const FileDescriptor file =
      finalLink == FinalLink::refuse ? openWithoutLinks(path, flags) : openPath(path, flags);
  requireRegularFile(file.get(), path);
  const std::uint64_t size = fileSize(file.get(), path);
  if (size > maximumBytes) {
    throw RepackError(InstallStateCorrupt{
        .path = path, .detail = fmt::format("size {} exceeds {}-byte cap", size, maximumBytes)});
  }
  return readPrefix(file.get(), path, size);
}

std::string Posix::readWholeFile(const std::string& path) {
  const FileDescriptor file = openRead(path);
  return readPrefix(file.get(), path, fileSize(file.get(), path));
}

void Posix::writeWholeFile(const std::string& path, std::string_view data) {
  const FileDescriptor file = openCreateRW(path);
  writeContent(file.get(), path, data);
}

void Posix::atomicWrite(std::string_view data, const std::string& path, const std::string& directory,
                        FileMode mode, const std::function<void()>& afterRename) {
  const std::string temporary = path + ".tmp";
  removeStaleTemporary(temporary, directory);
  const FileDescriptor file = openCreateExclusive(temporary, mode);
  RemovedUnlessKept cleanup(temporary);
  writeContent(file.get(), temporary, data);
  fsync(file.get(), temporary);
  rename(temporary, path);
  cleanup.keep();
  if (afterRename) afterRename();
  fsyncDirectory(directory);
}

std::uint64_t Posix::bytesInPlace(int fd, const std::string& path) {
  const struct stat status = fileStatus(fd, path);
  if (status.st_size <= 0 || status.st_blocks <= 0 || !platform::overwritesInPlace(fd)) return 0;
  constexpr std::uint64_t blockBytes = 512;  // Whatever the file system's own are.
  const auto size = static_cast<std::uint64_t>(status.st_size);
  const auto blocks = static_cast<std::uint64_t>(status.st_blocks);
  return blocks > size / blockBytes ? size : blocks * blockBytes;
}

}  // namespace vellicor
