#pragma once

#include <cstdint>
#include <limits>

#include <sys/stat.h>
#include <sys/types.h>

/// The system calls that differ between Linux and macOS, for this folder alone. They return a negative number
/// and set errno on failure. PosixLinux.cpp and PosixMacOS.cpp define them; the build takes one of the two.
namespace vellicor::platform {

/// In nanoseconds since 1970.
struct FileTimes {
  std::int64_t modified;
  std::int64_t changed;
};

/// False where the system cannot report it.
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
/// Whether a file's blocks are written again where they are, as far as is known of its file system.
bool overwritesInPlace(int fd);
FileTimes fileTimes(const struct stat& status);
/// Does not follow a link.
EntryTraits entryTraits(int directory, const char* name);

/// The product, or the largest number when it does not fit.
inline std::uint64_t bytesOfBlocks(std::uint64_t count, std::uint64_t blockBytes) {
  constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
  return blockBytes != 0 && count > most / blockBytes ? most : count * blockBytes;
}

}  // namespace vellicor::platform
