#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/types.h>

#include "VellicorTerminal/Signals.h"

namespace vellicor {

/// A command could not be started. `what()` is the system's reason.
class CannotRun : public std::runtime_error {
 public:
  explicit CannotRun(int error);
  /// As in shells: 127 when there is no such command, 126 when it cannot be run.
  int exitStatus() const { return exitStatus_; }

 private:
  int exitStatus_;
};

/// A command whose standard output, and on request standard error, is a pipe that is read without blocking.
/// It has this process's standard input.
class ChildRun {
 public:
  enum class Errors { inherited, piped };

  /// Looks the command up in PATH. Throws `CannotRun`, or `std::system_error` when there is no pipe.
  ChildRun(const std::vector<std::string>& command, Errors errors);
  ~ChildRun();
  ChildRun(const ChildRun&) = delete;
  ChildRun& operator=(const ChildRun&) = delete;

  int output() const { return output_.read; }
  /// -1 when inherited.
  int errors() const { return errors_.read; }

  /// Passes a signal on to the command, while it has not been reaped.
  void signal(int number) const;
  /// Reaps the command if it has ended. Returns its wait status once known.
  const std::optional<int>& poll();

 private:
  int spawn(const std::vector<std::string>& command);

  Pipe output_;
  Pipe errors_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

}  // namespace vellicor
