#pragma once

// An entry as the calls relative to an open directory need it.

#include <string>
#include <utility>

#include "VellicorRepackCore/Base/Paths.h"
#include "VellicorRepackCore/FileSystem/FileDescriptor.h"
#include "VellicorRepackCore/FileSystem/Platform.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

/// The directory that holds an entry, reached through no link, and the entry's name in there.
struct Entry {
  /// Throws what `makeError` builds from an errno when the directory cannot be reached.
  template <typename MakeError>
  Entry(const std::string& path, MakeError&& makeError)
      : directory(
            checkedCall(std::forward<MakeError>(makeError),
                        [&] { return platform::openDirectoryWithoutLinks(directoryOf(path).c_str()); })),
        name(lastPathComponent(path)) {
    if (name.empty()) name.push_back('.');
  }

  static std::string directoryOf(const std::string& path) {
    const std::string parent = parentPath(path);
    return parent.empty() ? "." : parent;
  }

  FileDescriptor directory;
  std::string name;
};

}  // namespace vellicor
