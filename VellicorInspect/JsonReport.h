#pragma once

#include <string>
#include <vector>

#include "VellicorInspect/Report.h"

namespace vellicor {

// The same answers for programs: JSON in the canonical form, and a line feed. Numbers of bytes are exact.
// Members that do not apply are absent.

/// One object: the manifest's members, with the manifest itself among the files, and "familyBytes", "receipt"
/// (its known members) and "totalBytes".
std::string summaryJson(const Inspection& inspection);

/// An array with one object for each tensor. A routed tensor has "bytes" and "offset" of its first expert,
/// "experts" (their number) and "expertStride": expert e lies at offset + e x expertStride. If the experts
/// lie otherwise, "expertIDs" and "offsets" list each expert and its place instead of the stride.
std::string tensorsJson(const std::vector<const StoredTensor*>& tensors, std::uint64_t expertStride);

/// An array with one object for each layer.
std::string layersJson(const Inspection& inspection);

}  // namespace vellicor
