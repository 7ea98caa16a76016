#include "VellicorRepackCore/FileSystem/FileStamp.h"

#include <algorithm>
#include <chrono>

#include <sys/stat.h>

#include "VellicorRepackCore/FileSystem/Platform.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
/// No kernel's clock for files ticks more slowly than 100 times a second; some file systems keep whole
/// seconds, or every other one.
constexpr std::int64_t fineTick = 2 * nanosecondsPerSecond / 100;
constexpr std::int64_t coarseTick = 2 * nanosecondsPerSecond;

std::int64_t now() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
}

bool hasSettled(const FileStamp& stamp) {
  const bool isWhole = stamp.modifiedAt % nanosecondsPerSecond == 0;
  const std::int64_t latest = std::max(stamp.modifiedAt, stamp.changedAt);
  return latest < now() - (isWhole ? coarseTick : fineTick);
}

FileStamp stampOf(const struct stat& status) {
  const platform::FileTimes times = platform::fileTimes(status);
  FileStamp stamp{.device = static_cast<std::uint64_t>(status.st_dev),
                  .inode = static_cast<std::uint64_t>(status.st_ino),
                  .size = static_cast<std::uint64_t>(status.st_size),
                  .modifiedAt = times.modified,
                  .changedAt = times.changed};
  stamp.isSettled = hasSettled(stamp);
  return stamp;
}

}  // namespace

FileStamp FileStamp::of(int fd, const std::string& path) { return stampOf(fileStatus(fd, path)); }

FileStamp FileStamp::at(const std::string& path) {
  struct stat status {};
  checkedCall<FileStatFailed>(path, [&] { return ::lstat(path.c_str(), &status); });
  return stampOf(status);
}

bool FileStamp::matches(const FileStamp& later) const {
  return device == later.device && inode == later.inode && size == later.size &&
         modifiedAt == later.modifiedAt && changedAt == later.changedAt;
}

}  // namespace vellicor
