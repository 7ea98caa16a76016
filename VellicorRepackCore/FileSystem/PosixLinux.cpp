#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <thread>

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "VellicorRepackCore/FileSystem/Platform.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

namespace {

std::int64_t nanoseconds(const struct timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

/// Component by component, for where the system cannot do it in one call.
int openComponents(const std::string& path, int flags) {
  FileDescriptor directory(::open(path.starts_with('/') ? "/" : ".", flags));
  for (std::size_t start = 0; directory && start < path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string name = path.substr(start, end - start);
    start = end + 1;
    if (!name.empty())
      directory = FileDescriptor(::openat(directory.get(), name.c_str(), flags | O_NOFOLLOW));
  }
  return directory.release();
}

}  // namespace

namespace platform {

int openDirectoryWithoutLinks(const char* path) {
  constexpr int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  struct open_how how {};
  how.flags = flags;
  how.resolve = RESOLVE_NO_SYMLINKS;
  const long result = ::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how);
  // A kernel before 5.6, or a sandbox that has not heard of the call.
  const bool isUnknown = result < 0 && (errno == ENOSYS || errno == EPERM);
  return isUnknown ? openComponents(path, flags) : static_cast<int>(result);
}

int exchangeEntries(int directoryA, const char* a, int directoryB, const char* b) {
  return ::renameat2(directoryA, a, directoryB, b, RENAME_EXCHANGE);
}

int syncToDevice(int fd) { return ::fsync(fd); }

bool overwritesInPlace(int fd) {
  // Not among the kernel's own headers.
  constexpr std::uint32_t zfsMagic = 0x2fc12fc1, bcachefsMagic = 0xca451a4e;
  struct statfs status {};
  if (::fstatfs(fd, &status) != 0) return false;
  switch (static_cast<std::uint32_t>(status.f_type)) {
    case BTRFS_SUPER_MAGIC:
    case F2FS_SUPER_MAGIC:
    case NILFS_SUPER_MAGIC:
    case zfsMagic:
    case bcachefsMagic:
      return false;
    default:
      return true;
  }
}

FileTimes fileTimes(const struct stat& status) {
  return {nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)};
}

EntryTraits entryTraits(int directory, const char* name) {
  // A directory of another device need not be a mount point, nor one of the same device none; the kernel
  // tells from 5.8 on.
  struct statx entry {};
  if (::statx(directory, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS, &entry) != 0)
    return {};
  struct stat holder {};
  const bool tellsMounts = (entry.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0;
  const bool isElsewhere =
      ::fstat(directory, &holder) == 0 && holder.st_dev != makedev(entry.stx_dev_major, entry.stx_dev_minor);
  return {.isMountPoint = tellsMounts ? (entry.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 : isElsewhere,
          .isProtected = (entry.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0};
}

}  // namespace platform

void Posix::bypassPageCache(int) noexcept {}

void Posix::dropCachedPages(int fd, std::uint64_t offset, std::uint64_t length) noexcept {
  ::posix_fadvise(fd, static_cast<off_t>(offset), static_cast<off_t>(length), POSIX_FADV_DONTNEED);
}

bool Posix::isCached(int fd, std::uint64_t offset, std::uint64_t length) noexcept {
  // Read-ahead and dropping work on larger pieces than this.
  constexpr off_t sampleStep = 524288;
  const auto start = static_cast<off_t>(offset);
  struct stat status {};
  // The kernel says that every page of another user's file is cached.
  if (::fstat(fd, &status) != 0 || status.st_uid != ::geteuid() || start >= status.st_size) return false;
  const off_t end = std::min(static_cast<off_t>(length), status.st_size - start);
  void* const range = ::mmap(nullptr, static_cast<std::size_t>(end), PROT_READ, MAP_SHARED, fd, start);
  if (range == MAP_FAILED) return false;
  unsigned char state = 1;
  for (off_t at = 0; at < end && (state & 1) != 0; at += sampleStep) {
    if (::mincore(static_cast<char*>(range) + at, 1, &state) != 0) state = 0;
  }
  ::munmap(range, static_cast<std::size_t>(end));
  return (state & 1) != 0;
}

std::size_t Posix::availableProcessors() noexcept {
  cpu_set_t processors;
  const bool isKnown = ::sched_getaffinity(0, sizeof processors, &processors) == 0;
  const unsigned count =
      isKnown ? static_cast<unsigned>(CPU_COUNT(&processors)) : std::thread::hardware_concurrency();
  return std::max(count, 1U);
}

void Posix::startWriteBack(int fd, std::uint64_t offset, std::uint64_t length) noexcept {
  if (length == 0) return;  // The kernel would take it for all that follows.
  ::sync_file_range(fd, static_cast<off_t>(offset), static_cast<off_t>(length), SYNC_FILE_RANGE_WRITE);
}

std::uint64_t Posix::availableBytes(const std::string& path) {
  struct statvfs status {};
  checkedCall<FileStatFailed>(path, [&] { return ::statvfs(path.c_str(), &status); });
  return platform::bytesOfBlocks(status.f_bavail, status.f_frsize);
}

}  // namespace vellicor
