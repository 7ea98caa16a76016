#include <cerrno>
#include <csignal>
#include <exception>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <unistd.h>

#include "VellicorInspect/Run.h"
#include "VellicorTerminal/Escaping.h"
#include "VellicorTerminal/Signals.h"
#include "VellicorTerminal/StandardStreams.h"

namespace {

/// Defers the signals until the files are written. After that, a slow reader of standard output does not keep
/// the program from ending at once.
vellicor::InspectOutcome inspectWithSignalsDeferred(const std::vector<std::string>& arguments) {
  const vellicor::Signals signals({SIGINT, SIGTERM, SIGHUP});
  vellicor::InspectOutcome outcome = vellicor::inspect(arguments, vellicor::windowColumns(STDOUT_FILENO));
  if (const auto signal = signals.take()) vellicor::Signals::endBy(*signal);
  return outcome;
}

}  // namespace

int main(int argc, char** argv) try {
  vellicor::openStandardStreams();
  vellicor::ignoreWriteSignals();
  const auto outcome = inspectWithSignalsDeferred(std::vector<std::string>(argv, argv + argc));
  vellicor::writeAll(STDERR_FILENO, outcome.errors);
  const int code = vellicor::writeAll(STDOUT_FILENO, outcome.output);
  if (code == 0 || code == EPIPE) return outcome.status;
  vellicor::writeAll(STDERR_FILENO,
                     fmt::format("VellicorInspect: write(standard output) failed: errno {}\n", code));
  return 1;
} catch (const std::exception& error) {
  vellicor::writeAll(STDERR_FILENO,
                     vellicor::errorLine(fmt::format("VellicorInspect: {}", vellicor::reasonOf(error))));
  return 1;
}
