#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/Paths.h"
#include "VellicorRepackCore/FileSystem/FileDescriptor.h"

namespace vellicor {

/// Checked wrappers over the POSIX file calls. Every failing call becomes one `RepackError` with the path and
/// the errno read right after the call; EINTR is retried silently; transfers run until they are complete.
/// An install's paths are physical, and whatever opens, creates, moves or removes one of its entries refuses
/// a symbolic link anywhere on the way, unless it is said to follow links.
struct Posix {
  enum class EntryKind { absent, regular, directory, symlink, other };
  /// The name of the case, for messages.
  static std::string_view name(EntryKind kind);

  /// Who may use a file that is created.
  enum class FileMode : unsigned {
    ownerOnly = 0600,
    /// Everyone whom the umask lets.
    shared = 0666,
  };

  // Opening. Each failure is `fileOpenFailed`.
  /// Follows symbolic links.
  static FileDescriptor openRead(const std::string& path);
  static FileDescriptor openReadNoFollow(const std::string& path);
  static FileDescriptor openExistingRW(const std::string& path);
  /// Mode 0644; truncates an existing file and follows symbolic links.
  static FileDescriptor openCreateRW(const std::string& path);
  /// For files of the artifact: mode `FileMode::shared`; truncates an existing file and follows no link.
  static FileDescriptor openCreateRWNoFollow(const std::string& path);
  /// Write-only, the file must not exist, never through a link, closed on exec.
  static FileDescriptor openCreateExclusive(const std::string& path, FileMode mode);
  static FileDescriptor openDirectory(const std::string& path);
  static FileDescriptor openLock(const std::string& path);
  /// The directory that holds `path`, for calls relative to it; proves that no link leads there.
  static FileDescriptor openParent(const std::string& path);

  // Metadata and names.
  static std::uint64_t fileSize(int fd, const std::string& path);
  /// Without following a final symbolic link.
  static EntryKind entryKind(const std::string& path);
  /// Whether the path is a regular file, or an entry of another kind, and the very one that is open as `fd`.
  static bool descriptorMatchesPath(int fd, const std::string& path, EntryKind kind = EntryKind::regular);
  /// Whether another file system, or another part of this one, is mounted at the path. False where the system
  /// does not tell. Throws `fileOpenFailed` for a link on the way.
  static bool isMountPoint(const std::string& path);
  /// The absolute path with every symbolic link resolved.
  static std::string physicalPath(const std::string& path);
  /// Creates a directory and every missing parent, following links. The name of each new one is durable,
  /// except in a directory that this user may not read. Throws the standard library's filesystem_error.
  static void mkdirP(const std::string& path);
  /// Creates a directory in an existing one, unless it is there. Throws `fileOpenFailed` when a link is on
  /// the way or the directory that holds it is missing, otherwise the standard library's filesystem_error.
  static void mkdir(const std::string& path);
  /// The names in a directory, in no order, without "." and "..". Throws `fileOpenFailed`.
  static std::vector<std::string> listDirectory(const std::string& path);
  static void rename(const std::string& from, const std::string& to);
  /// Atomically exchanges two directory entries. Throws `promotionUnsupported` naming `a`, also for a link on
  /// the way.
  static void renameSwap(const std::string& a, const std::string& b);
  /// Removes a file. Throws `fileOpenFailed`; a missing file is a failure like any other.
  static void unlink(const std::string& path);
  /// Removes a file or a whole tree of any depth, without following links. A missing one is no error. Throws
  /// `fileOpenFailed` for a link on the way, otherwise the standard library's filesystem_error.
  static void removeTree(const std::string& path);
  /// Removes a directory that holds nothing. A missing one is no error. Throws `fileOpenFailed`.
  static void removeEmptyDirectory(const std::string& path);

  // Transfers of exactly `count` bytes at `offset`. Throw `preadShort`, `pwriteShort`, or
  // `configurationInvalid` for a range that no file offset can express.
  static void preadAll(int fd, const std::string& path, void* buffer, std::int64_t count,
                       std::uint64_t offset);
  static void pwriteAll(int fd, const std::string& path, const void* buffer, std::int64_t count,
                        std::uint64_t offset);
  /// Throws `configurationInvalid` before the call for a size no file offset can express.
  static void ftruncate(int fd, const std::string& path, std::uint64_t size);

  // Durability.
  /// Returns when the file's bytes and size are on the device itself (F_FULLFSYNC where there is one).
  static void fsync(int fd, const std::string& path);
  static void fsyncDirectory(const std::string& path);

  enum class FinalLink { refuse, follow };
  /// The whole content of a regular file of at most `maximumBytes`.
  static std::string readBoundedData(const std::string& path, std::uint64_t maximumBytes,
                                     FinalLink finalLink = FinalLink::refuse);
  /// The whole content of a file, however large. Throws `fileOpenFailed`, `fileStatFailed` or `preadShort`.
  static std::string readWholeFile(const std::string& path);
  /// A plain write of a whole file, replacing what is there; neither atomic nor durable.
  static void writeWholeFile(const std::string& path, std::string_view data);

  /// Replaces a file atomically and durably through "<path>.tmp". `directory` is the one that holds `path`.
  /// `afterRename`, when given, runs between the rename and the sync of the directory.
  static void atomicWrite(std::string_view data, const std::string& path, const std::string& directory,
                          FileMode mode, const std::function<void()>& afterRename = nullptr);

  // The page cache, the processors and the disk, as each system has them.
  /// Asks that reads of this descriptor leave no pages in the cache (F_NOCACHE); a no-op where there is no
  /// such request.
  static void bypassPageCache(int fd) noexcept;
  /// Where `bypassPageCache` is a no-op: drops the cached pages of [offset, offset + length).
  /// The kernel may keep pages at the ends of the range, so ranges should have some MiB.
  static void dropCachedPages(int fd, std::uint64_t offset, std::uint64_t length) noexcept;
  /// Whether the range, as far as the file goes, is in the page cache, judged by a sample of its pages;
  /// `offset` is a multiple of the page size. False where the system does not tell.
  static bool isCached(int fd, std::uint64_t offset, std::uint64_t length) noexcept;
  /// How many processors this process may run on, at least 1; the C library's count may leave out a mask.
  static std::size_t availableProcessors() noexcept;
  /// Starts writing what was written in [offset, offset + length) to the device, without waiting and without
  /// any promise, so that a later `fsync` has less to wait for; a no-op where it cannot be asked for.
  static void startWriteBack(int fd, std::uint64_t offset, std::uint64_t length) noexcept;
  /// How many bytes of a file have blocks of their own that a write would use again, so that writing them
  /// takes no free space; holes have none. 0 on file systems that write to new blocks and free the old ones
  /// later, if at all. Throws `fileStatFailed`.
  static std::uint64_t bytesInPlace(int fd, const std::string& path);
  /// Bytes available to an unprivileged writer on the path's file system. Throws `fileStatFailed`.
  static std::uint64_t availableBytes(const std::string& path);
};

}  // namespace vellicor
