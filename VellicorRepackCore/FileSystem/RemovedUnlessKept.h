#pragma once

#include <string>
#include <utility>

#include <unistd.h>

#include "VellicorRepackCore/FileSystem/Entry.h"

namespace vellicor {

/// Owns a temporary file's name and removes the file when the scope ends, unless it was kept. A failure to
/// remove it is ignored. Replacing a directory on the way to it by a link redirects nothing.
class RemovedUnlessKept {
 public:
  /// Throws `FileOpenFailed` for a link on the way.
  explicit RemovedUnlessKept(std::string path)
      : parent_(Entry(path,
                      [&path](std::int32_t code) {
                        return RepackError(FileOpenFailed{.path = path, .errnoValue = code});
                      })
                    .directory),
        directory_(parent_.get()),
        path_(std::move(path)) {}
  /// `name` is in `directory`, a descriptor that outlives this object.
  RemovedUnlessKept(int directory, std::string name) : directory_(directory), path_(std::move(name)) {}
  ~RemovedUnlessKept() {
    if (!kept_) ::unlinkat(directory_, lastPathComponent(path_).c_str(), 0);
  }
  RemovedUnlessKept(const RemovedUnlessKept&) = delete;
  RemovedUnlessKept& operator=(const RemovedUnlessKept&) = delete;

  const std::string& path() const { return path_; }
  void keep() noexcept { kept_ = true; }

 private:
  FileDescriptor parent_;
  int directory_;
  std::string path_;
  bool kept_ = false;
};

}  // namespace vellicor
