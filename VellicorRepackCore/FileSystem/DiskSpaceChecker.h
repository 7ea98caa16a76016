#pragma once

#include <cstdint>
#include <string>

namespace vellicor {

/// The space that an install needs on a file system, and the space that is free.
struct DiskSpaceRequirement {
  /// The directory whose file system was measured.
  std::string path;
  /// Bytes still to be written plus the reserve.
  std::uint64_t requiredBytes = 0;
  /// Bytes available to an unprivileged writer.
  std::uint64_t availableBytes = 0;

  bool canInstall() const { return availableBytes >= requiredBytes; }
  std::uint64_t shortfallBytes() const { return canInstall() ? 0 : requiredBytes - availableBytes; }
  bool operator==(const DiskSpaceRequirement&) const = default;
};

struct DiskSpaceChecker {
  /// Measures `path` itself. Throws `fileStatFailed`, or `configurationInvalid` when the sum overflows.
  static DiskSpaceRequirement requirement(const std::string& path, std::uint64_t bytes,
                                          std::uint64_t reserveBytes);

  /// Creates the probe directory of `path` when it is missing, measures it, or `path` where that is a
  /// directory on another device, and throws `diskSpaceInsufficient` when the space is short.
  static DiskSpaceRequirement requireAvailable(const std::string& path, std::uint64_t bytes,
                                               std::uint64_t reserveBytes);

  /// Measures the nearest existing ancestor of the probe directory; creates nothing and reports no shortfall.
  static DiskSpaceRequirement assess(const std::string& path, std::uint64_t bytes,
                                     std::uint64_t reserveBytes);

  /// The directory whose file system `path` will land on: `path` without its last component when that has an
  /// extension, otherwise `path` itself.
  static std::string directoryForProbe(const std::string& path);
};

}  // namespace vellicor
