#pragma once

// Turns the result of a system call into a value or an error.

#include <cerrno>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {

/// Repeats a call for as long as signals interrupt it.
template <typename Call>
auto retryInterrupted(Call&& call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

/// The result of a call that answers a negative number on failure; a failure throws what `makeError` builds
/// from the errno of that moment.
template <typename MakeError, typename Call>
auto checkedCall(MakeError&& makeError, Call&& call) {
  const auto result = retryInterrupted(call);
  if (result < 0) {
    const std::int32_t code = errno;
    throw makeError(code);
  }
  return result;
}

/// The same for a `Failure` that names one path.
template <typename Failure, typename Call>
auto checkedCall(const std::string& path, Call&& call) {
  return checkedCall(
      [&](std::int32_t code) { return RepackError(Failure{.path = path, .errnoValue = code}); }, call);
}

/// `fstat`. Throws `FileStatFailed`.
inline struct stat fileStatus(int fd, const std::string& path) {
  struct stat status {};
  checkedCall<FileStatFailed>(path, [&] { return ::fstat(fd, &status); });
  return status;
}

/// Throws `FileStatFailed` with EINVAL when the descriptor is of anything but a regular file.
inline void requireRegularFile(int fd, const std::string& path) {
  if (!S_ISREG(fileStatus(fd, path).st_mode))
    throw RepackError(FileStatFailed{.path = path, .errnoValue = EINVAL});
}

}  // namespace vellicor
