#include "VellicorRepackCore/FileSystem/Platform.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__APPLE__)
#include <sys/mount.h>
#include <sys/param.h>
#else
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#endif

#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor::platform {

static std::int64_t nanoseconds(const struct timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

#if defined(__APPLE__)

int openDirectoryWithoutLinks(const char* path) {
  return ::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW_ANY | O_CLOEXEC);
}

int exchangeEntries(int directoryA, const char* a, int directoryB, const char* b) {
  return ::renameatx_np(directoryA, a, directoryB, b, RENAME_SWAP);
}

int syncToDevice(int fd) {
  const int result = ::fcntl(fd, F_FULLFSYNC);
  const bool refused = result < 0 && (errno == ENOTSUP || errno == EINVAL || errno == ENOTTY);
  return refused ? ::fsync(fd) : result;
}

void requestUncachedReads(int fd) { ::fcntl(fd, F_NOCACHE, 1); }

void dropPages(int, off_t, off_t) {}

bool arePagesCached(int, off_t, off_t) { return false; }

int usableProcessors() { return 0; }

void writeBack(int, off_t, off_t) {}

bool overwritesInPlace(int fd) {
  struct statfs status {};
  // Clones and snapshots keep what APFS overwrites.
  return ::fstatfs(fd, &status) == 0 && std::string_view(status.f_fstypename) != "apfs";
}

FileTimes fileTimes(const struct stat& status) {
  return {nanoseconds(status.st_mtimespec), nanoseconds(status.st_ctimespec)};
}

EntryTraits entryTraits(int directory, const char* name) {
  constexpr unsigned protectedFlags = UF_IMMUTABLE | UF_APPEND | SF_IMMUTABLE | SF_APPEND;
  struct stat entry {
  }, holder{};
  if (::fstatat(directory, name, &entry, AT_SYMLINK_NOFOLLOW) != 0 || ::fstat(directory, &holder) != 0)
    return {};
  return {.isMountPoint = entry.st_dev != holder.st_dev,
          .isProtected = (entry.st_flags & protectedFlags) != 0};
}

FreeBlocks freeBlocks(const std::string& path) {
  struct statfs status {};
  checkedCall<FileStatFailed>(path, [&] { return ::statfs(path.c_str(), &status); });
  return {status.f_bavail, status.f_bsize};
}

#else

/// Component by component, for where the system cannot do it in one call.
static int openComponents(const std::string& path, int flags) {
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

void requestUncachedReads(int) {}

void dropPages(int fd, off_t offset, off_t length) {
  ::posix_fadvise(fd, offset, length, POSIX_FADV_DONTNEED);
}

bool arePagesCached(int fd, off_t offset, off_t length) {
  // Reading ahead and dropping go by larger pieces than this.
  constexpr off_t sampleStep = 524288;
  struct stat status {};
  // Of a file that is another's the system says that every page is cached.
  if (::fstat(fd, &status) != 0 || status.st_uid != ::geteuid() || offset >= status.st_size) return false;
  const off_t end = std::min(length, status.st_size - offset);
  void* const range = ::mmap(nullptr, static_cast<std::size_t>(end), PROT_READ, MAP_SHARED, fd, offset);
  if (range == MAP_FAILED) return false;
  unsigned char state = 1;
  for (off_t at = 0; at < end && (state & 1) != 0; at += sampleStep) {
    if (::mincore(static_cast<char*>(range) + at, 1, &state) != 0) state = 0;
  }
  ::munmap(range, static_cast<std::size_t>(end));
  return (state & 1) != 0;
}

int usableProcessors() {
  cpu_set_t processors;
  return ::sched_getaffinity(0, sizeof processors, &processors) == 0 ? CPU_COUNT(&processors) : 0;
}

void writeBack(int fd, off_t offset, off_t length) {
  if (length == 0) return;  // It would mean all that follows.
  ::sync_file_range(fd, offset, length, SYNC_FILE_RANGE_WRITE);
}

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

FreeBlocks freeBlocks(const std::string& path) {
  struct statvfs status {};
  checkedCall<FileStatFailed>(path, [&] { return ::statvfs(path.c_str(), &status); });
  return {status.f_bavail, status.f_frsize};
}

#endif

}  // namespace vellicor::platform
