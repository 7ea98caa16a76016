#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "VellicorRepackCore/Reporting/ModelInstallProgress.h"

namespace vellicor {

// A progress event as a line of text: "PROGRESS " and one compact JSON object.

inline constexpr std::string_view progressLineMark = "PROGRESS ";

/// The event's line, with its line feed. Throws `std::invalid_argument` for text that is not UTF-8.
std::string progressLine(const ModelInstallProgress& event);

/// The event of a line without its line feed, or nothing when the line is no progress line: another
/// beginning, malformed JSON, an unknown phase, a member that is missing or of another type. A line does not
/// hold the requirement of a space check, so that stays empty.
std::optional<ModelInstallProgress> decodedProgressLine(std::string_view line);

}  // namespace vellicor
