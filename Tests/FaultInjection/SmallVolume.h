#pragma once

#include <functional>
#include <string>

#include "Tests/FaultInjection/TrialReport.h"

namespace vellicor {

/// Runs `work` in a child process that has mounts of its own, and takes over what it reports. Returns false,
/// having run nothing, where mounting is not permitted. This process has no other thread at that moment.
bool runWithOwnMounts(TrialReport& report, const std::function<void(TrialReport&)>& work);

/// A file system of memory on an empty directory, for as long as the object lives. Throws
/// `std::runtime_error`, as every mounting does that is not permitted.
class SmallVolume {
 public:
  /// `limits` as in "size=64k,nr_inodes=20".
  SmallVolume(std::string directory, const std::string& limits);
  ~SmallVolume();
  SmallVolume(const SmallVolume&) = delete;
  SmallVolume& operator=(const SmallVolume&) = delete;

  void setLimits(const std::string& limits) const;
  void setReadOnly() const;
  /// Takes all the space but for some pages; gives it back.
  void fill(std::size_t sparePages) const;
  void empty() const;

 private:
  std::string directory_;
};

/// One directory of a file system is read-only for as long as the object lives; nothing in it is open for
/// writing.
class ReadOnlyDirectory {
 public:
  explicit ReadOnlyDirectory(std::string directory);
  ~ReadOnlyDirectory();
  ReadOnlyDirectory(const ReadOnlyDirectory&) = delete;
  ReadOnlyDirectory& operator=(const ReadOnlyDirectory&) = delete;

 private:
  std::string directory_;
};

}  // namespace vellicor
