#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorRepackCore/Install/RemoteStreamingRepackOptions.h"

namespace vellicor {

/// The exit statuses of the program.
struct ExitStatus {
  static constexpr int success = 0;
  static constexpr int failure = 1;
  static constexpr int usage = 2;
};

/// The whole program: parses the arguments, runs the chosen mode, prints its report or its one error line,
/// and returns the exit status. Never throws.
int run(const std::vector<std::string>& arguments);

/// The output as typed, against the current directory and without trailing slashes; "." and ".." components
/// stay as they are, and so does an empty one, which names nothing. Throws as `absolutePath` does.
std::string absoluteOutputPath(const std::string& output);

/// Runs one install and prints what an install prints; `name` goes into the "Installed " line. Returns the
/// exit status; never throws.
int runInstall(const RemoteStreamingRepackOptions& options, std::string_view name);

/// Prints the one line of a failed install and returns its exit status.
int reportInstallFailure(const std::exception& error);

}  // namespace vellicor
