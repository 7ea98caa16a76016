#pragma once

#include <string>

#include "VellicorRepackCore/Reporting/ModelInstallProgress.h"

namespace vellicor {

/// "PROGRESS " and one compact JSON object, with a line feed. Throws `std::invalid_argument` for text that is
/// not UTF-8.
std::string progressLine(const ModelInstallProgress& progress);

/// Writes the event's line to standard output, as one write. An event that no line can hold is dropped.
void emit(const ModelInstallProgress& progress);

}  // namespace vellicor
