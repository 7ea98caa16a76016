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
  /// Of the entry that the path names now, a link itself included. Throws `fileStatFailed`.
  static FileStamp at(const std::string& path);

  /// Whether the two are of one file that, as far as the times tell, nothing has happened to in between.
  bool matches(const FileStamp& later) const;
  /// Whether nothing has happened to the file between this stamp and a later one.
  bool provesUnchanged(const FileStamp& later) const { return isSettled && matches(later); }
};

}  // namespace vellicor
