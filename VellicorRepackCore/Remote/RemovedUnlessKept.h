#pragma once

#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

namespace vellicor {

/// Owns a temporary file's name and removes the file when the scope ends, unless it was kept. A failure to
/// remove it is ignored.
class RemovedUnlessKept {
 public:
  explicit RemovedUnlessKept(std::string path) : path_(std::move(path)) {}
  ~RemovedUnlessKept() {
    std::error_code ignored;
    if (!kept_) std::filesystem::remove(path_, ignored);
  }
  RemovedUnlessKept(const RemovedUnlessKept&) = delete;
  RemovedUnlessKept& operator=(const RemovedUnlessKept&) = delete;

  const std::string& path() const { return path_; }
  void keep() { kept_ = true; }

 private:
  std::string path_;
  bool kept_ = false;
};

}  // namespace vellicor
