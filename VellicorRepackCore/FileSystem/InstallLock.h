#pragma once

#include <string>

#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/RemoteInstallPaths.h"

namespace vellicor {

/// The exclusive lock between processes on one output: an advisory `flock` on "<output>.install.lock", never
/// waited for, released when the object goes (or its process dies). The lock file itself stays.
class InstallLock {
 public:
  /// Throws `installBusy` when another installer holds the lock, `installPathUnsafe` or `fileOpenFailed`.
  static InstallLock acquire(const std::string& outputDirectory);

  ~InstallLock();
  InstallLock(InstallLock&&) noexcept = default;
  InstallLock& operator=(InstallLock&&) = delete;

  const RemoteInstallPaths& paths() const { return paths_; }

 private:
  InstallLock(RemoteInstallPaths paths, FileDescriptor descriptor);

  RemoteInstallPaths paths_;
  FileDescriptor descriptor_;
};

}  // namespace vellicor
