#include "VellicorRepackCore/FileSystem/Platform.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__APPLE__)
#include <sys/mount.h>
#include <sys/param.h>
#else
#include <linux/openat2.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#endif

#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor::platform {

#if defined(__APPLE__)

int openDirectoryWithoutLinks(const char* path) {
  return ::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW_ANY | O_CLOEXEC);
}

int exchangePaths(const char* a, const char* b) { return ::renamex_np(a, b, RENAME_SWAP); }

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

FreeBlocks freeBlocks(const std::string& path) {
  struct statfs status {};
  checkedCall(RepackError::fileStatFailed, path, [&] { return ::statfs(path.c_str(), &status); });
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

int exchangePaths(const char* a, const char* b) {
  return ::renameat2(AT_FDCWD, a, AT_FDCWD, b, RENAME_EXCHANGE);
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

FreeBlocks freeBlocks(const std::string& path) {
  struct statvfs status {};
  checkedCall(RepackError::fileStatFailed, path, [&] { return ::statvfs(path.c_str(), &status); });
  return {status.f_bavail, status.f_frsize};
}

#endif

}  // namespace vellicor::platform
