#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorArtifact/Artifact.h"

namespace vellicor {

/// The purpose of a region of bytes in an artifact.
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

/// "routedExperts", for JSON, "routed experts", for people, and its colour in a picture.
std::string_view keyOf(Family family);
std::string_view titleOf(Family family);
std::string_view colourOf(Family family);

/// The place of one expert's share of a tensor.
struct ExpertPlace {
  /// The router's index.
  std::int64_t expert;
  /// In the tensor's file.
  std::uint64_t offset;
};

/// One run of elements in one file, or one such run for each of several experts of a layer: a weight, or the
/// scales or biases of one.
struct StoredTensor {
  /// Scales and biases in the resident file have the weight's name and ".scales" or ".biases"; experts have
  /// "layers.<layer>.experts.<sub-tensor>".
  std::string name;
  Family family;
  /// "U32", "BF16", "FP16" or "FP32".
  std::string dtype;
  /// The logical shape: packed weights count unpacked. Experts come first. Empty when the sizes do not tell.
  std::vector<std::uint64_t> shape;
  /// The width of a packed value, for packed weights whose sizes tell it.
  std::optional<std::uint64_t> bits;
  std::string file;
  /// The place of the only run, or of the first expert's run.
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
/// biases, then the experts' sub-tensors by layer and in the order of the blob. Experts with equal
/// sub-tensors share one entry, so a name occurs twice only when a layer's experts differ.
std::vector<StoredTensor> storedTensors(const Artifact& artifact);

}  // namespace vellicor
