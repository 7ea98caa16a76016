#pragma once

#include <map>
#include <string>

#include "VellicorLab/SyntheticCheckpoint.h"

namespace vellicor::testing {

/// The whole artifact that an install of this checkpoint must leave, as relative path and content, without
/// the receipt. Worked out from the checkpoint's bytes and the rules of the format alone; it shares no code
/// with the planner or the encoders. The checkpoint plans cleanly and fits in memory.
std::map<std::string, std::string> expectedArtifact(const SyntheticCheckpoint& checkpoint);

}  // namespace vellicor::testing
