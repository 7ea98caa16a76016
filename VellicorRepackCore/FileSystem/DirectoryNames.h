#pragma once

// Reads the names in an open directory.

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>

#include "VellicorRepackCore/FileSystem/FileDescriptor.h"
#include "VellicorRepackCore/FileSystem/SystemCall.h"

namespace vellicor {

/// Opens a directory, and no link to one.
inline constexpr int directoryFlags = O_RDONLY | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC;

/// Calls `visit(name)` for each entry but "." and ".." until it answers false. The names are read through a
/// descriptor of their own. A failure throws what `makeError` builds from its errno.
template <typename MakeError, typename Visit>
void forEachName(int directory, const MakeError& makeError, Visit&& visit) {
  struct CloseStream {
    void operator()(DIR* stream) const noexcept { ::closedir(stream); }
  };
  FileDescriptor own(checkedCall(makeError, [&] { return ::openat(directory, ".", directoryFlags); }));
  const std::unique_ptr<DIR, CloseStream> stream(::fdopendir(own.get()));
  const std::int32_t openCode = errno;
  if (!stream) throw makeError(openCode);
  own.release();
  for (bool goesOn = true; goesOn;) {
    errno = 0;
    const dirent* entry = ::readdir(stream.get());
    const std::int32_t code = errno;
    if (entry == nullptr && code != 0) throw makeError(code);
    if (entry == nullptr) return;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") goesOn = visit(entry->d_name);
  }
}

}  // namespace vellicor
