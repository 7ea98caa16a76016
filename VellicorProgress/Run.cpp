#include "VellicorProgress/Run.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <exception>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>

#include <fmt/format.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "VellicorProgress/Advice.h"
#include "VellicorProgress/ChildRun.h"
#include "VellicorProgress/Terminal.h"
#include "VellicorProgress/Viewer.h"
#include "VellicorRepackCore/Base/NetworkRoute.h"
#include "VellicorTerminal/Escaping.h"
#include "VellicorTerminal/Options.h"
#include "VellicorTerminal/Signals.h"
#include "VellicorTerminal/StandardStreams.h"
#include "VellicorTerminal/TerminalText.h"

namespace vellicor {

namespace {

constexpr int success = 0;
constexpr int failure = 1;
constexpr int misuse = 2;

constexpr std::string_view usage =
    "Usage:\n"
    "  VellicorProgress -- <command> [<argument>...]\n"
    "  <command> | VellicorProgress\n"
    "  VellicorProgress --help | --version\n"
    "\n"
    "Shows the progress lines of an install to a person: on a terminal one live line\n"
    "for each phase, elsewhere one plain line every ten seconds. All other output\n"
    "passes through unchanged. With a command, the exit status is the command's, and\n"
    "after a failure the next step is named on standard error if that is a terminal.\n"
    "NO_COLOR turns colours off.";

ProgressTime now() { return std::chrono::steady_clock::now(); }

/// Standard output or error. Text that cannot be written is dropped, and the reason of the first failure is
/// kept. When the reader has gone, this process ends by SIGPIPE as any other would.
class Stream {
 public:
  explicit Stream(int fd) : fd_(fd) {}

  void write(std::string_view text) {
    const int error = writeAll(fd_, text);
    if (error == EPIPE) Signals::endBy(SIGPIPE);
    if (error_ == 0) error_ = error;
  }

  int error() const { return error_; }

 private:
  int fd_;
  int error_ = 0;
};

void complain(std::string_view text) {
  Stream(STDERR_FILENO).write(errorLine(fmt::format("VellicorProgress: {}", text)));
}

/// One run over a command's streams or standard input, until they have ended.
class Session {
 public:
  /// Reads standard input.
  Session() : viewer_(terminal_.mode, terminal_.look, hasDefaultRoute), input_(STDIN_FILENO) {}
  explicit Session(const std::vector<std::string>& command)
      : viewer_(terminal_.mode, terminal_.look, hasDefaultRoute),
        child_(std::make_unique<ChildRun>(
            command, ::isatty(STDERR_FILENO) == 1 ? ChildRun::Errors::piped : ChildRun::Errors::inherited)),
        input_(child_->output()),
        errors_(child_->errors()),
        isResume_(std::ranges::find(command, "--resume") != command.end()) {}

  int run() {
    while (!hasEnded()) {
      waitForNews();
      for (auto signal = signals_.take(); signal; signal = signals_.take()) answer(*signal);
      followForeground();
      readInput();
      readErrors();
      output_.write(viewer_.tick(now()));
    }
    return end();
  }

 private:
  static constexpr std::size_t pieceBytes = 65536;
  /// Per turn, so that a flood of output does not hold back the rest.
  static constexpr int mostPieces = 16;

  bool hasEnded() {
    if (child_ == nullptr) return input_ < 0;
    return child_->poll() && (input_ < 0 || isToStop_);
  }

  void waitForNews() {
    std::array<pollfd, 3> waited = {pollfd{.fd = signals_.descriptor(), .events = POLLIN, .revents = 0},
                                    pollfd{.fd = input_, .events = POLLIN, .revents = 0},
                                    pollfd{.fd = errors_, .events = POLLIN, .revents = 0}};
    ::poll(waited.data(), waited.size(), timeout());
    isInputReady_ = waited[1].revents != 0;
    isErrorsReady_ = waited[2].revents != 0;
  }

  int timeout() const {
    const auto next = viewer_.nextTick();
    if (!next) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 60000));
  }

  // Other processes may share standard input, so it stays blocking: one read when there is input.
  void readInput() {
    readPieces(input_, isInputReady_, child_ ? mostPieces : 1,
               [&](std::string_view bytes) { output_.write(viewer_.takeOutput(bytes, now())); });
  }

  void readErrors() {
    readPieces(errors_, isErrorsReady_, mostPieces, [&](std::string_view bytes) {
      if (terminal_.isTerminal) output_.write(viewer_.beforeErrors(bytes, now()));
      errorOutput_.write(bytes);
      errorLines_.feed(bytes);
    });
  }

  /// Hands on what can be read. `fd` becomes -1 at the end of the stream.
  template <typename Take>
  void readPieces(int& fd, bool isReady, int most, Take&& take) {
    for (int i = 0; isReady && fd >= 0 && i < most; ++i) {
      const ssize_t count = ::read(fd, piece_.data(), piece_.size());
      if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
      if (count <= 0) {
        fd = -1;
      } else {
        take(std::string_view(piece_.data(), static_cast<std::size_t>(count)));
      }
    }
  }

