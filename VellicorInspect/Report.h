#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "VellicorArtifact/Artifact.h"
#include "VellicorInspect/ByteMap.h"
#include "VellicorInspect/TensorList.h"

namespace vellicor {

/// An opened artifact and what was derived from it.
struct Inspection {
  explicit Inspection(const std::string& path)
      : artifact(Artifact::open(path)), tensors(storedTensors(artifact)), map(byteMap(artifact, tensors)) {}
  Inspection(const Inspection&) = delete;
  Inspection& operator=(const Inspection&) = delete;

  const Artifact artifact;
  const std::vector<StoredTensor> tensors;
  const ByteMap map;
};

/// One layer: its routed experts' file and what the resident file holds for it.
struct LayerSummary {
  const MorlenLayerV1* layer;
  bool hasFullAttention = false;
  std::uint64_t residentBytes = 0;
  /// Of the layer file.
  std::uint64_t expertBytes = 0;
  /// Ascending, of the routed experts' packed weights.
  std::vector<std::uint64_t> expertBits{};
};

/// By layer.
std::vector<LayerSummary> layerSummaries(const Inspection& inspection);

/// The tensors with a name that one of the globs matches as a whole, all of them without globs. Throws
/// `configurationInvalid` when there are globs and no match.
std::vector<const StoredTensor*> matchingTensors(const std::vector<StoredTensor>& tensors,
                                                 const std::vector<std::string>& globs);

// What is printed for people: safe for a terminal, and no wider than `width` if that can be.

std::string summaryText(const Inspection& inspection);
std::string tensorsText(const std::vector<const StoredTensor*>& tensors, std::optional<std::size_t> width);
std::string layersText(const Inspection& inspection, std::optional<std::size_t> width);

/// "704 x 2816", or "?" for a shape that is not known.
std::string shapeText(const std::vector<std::uint64_t>& shape);

}  // namespace vellicor
