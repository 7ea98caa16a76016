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

/// A child process with its standard output and error collected and an empty standard input. A child that is
/// still running when the object goes is killed.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& command,
                        const ProcessSurroundings& surroundings = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void kill(int signal) const;
  /// Waits for the child's end and reaps it.
  ProcessResult wait();

 private:
  pid_t pid_ = -1;
  /// The files that stand for its standard streams.
  TemporaryDirectory streams_;
};

/// Runs a command to its end.
ProcessResult runProcess(const std::vector<std::string>& command,
                         const ProcessSurroundings& surroundings = {});

}  // namespace vellicor
