#include "VellicorRepackCore/FileSystem/InstallLock.h"

#include <cerrno>
#include <utility>

#include <sys/file.h>

#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

namespace {

void requireUnreplaced(bool matches, const std::string& path) {
  if (!matches)
    throw RepackError(InstallPathUnsafe{.path = path, .detail = "lock path was replaced during acquisition"});
}

}  // namespace

InstallLock::InstallLock(RemoteInstallPaths paths, FileDescriptor descriptor)
    : paths_(std::move(paths)), descriptor_(std::move(descriptor)) {}

InstallLock::~InstallLock() {
  for (const FileDescriptor* held : {&partialDirectory_, &descriptor_}) {
    if (*held) ::flock(held->get(), LOCK_UN);
  }
}

InstallLock InstallLock::acquire(const std::string& outputDirectory) {
  RemoteInstallPaths paths(outputDirectory);
  paths.validateEntryTypes();

  FileDescriptor descriptor = Posix::openLock(paths.lockFile);
  const auto lockError = [&](std::int32_t code) {
    return code == EWOULDBLOCK ? RepackError(InstallBusy{paths.lockFile})
                               : RepackError(FileOpenFailed{.path = paths.lockFile, .errnoValue = code});
  };
  checkedCall(lockError, [&] { return ::flock(descriptor.get(), LOCK_EX | LOCK_NB); });

  // An installer that had the lock before may have changed what the paths are.
  InstallLock lock(std::move(paths), std::move(descriptor));
  lock.paths_.validateEntryTypes();
  requireUnreplaced(Posix::descriptorMatchesPath(lock.descriptor_.get(), lock.paths_.lockFile),
                    lock.paths_.lockFile);
  if (Posix::entryKind(lock.paths_.partialDirectory) != Posix::EntryKind::absent) lock.holdPartialDirectory();
  return lock;
}

void InstallLock::holdPartialDirectory() {
  if (partialDirectory_) return;
  const std::string& path = paths_.partialDirectory;
  Posix::mkdir(path);
  FileDescriptor directory = Posix::openDirectory(path);
  const int result = retryInterrupted([&] { return ::flock(directory.get(), LOCK_EX | LOCK_NB); });
  // Some network file systems lock no directories; any other failure is theirs.
  if (result < 0 && errno == EWOULDBLOCK) throw RepackError(InstallBusy{paths_.lockFile});
  partialDirectory_ = std::move(directory);
  requireUnreplaced(Posix::descriptorMatchesPath(partialDirectory_.get(), path, Posix::EntryKind::directory),
                    path);
}

void InstallLock::requirePartialDirectory() const {
  paths_.validateEntryTypes();
  const std::string& path = paths_.partialDirectory;
  if (Posix::descriptorMatchesPath(partialDirectory_.get(), path, Posix::EntryKind::directory)) return;
  throw RepackError(
      InstallPathUnsafe{.path = path, .detail = "partial directory was replaced during the install"});
}

}  // namespace vellicor
