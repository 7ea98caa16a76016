#pragma once

#include <cstdint>
#include <string>

namespace vellicor {

/// Which file it is, and how large it is and when it was changed last, as far as the file system tells.
struct FileStamp {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  /// In nanoseconds since 1970: of the content, and of anything about the file.
  std::int64_t modifiedAt = 0;
  std::int64_t changedAt = 0;
  /// Whether the file had been left alone for longer than one tick of the file system's clock when the stamp
  /// was taken. A change in the very tick of the one before it does not show in the times.
  bool isSettled = false;

  /// Throws `fileStatFailed`.
  static FileStamp of(int fd, const std::string& path);

  /// Whether nothing has happened to the file between this stamp and a later one.
  bool provesUnchanged(const FileStamp& later) const;
};

}  // namespace vellicor
