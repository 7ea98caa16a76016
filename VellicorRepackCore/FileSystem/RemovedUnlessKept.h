#pragma once

#include <string>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace vellicor {

/// Owns a temporary file's name and removes the file when the scope ends, unless it was kept. A failure to
/// remove it is ignored.
class RemovedUnlessKept {
 public:
  explicit RemovedUnlessKept(std::string path) : RemovedUnlessKept(AT_FDCWD, std::move(path)) {}
  /// `path` is relative to `directory`, a descriptor that outlives this object.
  RemovedUnlessKept(int directory, std::string path) : directory_(directory), path_(std::move(path)) {}
  ~RemovedUnlessKept() {
    if (!kept_) ::unlinkat(directory_, path_.c_str(), 0);
  }
  RemovedUnlessKept(const RemovedUnlessKept&) = delete;
  RemovedUnlessKept& operator=(const RemovedUnlessKept&) = delete;

  const std::string& path() const { return path_; }
  void keep() noexcept { kept_ = true; }

 private:
  int directory_;
  std::string path_;
  bool kept_ = false;
};

}  // namespace vellicor
