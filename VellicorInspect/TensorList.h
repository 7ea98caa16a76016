#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorArtifact/Artifact.h"

namespace vellicor {

/// What bytes of an artifact are for.
enum class Family {
  embedding,
  attention,
  router,
  sharedExpert,
  routedExperts,
  normsAndOther,
  records,
  padding,
};
inline constexpr std::array allFamilies = {Family::embedding,    Family::attention,     Family::router,
                                           Family::sharedExpert, Family::routedExperts, Family::normsAndOther,
                                           Family::records,      Family::padding};

/// "routedExperts", for JSON, and "routed experts", for people.
std::string_view keyOf(Family family);
std::string_view titleOf(Family family);

/// Where one expert's share of a tensor lies.
struct ExpertPlace {
  /// The router's index.
  std::int64_t expert;
  /// In the tensor's file.
  std::uint64_t offset;
};

/// One run of elements in one file, or one such run for each of several experts of a layer: a weight, or the
/// scales or biases of one.
struct StoredTensor {
  /// Of scales and biases in the resident file the weight's name and ".scales" or ".biases"; of experts
  /// "layers.<layer>.experts.<sub-tensor>".
  std::string name;
  Family family;
  /// "U32", "BF16", "FP16" or "FP32".
  std::string dtype;
  /// Logical: of packed weights, what is packed. Experts come first. Empty when the sizes do not tell.
  std::vector<std::uint64_t> shape;
  /// Width of a packed value; of packed weights only, and only when the sizes tell.
  std::optional<std::uint64_t> bits;
  std::string file;
  /// Of the only run, or of one expert's; `offset` is that of the first expert.
  std::uint64_t offset = 0;
  std::uint64_t bytes = 0;
  std::optional<std::int64_t> layer{};
  /// Ascending by expert; empty outside the layer files.
  std::vector<ExpertPlace> experts{};

  std::uint64_t totalBytes() const { return experts.empty() ? bytes : bytes * experts.size(); }
  /// Whether the experts are 0, 1, 2, ... and lie in this order, one stride apart.
  bool isInOrder(std::uint64_t expertStride) const;
};

/// Every tensor of an artifact: the resident ones in the index's order, each weight before its scales and
/// biases, then layer by layer what its experts hold, in the order of the blob. Experts that hold the same at
/// the same place in their blobs share one entry; so a name occurs twice only when a layer's experts differ.
std::vector<StoredTensor> storedTensors(const Artifact& artifact);

}  // namespace vellicor
