#pragma once

#include <cstdint>
#include <string>

#include <sys/stat.h>
#include <sys/types.h>

/// What differs between Linux and macOS, for this folder alone. Calls answer like system calls: negative with
/// errno set on failure.
namespace vellicor::platform {

struct FreeBlocks {
  std::uint64_t count;
  std::uint64_t size;
};

/// In nanoseconds since 1970.
struct FileTimes {
  std::int64_t modified;
  std::int64_t changed;
};

/// False where the system does not tell.
struct EntryTraits {
  bool isMountPoint = false;
  /// Whether a flag of the entry forbids to remove it, for the superuser too.
  bool isProtected = false;
};

/// A descriptor of a directory that is reached through no symbolic link.
int openDirectoryWithoutLinks(const char* path);
/// Exchanges two entries, each a name in an open directory, in one atomic step.
int exchangeEntries(int directoryA, const char* a, int directoryB, const char* b);
/// Makes a file durable on the device itself.
int syncToDevice(int fd);
void requestUncachedReads(int fd);
void dropPages(int fd, off_t offset, off_t length);
/// Whether all of the range is in the page cache, as far as the system tells.
bool arePagesCached(int fd, off_t offset, off_t length);
/// 0 where the system does not tell.
int usableProcessors();
/// Starts writing, and promises nothing.
void writeBack(int fd, off_t offset, off_t length);
/// Whether a file's blocks are written again where they are, as far as is known of its file system.
bool overwritesInPlace(int fd);
FileTimes fileTimes(const struct stat& status);
/// Of an entry of a directory, without following a link.
EntryTraits entryTraits(int directory, const char* name);
/// Throws `FileStatFailed`.
FreeBlocks freeBlocks(const std::string& path);

}  // namespace vellicor::platform
