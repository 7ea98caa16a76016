#include "VellicorRepackCore/FileSystem/DiskSpaceChecker.h"

#include <filesystem>
#include <limits>
#include <system_error>

#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {

namespace {

std::string nearestExistingDirectory(std::string directory) {
  std::error_code ignored;
  while (directory != "/" && !std::filesystem::exists(directory, ignored)) directory = parentPath(directory);
  return directory;
}

}  // namespace

DiskSpaceRequirement DiskSpaceChecker::requirement(const std::string& path, std::uint64_t bytes,
                                                   std::uint64_t reserveBytes) {
  const std::uint64_t available = Posix::availableBytes(path);
  if (bytes > std::numeric_limits<std::uint64_t>::max() - reserveBytes) {
    throw RepackError::configurationInvalid("disk-space requirement overflows UInt64");
  }
  return {.path = path, .requiredBytes = bytes + reserveBytes, .availableBytes = available};
}

DiskSpaceRequirement DiskSpaceChecker::requireAvailable(const std::string& path, std::uint64_t bytes,
                                                        std::uint64_t reserveBytes) {
  const std::string directory = directoryForProbe(path);
  Posix::mkdirP(directory);
  DiskSpaceRequirement needed = requirement(directory, bytes, reserveBytes);
  if (!needed.canInstall()) {
    throw RepackError::diskSpaceInsufficient(directory, needed.requiredBytes, needed.availableBytes);
  }
  return needed;
}

DiskSpaceRequirement DiskSpaceChecker::assess(const std::string& path, std::uint64_t bytes,
                                              std::uint64_t reserveBytes) {
  return requirement(nearestExistingDirectory(standardizedPath(directoryForProbe(path))), bytes,
                     reserveBytes);
}

std::string DiskSpaceChecker::directoryForProbe(const std::string& path) {
  const std::string standardized = standardizedPath(path);
  // A lone "." at the end is no extension.
  const bool hasExtension = std::filesystem::path(standardized).extension().native().size() > 1;
  return hasExtension ? parentPath(standardized) : path;
}

}  // namespace vellicor
