#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {

/// Access to the inside of one artifact directory through a descriptor held from construction on, by
/// validated relative paths, without ever following a symbolic link: replacing the directory's path cannot
/// redirect an access. Failures are `RepackError`s naming the full path. Operations share no file offset and
/// keep no state.
class MorlenDirectoryAccess {
 public:
  static constexpr int defaultMaxDepth = 16;
  static constexpr std::size_t defaultMaxEntries = 100000;
  static constexpr std::size_t hashChunkBytes = 65536;

  /// `bypass` drops the pages that this read brought in, and keeps those that were cached before it, where the
  /// system can report that.
  enum class PageCache { use, bypass };

  /// Opens the directory; a final symbolic link to a directory is followed, once.
  explicit MorlenDirectoryAccess(const std::string& rootPath);

  const std::string& rootPath() const { return rootPath_; }
  int directoryFileDescriptor() const { return root_.get(); }

  /// A regular file, open for reading. A missing one is `fileStatFailed` with errno ENOENT.
  FileDescriptor openFile(const std::string& relativePath) const;

  std::string readMetadata(const std::string& relativePath, std::uint64_t maxBytes) const;
  std::string readMetadata(int fd, const std::string& relativePath, std::uint64_t maxBytes) const;

  std::uint64_t fileSize(const std::string& relativePath) const;
  std::uint64_t fileSize(int fd, const std::string& relativePath) const;

  /// SHA-256 of the whole file as it is now, in lower-case hexadecimal.
  std::string hash(const std::string& relativePath, PageCache cache) const;
  /// A stop is looked at before every chunk and throws `CancellationError`.
  std::string hash(int fd, const std::string& relativePath, PageCache cache,
                   const CancellationToken& stop = {}) const;

  /// Every entry of the tree as a relative path, sorted ascending. A top-level directory named "tokenizer" is
  /// listed and not entered. Throws `configurationInvalid` beyond the bounds.
  std::vector<std::string> relativeEntries(int maxDepth = defaultMaxDepth,
                                           std::size_t maxEntries = defaultMaxEntries) const;

  /// Creates or replaces a file at the directory's top level, atomically and durably; for everyone whom the
  /// umask lets.
  void atomicWrite(std::string_view data, const std::string& name) const;

 private:
  struct WalkState;

  std::string fullPath(std::string_view relativePath) const;
  FileDescriptor openComponent(const FileDescriptor& parent, const std::string& name, int flags,
                               const std::string& relativePath) const;
  void walk(int fd, const std::string& prefix, int depth, WalkState& state) const;

  std::string rootPath_;
  FileDescriptor root_;
};

}  // namespace vellicor
