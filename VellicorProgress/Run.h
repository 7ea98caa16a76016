#pragma once

#include <string>
#include <vector>

namespace vellicor {

/// The whole program: reads the arguments (the first is the program's own name), runs the command or filters
/// standard input, and returns the exit status. A command that a signal ends, ends this process by the same.
/// Never throws.
int runProgressViewer(const std::vector<std::string>& arguments);

}  // namespace vellicor
