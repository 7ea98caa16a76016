#pragma once

#include <cstdint>
#include <string>

#include <sys/types.h>

/// What differs between Linux and macOS, for `Posix` alone. Calls answer like system calls: negative with
/// errno set on failure.
namespace vellicor::platform {

struct FreeBlocks {
  std::uint64_t count;
  std::uint64_t size;
};

/// A descriptor of a directory that is reached through no symbolic link.
int openDirectoryWithoutLinks(const char* path);
/// Exchanges two entries in one atomic step.
int exchangePaths(const char* a, const char* b);
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
/// Throws `RepackError::fileStatFailed`.
FreeBlocks freeBlocks(const std::string& path);

}  // namespace vellicor::platform
