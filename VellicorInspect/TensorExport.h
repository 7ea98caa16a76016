#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VellicorInspect/OutputFile.h"
#include "VellicorInspect/TensorList.h"

namespace vellicor {

/// The bytes of a tensor, in order.
struct TensorBytes {
  struct Run {
    std::uint64_t offset;
    std::uint64_t bytes;
  };
  /// In the list that it was chosen from.
  const StoredTensor* tensor;
  std::vector<Run> runs;
  /// The shape of all runs together.
  std::vector<std::uint64_t> shape;
  std::uint64_t totalBytes;
};

/// The tensor of that name: for a routed tensor one expert's share, or without `expert` all shares in the
/// order of the experts. Throws `configurationInvalid` when there is no such tensor or expert.
TensorBytes tensorBytes(const std::vector<StoredTensor>& tensors, const std::string& name,
                        std::optional<std::int64_t> expert);

/// Compares every range with the file's present size, then copies the bytes in pieces.
void copyTensor(const Artifact& artifact, const TensorBytes& bytes, OutputFile& output);

}  // namespace vellicor
