#include "VellicorRepackCore/Output/MorlenJSON.h"

#include <algorithm>
#include <limits>
#include <utility>

#include <fmt/format.h>

#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {
namespace {

using DType = MorlenFormatV1::DType;
using SubTensors = std::map<std::string, MorlenSubTensorV1>;

/// "gate", "gate_scales", "gate_biases", ...
std::string subTensorKey(const PerExpertTensorSlice& slice) {
  return slice.component == "weights" ? slice.role : slice.role + "_" + slice.component;
}

std::string packedDtype(DType dtype, const std::string& key) {
  switch (dtype) {
    case DType::u32:
      return "U32";
    case DType::bf16:
      return "BF16";
    case DType::fp16:
    case DType::fp32:
      break;
  }
  throw RepackError(ConfigurationInvalid{
      fmt::format("unsupported packed expert dtype {} for {}", MorlenFormatV1::name(dtype), key)});
}

std::vector<std::uint32_t> packedShape(const std::vector<std::uint64_t>& shape) {
  std::vector<std::uint32_t> packed;
  packed.reserve(shape.size());
  for (const std::uint64_t dimension : shape) {
    if (dimension > std::numeric_limits<std::uint32_t>::max()) {
      throw RepackError(
          ConfigurationInvalid{fmt::format("packed expert shape[{}] exceeds UInt32", packed.size())});
    }
    packed.push_back(static_cast<std::uint32_t>(dimension));
  }
  return packed;
}

SubTensors subTensors(const LayerFilePlan& layer) {
  SubTensors tensors;
  for (const PerExpertTensorSlice& slice : layer.subTensors) {
    const std::string key = subTensorKey(slice);
    MorlenSubTensorV1 tensor{.offset = slice.offsetInExpertBlob,
                             .size = slice.sizeInExpertBlob,
                             .dtype = packedDtype(slice.dtype, key),
                             .shape = packedShape(slice.logicalShape),
                             .bits = slice.bitsForWeights};
    if (!tensors.emplace(key, std::move(tensor)).second) {
      throw RepackError(ConfigurationInvalid{fmt::format("duplicate packed expert tensor key {}", key)});
    }
  }
  return tensors;
}

/// Every expert of a layer lists the same sub-tensors: their offsets are relative to its own blob.
MorlenLayerV1 layoutLayer(const LayerFilePlan& plan) {
  const SubTensors tensors = subTensors(plan);
  MorlenLayerV1 layer{.layer = plan.layerIndex, .file = lastPathComponent(plan.path), .experts = {}};
  for (std::int64_t expert = 0; expert < plan.expertsPerLayer; ++expert) {
    const std::uint64_t offset =
        morlenCheckedMultiply(static_cast<std::uint64_t>(expert), plan.expertStride, "expert.offset");
    layer.experts.push_back({.expert = expert,
                             .physicalRank = std::nullopt,
                             .offset = offset,
                             .size = plan.expertStride,
                             .tensors = tensors});
  }
  return layer;
}

MorlenManifestArchV1 manifestArch(const ArchInfo& arch) {
  return {.hiddenSize = arch.hiddenSize,
          .ffnIntermediate = arch.intermediateSize,
          .moeIntermediateSize = arch.moeIntermediateSize,
          .numHeads = arch.numHeads,
          .numKVHeads = arch.numKVHeads,
          .numFullKVHeads = arch.numFullKVHeads,
          .headDim = arch.headDim,
          .fullHeadDim = arch.fullHeadDim,
          .vocabSize = arch.vocabSize,
          .slidingWindow = arch.slidingWindow,
          .finalLogitSoftcap = arch.finalLogitSoftcap,
          .ropeTheta = arch.ropeTheta,
          .fullRopeTheta = arch.fullRopeTheta,
          .partialRotaryFactor = arch.partialRotaryFactor,
          .numLayers = arch.numLayers,
          .numExperts = arch.numExperts,
          .topKExperts = arch.topKExperts,
          .tieWordEmbeddings = arch.tieWordEmbeddings,
          .attentionKEqV = arch.attentionKEqV,
          .hiddenActivation = arch.hiddenActivation,
          .fullAttentionLayerMask = {arch.fullAttentionLayerMask.begin(), arch.fullAttentionLayerMask.end()}};
}

MorlenManifestQuantV1 manifestQuant(const RepackPlan& plan,
                                    const std::map<std::string, std::int64_t>& bitWidths) {
  const auto slot = [&](const char* name) {
    const auto width = bitWidths.find(name);
    if (width == bitWidths.end()) {
      throw RepackError(
          ConfigurationInvalid{fmt::format("missing manifest quant slot bit width for {}", name)});
    }
    return MorlenManifestQuantSlotV1{.weightBits = width->second,
                                     .scheme = plan.baseMode,
                                     .scaleType = "BF16",
                                     .biasType = "BF16",
                                     .groupSize = plan.baseGroupSize};
  };
  return {.embedding = slot("embedding"),
          .attention = slot("attention"),
          .router = slot("router"),
          .sharedExpert = slot("sharedExpert"),
          .routedExpert = slot("routedExpert")};
}

std::map<std::string, MorlenManifestFileV1> manifestFiles(const std::vector<MorlenJSON::NamedFile>& files) {
  std::map<std::string, MorlenManifestFileV1> byPath;
  for (const auto& [relativePath, info] : files) {
    if (!byPath.emplace(relativePath, MorlenManifestFileV1{info.size, info.sha256}).second) {
      throw RepackError(ConfigurationInvalid{fmt::format("duplicate manifest file entry {}", relativePath)});
    }
  }
  return byPath;
}

}  // namespace

