#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vellicor {

/// The numbers that decide every shape of a checkpoint of the supported family.
struct CheckpointDimensions {
  std::int64_t layers = 0;
  std::int64_t hidden = 0;
  std::int64_t intermediate = 0;
  std::int64_t moeIntermediate = 0;
  std::int64_t experts = 0;
  std::int64_t topKExperts = 0;
  std::int64_t heads = 0;
  std::int64_t kvHeads = 0;
  std::int64_t fullKVHeads = 0;
  std::int64_t headDim = 0;
  std::int64_t fullHeadDim = 0;
  std::int64_t vocab = 0;
  std::int64_t groupSize = 0;
  /// Every how many layers a layer has full attention; 0 for never.
  std::int64_t fullAttentionEvery = 0;

  /// Those of the supported checkpoint.
  static CheckpointDimensions fullSize();
  /// As many layers, and all else small.
  static CheckpointDimensions miniature();
  /// The same but for the number of experts: about 2 GiB, in pieces of the real sizes.
  static CheckpointDimensions medium();

  bool isFullAttention(std::int64_t layer) const {
    return fullAttentionEvery != 0 && (layer + 1) % fullAttentionEvery == 0;
  }
};

struct NamedShape {
  std::string name;
  /// "U32" or "BF16".
  std::string dtype;
  std::vector<std::uint64_t> shape;

  std::uint64_t byteCount() const;
  bool operator==(const NamedShape&) const = default;
};

/// Every tensor of the language model, layer by layer. A module of o outputs, i inputs and b bits is
/// `.weight` U32 [o, i x b / 32] with `.scales` and `.biases` BF16 [o, i / group size]; stacked experts have
/// their count in front. Layers with full attention have no v_proj.
std::vector<NamedShape> languageTensors(const CheckpointDimensions& dimensions);

/// config.json: the architecture, and a base quantisation of 4 bits with every layer's router at 8.
std::string configJson(const CheckpointDimensions& dimensions);

}  // namespace vellicor
