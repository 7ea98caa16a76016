#include "VellicorTerminal/StandardStreams.h"

#include <cerrno>
#include <cstddef>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace vellicor {

namespace {

/// Waits until the descriptor takes bytes, or has an error that the next write reports. Returns 0 or an error
/// number.
int waitUntilWritable(int fd) noexcept {
  pollfd waited{.fd = fd, .events = POLLOUT, .revents = 0};
  while (::poll(&waited, 1, -1) < 0) {
    const int error = errno;
    if (error != EINTR && error != EAGAIN) return error;
  }
  return 0;
}

}  // namespace

void openStandardStreams() noexcept {
  // In this order each open takes the number that is missing.
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(stream, F_GETFD) >= 0) continue;
    const int opened = ::open("/dev/null", stream == STDIN_FILENO ? O_RDONLY : O_WRONLY);
    // Without /dev/null a directory takes the number: nothing can be written to it.
    if (opened < 0) static_cast<void>(::open("/", O_RDONLY | O_DIRECTORY));
  }
}

int writeAll(int fd, std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
      continue;
    }
    int error = errno;
    if (error == EINTR) continue;
    if (error == EAGAIN || error == EWOULDBLOCK) error = waitUntilWritable(fd);
    if (error != 0) return error;
  }
  return 0;
}

std::optional<std::size_t> windowColumns(int fd) noexcept {
  winsize size{};
  if (::ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return std::nullopt;
  return size.ws_col;
}

}  // namespace vellicor
