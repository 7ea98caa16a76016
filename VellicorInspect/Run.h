#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vellicor {

/// What one run of the program says: its exit status (0, 1 for a failure, 2 for arguments that make no sense)
/// and what goes to standard output and standard error.
struct InspectOutcome {
  int status = 0;
  std::string output;
  std::string errors;
};

/// Runs the whole program but for its printing; the first argument is the program's own name. Tables keep to
/// `width` characters where they can. Never throws.
InspectOutcome inspect(const std::vector<std::string>& arguments, std::optional<std::size_t> width);

}  // namespace vellicor
