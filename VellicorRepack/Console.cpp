#include "VellicorRepack/Console.h"

#include <cerrno>
#include <cstddef>

#include <unistd.h>

namespace vellicor {

void writeToConsole(ConsoleStream stream, std::string_view text) {
  const int fd = stream == ConsoleStream::standardOutput ? STDOUT_FILENO : STDERR_FILENO;
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace vellicor
