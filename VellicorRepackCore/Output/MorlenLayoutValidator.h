#pragma once

#include <string>

#include "VellicorRepackCore/Planning/RepackPlanner.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"

namespace vellicor {

/// Re-reads a written layout and checks it against the plan it was written from.
struct MorlenLayoutValidator {
  /// Throws `configurationInvalid`. `audit`, when given, learns what was checked.
  static void validate(const std::string& path, const RepackPlan& plan, RepackAudit* audit);
};

}  // namespace vellicor
