#pragma once

#include "VellicorRepackCore/FileSystem/RemoteInstallPaths.h"

namespace vellicor {

/// How a finished partial directory takes the output's place, and what can be known beforehand about whether
/// it will. Used under the install lock.
struct Promotion {
  /// Refuses, before anything is fetched, to replace the directory at the output when that could not be done
  /// in the end, or when it is no artifact: throws `installPathUnsafe` or, where two directories cannot be
  /// exchanged, `promotionUnsupported`. Tries the exchange with two empty directories beside the output.
  static void requireReplaceable(const RemoteInstallPaths& paths);

  /// Removes the empty directories of a trial exchange whose process was killed.
  static void clearTrial(const RemoteInstallPaths& paths) noexcept;

  /// Gives the partial directory the output's name, durably, and removes the checkpoint. Nothing may stand at
  /// the output. Throws `renameFailed`, or `fsyncFailed` when it may not last.
  static void rename(const RemoteInstallPaths& paths);

  /// Exchanges the partial directory with the artifact at the output; then does as `removeReplaced`.
  static void exchange(const RemoteInstallPaths& paths);

  /// After an exchange, also one that another process ended after: makes it durable, removes the checkpoint,
  /// durably, then the old artifact, which stands at the partial path. An end in between leaves a directory
  /// without a checkpoint. Throws `fsyncFailed` when the exchange may not last, and leaves the old artifact
  /// then; `installPathUnsafe` when the old artifact cannot be removed.
  static void removeReplaced(const RemoteInstallPaths& paths);
};

}  // namespace vellicor
