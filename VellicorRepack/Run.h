#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorRepackCore/Install/RemoteStreamingRepackOptions.h"

namespace vellicor {

/// The whole program: parses, runs the chosen mode, prints its report or its one error line, and returns the
/// exit status: 0 for success and --help, 1 when the mode failed, 2 for arguments that make no sense. Never
/// throws.
int run(const std::vector<std::string>& arguments);

/// Runs one install and prints what an install prints; `name` goes into the "Installed " line. Returns the
/// exit status.
int runInstall(const RemoteStreamingRepackOptions& options, std::string_view name);

/// "install failed: <error>" on standard error; returns status 1.
int reportInstallFailure(const std::exception& error);

}  // namespace vellicor
