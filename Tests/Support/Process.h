#pragma once

#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "Tests/Support/TemporaryDirectory.h"

namespace vellicor::testing {

/// How a child process ended.
struct ProcessResult {
  /// The exit status, or 128 + the signal that ended it.
  int status = -1;
  std::string output;
  std::string errors;
};

/// A child process with its standard output and error collected and an empty standard input. It inherits the
/// test's environment without the variables that the programs under test read; `environment` adds to it. A
/// child that is still running when the object goes is killed.
class Process {
 public:
  Process(const std::vector<std::string>& command,
          const std::vector<std::pair<std::string, std::string>>& environment = {},
          const std::string& workingDirectory = "");
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void kill(int signal);
  /// Waits for the child's end and reaps it.
  ProcessResult wait();

 private:
  pid_t pid_ = -1;
  /// The files that stand for its standard streams.
  TemporaryDirectory streams_;
};

/// Runs a command to its end.
ProcessResult runProcess(const std::vector<std::string>& command,
                         const std::vector<std::pair<std::string, std::string>>& environment = {},
                         const std::string& workingDirectory = "");

}  // namespace vellicor::testing
