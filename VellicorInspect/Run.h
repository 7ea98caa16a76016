#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vellicor {

/// The result of one run: the exit status (0, 1 for a failure, 2 for arguments that make no sense) and the
/// texts for standard output and standard error.
struct InspectOutcome {
  int status = 0;
  std::string output;
  std::string errors;
};

/// Runs the whole program except its printing; the first argument is the program's own name. Tables keep to
/// `width` columns where they can. Never throws.
InspectOutcome inspect(const std::vector<std::string>& arguments, std::optional<std::size_t> width);

}  // namespace vellicor
