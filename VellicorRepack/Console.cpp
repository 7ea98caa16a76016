#include "VellicorRepack/Console.h"

#include <unistd.h>

#include "VellicorTerminal/StandardStreams.h"

namespace vellicor {

void writeToConsole(ConsoleStream stream, std::string_view text) noexcept {
  const int fd = stream == ConsoleStream::standardOutput ? STDOUT_FILENO : STDERR_FILENO;
  static_cast<void>(writeAll(fd, text));
}

}  // namespace vellicor
