#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/types.h>

namespace vellicor {

/// Two descriptors, closed on exec. Plain numbers: who opens it closes it.
struct Pipe {
  int read = -1;
  int write = -1;
};
/// Throws `std::system_error`.
Pipe openPipe();
void setNonBlocking(int fd);

/// A command could not be started; `what()` is the reason in the system's words.
class CannotRun : public std::runtime_error {
 public:
  explicit CannotRun(int error);
  /// As shells have it: 127 when there is no such command, 126 when there is one that cannot be run.
  int exitStatus() const { return exitStatus_; }

 private:
  int exitStatus_;
};

/// A command with its standard output, and where wanted its standard error, in pipes that are read here
/// without blocking. Its standard input is this process's own.
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
