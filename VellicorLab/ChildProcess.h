#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "VellicorLab/TemporaryDirectory.h"

namespace vellicor {

/// How a child process ended.
struct ProcessResult {
  /// The exit status, or 128 + the signal that ended it.
  int status = -1;
  std::string output;
  std::string errors;
};

struct ProcessSurroundings {
  /// Added to this process's environment, from which the variables that the installer reads are taken away.
  std::vector<std::pair<std::string, std::string>> environment{};
  std::string workingDirectory{};
  /// Called in the child before the program starts, for limits and the like: async-signal-safe calls only.
  std::function<void()> beforeStart{};
};

/// Waits for the end of a child of this process and reaps it. Returns the exit status, or 128 + the signal
/// that ended it; throws `std::runtime_error` when this process has no such child.
int waitForEnd(pid_t child);

/// For a child, right after its fork: it is killed as soon as the thread of `parent` that forked it ends.
/// Does nothing where the system has no such arrangement.
void endWithParent(pid_t parent);

/// A child process with its standard output and error collected and an empty standard input. A child that is
/// still running when the object goes is killed, and so is one whose parent was killed (see `endWithParent`).
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& command,
                        const ProcessSurroundings& surroundings = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Throws `std::logic_error` once `wait` has returned: the number may be another process's by then.
  void kill(int signal) const;
  /// Waits until the child has stopped itself or has ended; returns whether it has stopped.
  bool waitForStop() const;
  /// Waits for the child's end and reaps it. Called once.
  ProcessResult wait();

 private:
  /// 0 once the child has been reaped.
  pid_t pid_ = 0;
  /// The files that stand for its standard streams.
  TemporaryDirectory streams_;
};

/// Runs a command to its end.
ProcessResult runProcess(const std::vector<std::string>& command,
                         const ProcessSurroundings& surroundings = {});

}  // namespace vellicor