  void answer(int signal) {
    switch (signal) {
      case SIGWINCH:
        return resize();
      case SIGTSTP:
        output_.write(viewer_.hide());
        Signals::stopHere();
        return wake();
      case SIGCONT:
        return wake();
      case SIGINT:
      case SIGTERM:
      case SIGHUP:
      case SIGQUIT:
        return stop(signal);
      case SIGCHLD:
      default:
        return;
    }
  }

  void stop(int signal) {
    if (child_ == nullptr) {
      output_.write(viewer_.finish(PhaseEnd::stopped, now()));
      Signals::endBy(signal);
    }
    // The keyboard's SIGINT has reached the command too, and its reaction decides.
    if (signal != SIGINT) child_->signal(signal);
    // Processes that the command has started may still hold its output open.
    isToStop_ = true;
  }

  void resize() {
    terminal_ = Terminal::ofStandardOutput();
    output_.write(viewer_.resize(terminal_.look.columns, now()));
  }

  void wake() {
    // A SIGSTOP left the line on the screen, and another process may have the terminal now.
    output_.write(viewer_.hide());
    resize();
    isShown_ = false;
    followForeground();
  }

  // A shell may take the terminal back at any moment and return it later.
  void followForeground() {
    const bool mayShow = !terminal_.isTerminal || isInForeground(STDOUT_FILENO);
    if (mayShow == isShown_) return;
    isShown_ = mayShow;
    output_.write(mayShow ? viewer_.show(now()) : viewer_.hide());
  }

  int end() {
    isInputReady_ = isErrorsReady_ = true;
    readInput();
    readErrors();
    const bool hasSucceeded = child_ && child_->poll() == 0;
    output_.write(viewer_.finish(hasSucceeded ? PhaseEnd::finished : PhaseEnd::stopped, now()));
    if (child_) advise();
    const int status = child_ ? *child_->poll() : 0;
    if (WIFSIGNALED(status)) Signals::endBy(WTERMSIG(status));
    if (WEXITSTATUS(status) != success || output_.error() == 0) return WEXITSTATUS(status);
    complain("cannot write to standard output: " + std::generic_category().message(output_.error()));
    return failure;
  }

  void advise() {
    const int status = *child_->poll();
    if (status == 0 || ::isatty(STDERR_FILENO) != 1) return;
    const FailureSituation situation{.reached = viewer_.reached(), .isResume = isResume_};
    const std::optional<std::string> advice = WIFSIGNALED(status)
                                                  ? adviceAfterSignal(situation)
                                                  : adviceFor(errorLines_.lastErrorLine(), situation);
    if (!advice) return;
    const std::size_t columns = terminal_.isTerminal ? terminal_.look.columns : usualColumns;
    errorOutput_.write(foldWords("next step: " + *advice, columns - 1) + "\n");
  }

  Terminal terminal_ = Terminal::ofStandardOutput();
  Viewer viewer_;
  Signals signals_{{SIGCHLD, SIGWINCH, SIGTSTP, SIGCONT, SIGINT, SIGTERM, SIGHUP, SIGQUIT}};
  std::unique_ptr<ChildRun> child_;
  /// -1 after their end.
  int input_ = -1;
  int errors_ = -1;
  bool isResume_ = false;
  bool isInputReady_ = false;
  bool isErrorsReady_ = false;
  bool isShown_ = true;
  bool isToStop_ = false;
  ErrorLineKeeper errorLines_;
  Stream output_{STDOUT_FILENO};
  Stream errorOutput_{STDERR_FILENO};
  std::array<char, pieceBytes> piece_{};
};

int refuse(std::string_view why) {
  Stream(STDERR_FILENO).write(usageErrorText("VellicorProgress", why, usage));
  return misuse;
}

int runCommand(const std::vector<std::string>& command) try {
  return Session(command).run();
} catch (const CannotRun& error) {
  complain(fmt::format("cannot run {}: {}", command.front(), error.what()));
  return error.exitStatus();
}

}  // namespace

int runProgressViewer(const std::vector<std::string>& arguments) try {
  Stream output(STDOUT_FILENO);
  if (arguments.size() < 2) {
    if (::isatty(STDIN_FILENO) == 1) return refuse("there is no command and nothing is piped in");
    return Session().run();
  }
  const std::string& first = arguments[1];
  if (first == "--") {
    if (arguments.size() == 2) return refuse("there is no command after --");
    return runCommand({arguments.begin() + 2, arguments.end()});
  }
  if (arguments.size() > 2) return refuse("a command must follow --");
  if (first == "--help") {
    output.write(fmt::format("{}\n", usage));
    return success;
  }
  if (first == "--version") {
    output.write("VellicorProgress " VELLICOR_VERSION "\n");
    return success;
  }
  return refuse("unknown argument: " + first);
} catch (const std::exception& error) {
  complain(reasonOf(error));
  return failure;
}

}  // namespace vellicor
