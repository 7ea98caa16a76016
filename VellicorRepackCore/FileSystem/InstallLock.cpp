#include "VellicorRepackCore/FileSystem/InstallLock.h"

#include <cerrno>
#include <utility>

#include <sys/file.h>

#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

InstallLock::InstallLock(RemoteInstallPaths paths, FileDescriptor descriptor)
    : paths_(std::move(paths)), descriptor_(std::move(descriptor)) {}

InstallLock::~InstallLock() {
  if (descriptor_) ::flock(descriptor_.get(), LOCK_UN);
}

InstallLock InstallLock::acquire(const std::string& outputDirectory) {
  RemoteInstallPaths paths(outputDirectory);
  paths.validateEntryTypes();

  FileDescriptor descriptor = Posix::openLock(paths.lockFile);
  const auto lockError = [&](std::int32_t code) {
    return code == EWOULDBLOCK ? RepackError::installBusy(paths.lockFile)
                               : RepackError::fileOpenFailed(paths.lockFile, code);
  };
  checkedCall(lockError, [&] { return ::flock(descriptor.get(), LOCK_EX | LOCK_NB); });

  // An installer that had the lock before may have changed what the paths are.
  InstallLock lock(std::move(paths), std::move(descriptor));
  lock.paths_.validateEntryTypes();
  if (!Posix::descriptorMatchesPath(lock.descriptor_.get(), lock.paths_.lockFile)) {
    throw RepackError::installPathUnsafe(lock.paths_.lockFile, "lock path was replaced during acquisition");
  }
  return lock;
}

}  // namespace vellicor
