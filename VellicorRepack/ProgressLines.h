#pragma once

#include <string>

#include "VellicorRepackCore/Reporting/ModelInstallProgress.h"

namespace vellicor {

/// "PROGRESS " and one compact JSON object, with a line feed.
std::string progressLine(const ModelInstallProgress& progress);

/// Writes the event's line to standard output, as one write.
void emit(const ModelInstallProgress& progress);

}  // namespace vellicor
