#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VellicorInspect/OutputFile.h"
#include "VellicorInspect/TensorList.h"

namespace vellicor {

/// Which bytes make up a tensor, in which order.
struct TensorBytes {
  struct Run {
    std::uint64_t offset;
    std::uint64_t bytes;
  };
  /// The tensor that was chosen, in the list that it was chosen from.
  const StoredTensor* tensor;
  std::vector<Run> runs;
  /// Of what the runs hold.
  std::vector<std::uint64_t> shape;
  std::uint64_t totalBytes;
};

/// The tensor of that name: for a routed tensor one expert's share, or without `expert` all of them one
/// behind the other, in the order of the experts. Throws `configurationInvalid` when there is no such thing.
TensorBytes tensorBytes(const std::vector<StoredTensor>& tensors, const std::string& name,
                        std::optional<std::int64_t> expert);

/// Copies the bytes in pieces, after comparing every range with the file as it is now.
void copyTensor(const Artifact& artifact, const TensorBytes& bytes, OutputFile& output);

}  // namespace vellicor