std::string MorlenJSON::encodeLayout(const RepackPlan& plan, std::uint64_t expertStride) {
  MorlenPackedExpertsLayoutV1 layout;
  layout.expertStride = expertStride;
  layout.numLayers = plan.arch.numLayers;
  layout.expertsPerLayer = plan.layers.empty() ? 0 : plan.layers.front().expertsPerLayer;
  layout.layers.reserve(plan.layers.size());
  for (const LayerFilePlan& layer : plan.layers) layout.layers.push_back(layoutLayer(layer));
  return MorlenPackedExpertsLayoutCodec::encode(layout);
}

std::string MorlenJSON::encodeManifest(const RepackPlan& plan, const std::string& modelID,
                                       const std::optional<std::string>& sourceSnapshotHash,
                                       const std::vector<NamedFile>& files, std::int64_t expertsPerLayer,
                                       std::int64_t numLayers, std::uint64_t expertStride,
                                       const std::map<std::string, std::int64_t>& bitWidths) {
  MorlenManifestV1 manifest;
  manifest.flags = {{"streamingPresent", true}, {"turboQuantKV", false}, {"aneSharedExpert", false}};
  manifest.modelID = modelID;
  manifest.sourceSnapshotHash = sourceSnapshotHash;
  manifest.arch = manifestArch(plan.arch);
  manifest.files = manifestFiles(files);
  manifest.quant = manifestQuant(plan, bitWidths);
  manifest.expertsPerLayer = expertsPerLayer;
  manifest.numLayers = numLayers;
  manifest.expertStride = expertStride;
  manifest.bitWidthOverridesHonored = plan.bitsOverrideCount;
  return MorlenManifestCodec::encode(manifest);
}

std::map<std::string, std::int64_t> MorlenJSON::bitWidths(const RepackPlan& plan,
                                                          const SupportedModel& model) {
  std::map<std::string, std::int64_t> widths;
  for (const auto& [slot, nameEnd, defaultBits] : model.bitWidthSlots) {
    std::int64_t& bits = widths[slot] = defaultBits;
    if (nameEnd.empty()) {
      const auto layer = std::ranges::find_if(
          plan.layers, [](const LayerFilePlan& candidate) { return !candidate.subTensors.empty(); });
      if (layer != plan.layers.end()) bits = layer->subTensors.front().bitsForWeights.value_or(defaultBits);
      continue;
    }
    for (const ResidentEntry& entry : plan.resident.entries) {
      if (entry.quantSpec && entry.name.ends_with(nameEnd)) bits = entry.quantSpec->bits;
    }
  }
  return widths;
}

}  // namespace vellicor
