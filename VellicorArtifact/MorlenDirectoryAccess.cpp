#include "VellicorArtifact/MorlenDirectoryAccess.h"

#include <algorithm>
#include <cstdio>
#include <optional>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "VellicorArtifact/FormatErrors.h"
#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorRepackCore/Base/BoundedScratch.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Random.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/FileSystem/DirectoryNames.h"
#include "VellicorRepackCore/FileSystem/PageCacheTrail.h"
#include "VellicorRepackCore/FileSystem/RemovedUnlessKept.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

struct MorlenDirectoryAccess::WalkState {
  int maxDepth;
  std::size_t maxEntries;
  std::vector<std::string> entries;
};

MorlenDirectoryAccess::MorlenDirectoryAccess(const std::string& rootPath)
    : rootPath_(standardizedPath(rootPath)), root_(checkedCall<FileOpenFailed>(rootPath_, [&] {
        return ::open(rootPath_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      })) {}

std::string MorlenDirectoryAccess::fullPath(std::string_view relativePath) const {
  return relativePath.empty() ? rootPath_ : joinPath(rootPath_, relativePath);
}

FileDescriptor MorlenDirectoryAccess::openComponent(const FileDescriptor& parent, const std::string& name,
                                                    int flags, const std::string& relativePath) const {
  const auto openError = [&](std::int32_t code) {
    const std::string path = fullPath(relativePath);
    return code == ENOENT ? RepackError(FileStatFailed{.path = path, .errnoValue = code})
                          : RepackError(FileOpenFailed{.path = path, .errnoValue = code});
  };
  return FileDescriptor(checkedCall(openError, [&] { return ::openat(parent.get(), name.c_str(), flags); }));
}

FileDescriptor MorlenDirectoryAccess::openFile(const std::string& relativePath) const {
  withFormatErrors("unsafe path " + relativePath,
                   [&] { MorlenPathValidator::validateRelativePath(relativePath, "path." + relativePath); });

  FileDescriptor parent(
      checkedCall<FileOpenFailed>(rootPath_, [&] { return ::fcntl(root_.get(), F_DUPFD_CLOEXEC, 0); }));
  std::size_t start = 0;
  for (std::size_t slash; (slash = relativePath.find('/', start)) != std::string::npos; start = slash + 1) {
    parent = openComponent(parent, relativePath.substr(start, slash - start), directoryFlags, relativePath);
  }
  // Without O_NONBLOCK, opening a named pipe would wait for a writer.
  FileDescriptor file = openComponent(parent, relativePath.substr(start),
                                      O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, relativePath);
  requireRegularFile(file.get(), fullPath(relativePath));
  return file;
}

std::string MorlenDirectoryAccess::readMetadata(const std::string& relativePath,
                                                std::uint64_t maxBytes) const {
  return readMetadata(openFile(relativePath).get(), relativePath, maxBytes);
}

std::string MorlenDirectoryAccess::readMetadata(int fd, const std::string& relativePath,
                                                std::uint64_t maxBytes) const {
  const std::uint64_t size = fileSize(fd, relativePath);
  if (size > maxBytes) {
    throw RepackError(ConfigurationInvalid{
        fmt::format("{} size {} exceeds metadata cap {}", relativePath, size, maxBytes)});
  }
  std::string content(size, '\0');
  Posix::preadAll(fd, fullPath(relativePath), content.data(), static_cast<std::int64_t>(size), 0);
  return content;
}

std::uint64_t MorlenDirectoryAccess::fileSize(const std::string& relativePath) const {
  return fileSize(openFile(relativePath).get(), relativePath);
}

std::uint64_t MorlenDirectoryAccess::fileSize(int fd, const std::string& relativePath) const {
  const off_t size = fileStatus(fd, fullPath(relativePath)).st_size;
  if (size < 0) throw RepackError(ConfigurationInvalid{relativePath + " has negative file size"});
  return static_cast<std::uint64_t>(size);
}

std::string MorlenDirectoryAccess::hash(const std::string& relativePath, PageCache cache) const {
  return hash(openFile(relativePath).get(), relativePath, cache);
}

std::string MorlenDirectoryAccess::hash(int fd, const std::string& relativePath, PageCache cache,
                                        const CancellationToken& stop) const {
  const auto readError = [&](std::int32_t code) {
    return RepackError(
        PreadShort{.path = fullPath(relativePath), .expected = hashChunkBytes, .got = 0, .errnoValue = code});
  };
  std::optional<PageCacheTrail> trail;
  if (cache == PageCache::bypass) trail.emplace(fd, PageCacheTrail::Drops::ownPages);

  AlignedBuffer chunk(hashChunkBytes);
  Sha256Stream stream;
  std::uint64_t position = 0;
  for (;;) {
    throwIfCancelled(stop);
    const ssize_t count = checkedCall(
        readError, [&] { return ::pread(fd, chunk.data(), chunk.size(), static_cast<off_t>(position)); });
    if (count == 0) break;
    stream.update(chunk.bytes().first(static_cast<std::size_t>(count)));
    position += static_cast<std::uint64_t>(count);
    if (trail) trail->advanceTo(position);
  }
  if (trail) trail->finishAt(position);
  return stream.finalizeHexString();
}

std::vector<std::string> MorlenDirectoryAccess::relativeEntries(int maxDepth, std::size_t maxEntries) const {
  if (maxDepth < 0 || maxEntries < 1) {
    throw RepackError(ConfigurationInvalid{"invalid directory scan bounds"});
  }
  WalkState state{.maxDepth = maxDepth, .maxEntries = maxEntries, .entries = {}};
  walk(root_.get(), "", 0, state);
  std::ranges::sort(state.entries);
  return std::move(state.entries);
}

void MorlenDirectoryAccess::walk(int fd, const std::string& prefix, int depth, WalkState& state) const {
  const std::string directoryPath = fullPath(prefix);
  const auto listError = [&](std::int32_t code) {
    return RepackError(FileOpenFailed{.path = directoryPath, .errnoValue = code});
  };
  forEachName(fd, listError, [&](const char* name) {
    const std::string entry = prefix.empty() ? name : joinPath(prefix, name);
    state.entries.push_back(entry);
    if (state.entries.size() > state.maxEntries) {
      throw RepackError(ConfigurationInvalid{"artifact directory has too many entries"});
    }

    struct stat status {};
    checkedCall<FileStatFailed>(fullPath(entry),
                                [&] { return ::fstatat(fd, name, &status, AT_SYMLINK_NOFOLLOW); });
    if (!S_ISDIR(status.st_mode) || entry == MorlenFormatV1::tokenizerDirectory) return true;
    if (depth >= state.maxDepth) {
      throw RepackError(
          ConfigurationInvalid{fmt::format("artifact directory nesting exceeds {}", state.maxDepth)});
    }
    const FileDescriptor child(
        checkedCall<FileOpenFailed>(fullPath(entry), [&] { return ::openat(fd, name, directoryFlags); }));
    walk(child.get(), entry, depth + 1, state);
    return true;
  });
}

void MorlenDirectoryAccess::atomicWrite(std::string_view data, const std::string& name) const {
  withFormatErrors("unsafe output path " + name,
                   [&] { MorlenPathValidator::validateBasename(name, "output." + name); });

  const std::string temporary = ".morlen-" + randomUuid() + ".tmp";
  const std::string temporaryPath = fullPath(temporary);
  constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  constexpr auto mode = static_cast<unsigned>(Posix::FileMode::shared);
  FileDescriptor file(checkedCall<FileOpenFailed>(
      temporaryPath, [&] { return ::openat(root_.get(), temporary.c_str(), flags, mode); }));
  RemovedUnlessKept cleanup(root_.get(), temporary);
  Posix::pwriteAll(file.get(), temporaryPath, data.data(), static_cast<std::int64_t>(data.size()), 0);
  Posix::fsync(file.get(), temporaryPath);
  file.reset();

  const auto renameError = [&](std::int32_t code) {
    return RepackError(RenameFailed{.from = temporaryPath, .to = fullPath(name), .errnoValue = code});
  };
  checkedCall(renameError,
              [&] { return ::renameat(root_.get(), temporary.c_str(), root_.get(), name.c_str()); });
  cleanup.keep();
  Posix::fsync(root_.get(), rootPath_);
}

}  // namespace vellicor
