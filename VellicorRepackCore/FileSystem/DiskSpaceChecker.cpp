#include "VellicorRepackCore/FileSystem/DiskSpaceChecker.h"

#include <filesystem>
#include <limits>
#include <system_error>

#include <sys/stat.h>

#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

namespace {

std::string nearestExistingDirectory(std::string directory) {
  std::error_code ignored;
  while (directory != "/" && !std::filesystem::exists(directory, ignored)) directory = parentPath(directory);
  return directory;
}

struct stat statusOf(const std::string& path) {
  struct stat status {};
  checkedCall<FileStatFailed>(path, [&] { return ::stat(path.c_str(), &status); });
  return status;
}

/// The probe directory, or `path` itself when that is a volume of its own.
std::string directoryToMeasure(const std::string& probe, const std::string& path) {
  if (probe == path || Posix::entryKind(path) == Posix::EntryKind::absent) return probe;
  const struct stat status = statusOf(path);
  return S_ISDIR(status.st_mode) && status.st_dev != statusOf(probe).st_dev ? path : probe;
}

}  // namespace

DiskSpaceRequirement DiskSpaceChecker::requirement(const std::string& path, std::uint64_t bytes,
                                                   std::uint64_t reserveBytes) {
  const std::uint64_t available = Posix::availableBytes(path);
  if (bytes > std::numeric_limits<std::uint64_t>::max() - reserveBytes) {
    throw RepackError(ConfigurationInvalid{"disk-space requirement overflows UInt64"});
  }
  return {.path = path, .requiredBytes = bytes + reserveBytes, .availableBytes = available};
}

DiskSpaceRequirement DiskSpaceChecker::requireAvailable(const std::string& path, std::uint64_t bytes,
                                                        std::uint64_t reserveBytes) {
  const std::string probe = directoryForProbe(path);
  Posix::mkdirP(probe);
  const std::string directory = directoryToMeasure(probe, path);
  DiskSpaceRequirement needed = requirement(directory, bytes, reserveBytes);
  if (!needed.canInstall()) {
    throw RepackError(DiskSpaceInsufficient{
        .path = directory, .required = needed.requiredBytes, .available = needed.availableBytes});
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
