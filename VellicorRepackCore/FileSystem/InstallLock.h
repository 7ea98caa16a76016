#pragma once

#include <string>

#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/RemoteInstallPaths.h"

namespace vellicor {

/// The exclusive lock between processes on one output: an advisory `flock` on "<output>.install.lock", never
/// waited for, released when the object goes (or its process dies). The lock file itself stays.
///
/// Once there is a partial directory, it is held open and locked as well, so that a lock file that somebody
/// removes lets no second installer into the directory. Where the file system locks no directories, the lock
/// file is all there is.
class InstallLock {
 public:
  /// Throws `installBusy` when another installer holds the lock, `installPathUnsafe` or `fileOpenFailed`.
  static InstallLock acquire(const std::string& outputDirectory);

  /// Creates the partial directory when it is missing and holds it. Throws what `acquire` throws.
  void holdPartialDirectory();
  /// Throws `installPathUnsafe` when a path has become another kind of entry, or the partial directory is no
  /// longer the one that is held.
  void requirePartialDirectory() const;

  ~InstallLock();
  InstallLock(InstallLock&&) noexcept = default;
  InstallLock& operator=(InstallLock&&) = delete;

  const RemoteInstallPaths& paths() const { return paths_; }

 private:
  InstallLock(RemoteInstallPaths paths, FileDescriptor descriptor);

  RemoteInstallPaths paths_;
  FileDescriptor descriptor_;
  FileDescriptor partialDirectory_;
};

}  // namespace vellicor
