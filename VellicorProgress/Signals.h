#pragma once

#include <optional>

namespace vellicor {

/// Turns the signals that a viewer must answer into bytes of a pipe, to be waited for beside its input:
/// SIGCHLD, SIGWINCH, SIGTSTP, SIGCONT, SIGINT, SIGTERM, SIGHUP, SIGQUIT. Those of the last five that were
/// ignored at the start stay so. One object per process; a command started later has the usual dispositions.
class Signals {
 public:
  Signals();
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  /// Readable when `take` has a signal.
  int descriptor() const { return read_; }
  std::optional<int> take() const;

  /// Stops this process as the keyboard's SIGTSTP does; returns when it is continued.
  static void stopHere();
  /// Ends this process by the signal, without a core file; on Linux without a crash report either.
  [[noreturn]] static void endBy(int signal);

 private:
  int read_ = -1;
};

}  // namespace vellicor
