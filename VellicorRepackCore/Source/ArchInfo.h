#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vellicor {

/// The numbers of the source model's `text_config` that the repack and the artifact need. Unprefixed head
/// counts, head dimension and rope theta belong to the sliding-window layers, "full" ones to the
/// global-attention layers.
struct ArchInfo {
  std::int64_t hiddenSize = 0;
  std::int64_t intermediateSize = 0;
  std::int64_t moeIntermediateSize = 0;
  std::int64_t numHeads = 0;
  std::int64_t numKVHeads = 0;
  std::int64_t numFullKVHeads = 0;
  std::int64_t headDim = 0;
  std::int64_t fullHeadDim = 0;
  std::int64_t vocabSize = 0;
  std::int64_t slidingWindow = 0;
  double finalLogitSoftcap = 0;
  double ropeTheta = 10000.0;
  double fullRopeTheta = 1000000.0;
  double partialRotaryFactor = 0.25;
  std::int64_t numLayers = 0;
  std::int64_t numExperts = 0;
  std::int64_t topKExperts = 0;
  bool tieWordEmbeddings = false;
  bool attentionKEqV = false;
  /// One element per layer: 1 for full attention, 0 for any other kind.
  std::vector<std::uint8_t> fullAttentionLayerMask;
  std::string hiddenActivation = "gelu_pytorch_tanh";

  bool operator==(const ArchInfo&) const = default;

  /// Reads config.json. Throws `configJsonInvalid`; a file that cannot be read or parsed is passed up as it
  /// is.
  static ArchInfo load(const std::string& configPath);
};

}  // namespace vellicor
