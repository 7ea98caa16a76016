#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "VellicorArtifact/Artifact.h"
#include "VellicorInspect/ByteMap.h"
#include "VellicorInspect/TensorList.h"

namespace vellicor {

/// An opened artifact and the facts derived from it.
struct Inspection {
  explicit Inspection(const std::string& path)
      : artifact(Artifact::open(path)), tensors(storedTensors(artifact)), map(byteMap(artifact, tensors)) {}
  Inspection(const Inspection&) = delete;
  Inspection& operator=(const Inspection&) = delete;

  const Artifact artifact;
  const std::vector<StoredTensor> tensors;
  const ByteMap map;
};

/// One layer: the file of its routed experts, and its share of the resident file.
struct LayerSummary {
  const MorlenLayerV1* layer;
  bool hasFullAttention = false;
  std::uint64_t residentBytes = 0;
  /// The size of the layer file.
  std::uint64_t expertBytes = 0;
  /// The widths of the routed experts' packed weights, ascending.
  std::vector<std::uint64_t> expertBits{};
};

/// By layer.
std::vector<LayerSummary> layerSummaries(const Inspection& inspection);

/// The tensors whose whole name matches one of the globs; without globs, all tensors. Throws
/// `configurationInvalid` when there are globs and no match.
std::vector<const StoredTensor*> matchingTensors(const std::vector<StoredTensor>& tensors,
                                                 const std::vector<std::string>& globs);

// Texts for people: safe for a terminal, and no wider than `width` where possible.

std::string summaryText(const Inspection& inspection);
std::string tensorsText(const std::vector<const StoredTensor*>& tensors, std::optional<std::size_t> width);
std::string layersText(const Inspection& inspection, std::optional<std::size_t> width);

/// "704 x 2816", or "?" for an unknown shape.
std::string shapeText(const std::vector<std::uint64_t>& shape);

}  // namespace vellicor
