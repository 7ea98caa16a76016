#pragma once

// Internal to the project, like JsonReading.h.

#include <string_view>

#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"

namespace vellicor {

/// Reads packed_experts/layout.json without checking its meaning. The record is filled from the parser's
/// events: the text has tens of megabytes, and a tree of it would take ten times that. Unknown keys are
/// ignored; if a key is given twice, the last value counts. Throws `JsonDecodingError` for the first fault in
/// the text.
MorlenPackedExpertsLayoutV1 readLayout(std::string_view json);

}  // namespace vellicor
