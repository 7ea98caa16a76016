#pragma once

#include <string>

namespace vellicor {

/// The names of everything an install keeps beside and inside its output. All fields are absolute paths.
struct RemoteInstallPaths {
  /// Derives the paths; creates the output's parent directory when it is missing and resolves its links.
  /// Throws `installPathUnsafe`, `fileStatFailed`, or the standard library's error for a directory that
  /// cannot be made.
  explicit RemoteInstallPaths(const std::string& outputDirectory);

  /// Refuses an output, partial directory, checkpoint or lock that is of another kind than it should be.
  /// Throws `installPathUnsafe`.
  void validateEntryTypes() const;

  bool operator==(const RemoteInstallPaths&) const = default;

  std::string parentDirectory;
  std::string finalDirectory;
  std::string partialDirectory;
  std::string lockFile;
  std::string checkpointFile;
  std::string rangeTemporaryFile;
  std::string metadataDirectory;
};

}  // namespace vellicor
