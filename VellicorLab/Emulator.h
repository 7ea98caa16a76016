#pragma once

#include <cstdlib>

namespace vellicor {

/// Whether the processor is emulated, as scripts/matrix says by VELLICOR_EMULATED. Then every process takes
/// the emulator's time, memory and descriptors besides its own, and some calls of the system are not what
/// they are.
inline bool isProcessorEmulated() { return std::getenv("VELLICOR_EMULATED") != nullptr; }

}  // namespace vellicor
