#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorRepackCore/Source/ArchInfo.h"
#include "VellicorRepackCore/Source/IndexLoader.h"
#include "VellicorRepackCore/Source/Safetensors.h"

namespace vellicor {

/// One component (weights, scales or biases) of one projection, for every expert of a layer. Expert e's bytes
/// are `sizeInExpertBlob` bytes at `sourceTensor.absoluteOffset` + e x `sourceOffsetPerExpert`, and they go
/// to e x stride + `offsetInExpertBlob` of the layer file.
struct PerExpertTensorSlice {
  /// "gate", "up" or "down".
  std::string role;
  /// "weights", "scales" or "biases".
  std::string component;
  MorlenFormatV1::DType dtype = MorlenFormatV1::DType::u32;
  /// Of one expert.
  std::vector<std::uint64_t> logicalShape;
  std::uint64_t offsetInExpertBlob = 0;
  std::uint64_t sizeInExpertBlob = 0;
  std::uint64_t sourceOffsetPerExpert = 0;
  /// The stacked tensor that holds all experts.
  SourceTensor sourceTensor;
  /// On weights slices only.
  std::optional<std::int64_t> bitsForWeights;
  bool operator==(const PerExpertTensorSlice&) const = default;
};

struct LayerFilePlan {
  std::int64_t layerIndex = 0;
  std::string path;
  /// 0 for a layer without routed experts.
  std::int64_t expertsPerLayer = 0;
  /// Bytes of one expert blob, a multiple of 16384.
  std::uint64_t expertStride = 0;
  /// In blob order.
  std::vector<PerExpertTensorSlice> subTensors;

  bool hasFile() const { return expertsPerLayer > 0; }
  /// The file's path inside the artifact.
  std::string relativePath() const;
  /// The file's size in bytes. Throws `MorlenFormatError` overflow(field).
  std::uint64_t fileBytes(std::string_view field) const;

  bool operator==(const LayerFilePlan&) const = default;
};

/// One tensor of model_weights.bin. Offsets are absolute in that file; scale and bias fields are 0 when
/// unquantised.
struct ResidentEntry {
  std::string name;
  MorlenFormatV1::DType dtype = MorlenFormatV1::DType::u32;
  /// Unused trailing dimensions are 0.
  std::array<std::uint32_t, 4> logicalShape4{};
  std::uint64_t fileOffset = 0;
  std::uint64_t sizeBytes = 0;
  std::uint64_t scaleOffset = 0;
  std::uint64_t scaleSize = 0;
  std::uint64_t biasOffset = 0;
  std::uint64_t biasSize = 0;
  std::optional<QuantSpec> quantSpec;
  SourceTensor sourceWeight;
  std::optional<SourceTensor> sourceScales;
  std::optional<SourceTensor> sourceBiases;
  bool operator==(const ResidentEntry&) const = default;
};

struct ResidentFilePlan {
  std::string path;
  /// In file order.
  std::vector<ResidentEntry> entries;
  /// All names' UTF-8 bytes in entry order, without separators.
  std::string stringTable;
  /// Offset of each entry's name from the start of the string table.
  std::vector<std::uint32_t> stringTableOffsets;
  /// Bytes reserved for the binary index at the file's head.
  std::uint64_t indexSize = 0;
  /// Bytes of tensor payload after the index.
  std::uint64_t residentSize = 0;
  bool operator==(const ResidentFilePlan&) const = default;
};

/// Where every byte of the source belongs in the artifact. Pure data.
struct RepackPlan {
  ArchInfo arch;
  std::string baseMode;
  std::int64_t baseGroupSize = 0;
  std::int64_t bitsOverrideCount = 0;
  ResidentFilePlan resident;
  /// One per decoder layer, layer 0 first.
  std::vector<LayerFilePlan> layers;
  /// The supported model that the source's index belongs to, if it is one.
  std::optional<std::string> matchedModelID;
  /// Dropped vision and audio tensors, sorted ascending.
  std::vector<std::string> excludedMultimodalTensorNames;

  /// The first layer with a file, or nullptr: every layer of a valid layout has the same dimensions.
  const LayerFilePlan* firstExpertLayer() const;

  bool operator==(const RepackPlan&) const = default;
};

/// Decides where every source byte goes, before any payload byte is fetched. Reads and writes nothing.
struct RepackPlanner {
  /// Throws `RepackError`.
  static RepackPlan plan(const IndexLoader::SourceMetadata& meta, const ArchInfo& arch,
                         const std::vector<Safetensors::Header>& shardHeaders, const std::string& outputDir);
};

}  // namespace vellicor
