#include <cerrno>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "VellicorInspect/EndingSignals.h"
#include "VellicorInspect/Run.h"
#include "VellicorTerminal/StandardStreams.h"

namespace {

std::optional<std::size_t> terminalWidth() {
  winsize size{};
  if (::isatty(STDOUT_FILENO) == 0 || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return std::nullopt;
  return size.ws_col > 0 ? std::optional<std::size_t>(size.ws_col) : std::nullopt;
}

/// Only until the files are written: a reader of standard output that is slow can be left by a signal at
/// once.
vellicor::InspectOutcome inspectWithSignalsNoted(const std::vector<std::string>& arguments) {
  const vellicor::EndingSignals noted;
  return vellicor::inspect(arguments, terminalWidth());
}

}  // namespace

int main(int argc, char** argv) {
  vellicor::openStandardStreams();
  // A reader that has seen enough, or a limit on file sizes, ends a write and not the program.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  const auto outcome = inspectWithSignalsNoted(std::vector<std::string>(argv, argv + argc));
  vellicor::writeAll(STDERR_FILENO, outcome.errors);
  const int code = vellicor::writeAll(STDOUT_FILENO, outcome.output);
  if (code == 0 || code == EPIPE) return outcome.status;
  vellicor::writeAll(STDERR_FILENO,
                     fmt::format("VellicorInspect: write(standard output) failed: errno {}\n", code));
  return 1;
}
