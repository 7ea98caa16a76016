#include "VellicorRepackCore/Planning/RepackPlanner.h"

#include <algorithm>
#include <limits>
#include <map>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/Paths.h"
#include "VellicorRepackCore/Planning/TensorNames.h"
#include "VellicorRepackCore/Source/SourceFingerprint.h"

namespace vellicor {
namespace {

using DType = MorlenFormatV1::DType;

// Far above any real model; they keep a hostile configuration from deciding how much is allocated.
constexpr std::int64_t maximumLayers = 65536;
constexpr std::int64_t maximumRoutedExperts = 8192;

constexpr std::uint64_t maximumU32 = std::numeric_limits<std::uint32_t>::max();

constexpr std::string_view weightSuffix = ".weight";

using Registry = std::map<std::string_view, const SourceTensor*>;
/// The routed weights of one layer, by role; nullptr for a missing one.
using RoutedBundle = std::array<const SourceTensor*, expertRoles.size()>;

DType outputDtype(const SourceTensor& tensor) { return static_cast<DType>(tensor.dtype); }

std::string shapeText(const std::vector<std::uint64_t>& shape) {
  return fmt::format("[{}]", fmt::join(shape, ", "));
}

Registry buildRegistry(const std::vector<Safetensors::Header>& shardHeaders) {
  Registry registry;
  for (const auto& header : shardHeaders) {
    for (const auto& tensor : header.tensors) registry.insert_or_assign(tensor.name, &tensor);
  }
  return registry;
}

// ---- Classification ----

struct Classified {
  std::vector<const SourceTensor*> resident;
  std::map<std::int64_t, RoutedBundle> routed;
  std::vector<std::string> excluded;
};

void addRouted(const RoutedSlot& slot, const SourceTensor& tensor, Classified& classified) {
  const SourceTensor*& place = classified.routed[slot.layer][slot.role];
  if (place != nullptr) {
    throw RepackError(ConfigurationInvalid{
        fmt::format("two routed-expert tensors for layer {} role {}", slot.layer, expertRoles[slot.role])});
  }
  place = &tensor;
}

/// The registry is ordered by name, so the excluded names come out sorted.
Classified classify(const Registry& registry, std::int64_t numLayers) {
  Classified classified;
  for (const auto& [name, tensor] : registry) {
    if (isExcludedMultimodal(supportedModel, name)) {
      classified.excluded.emplace_back(name);
    } else if (isCompanion(name)) {
      continue;
    } else if (!name.starts_with(supportedModel.namePrefix)) {
      throw RepackError(UnknownTensorPrefix{std::string(name)});
    } else if (const auto slot = routedSlot(supportedModel, name, numLayers)) {
      addRouted(*slot, *tensor, classified);
    } else {
      classified.resident.push_back(tensor);
    }
  }
  return classified;
}

std::vector<const SourceTensor*> inResidentOrder(const std::vector<const SourceTensor*>& tensors) {
  std::vector<std::pair<ResidentKey, const SourceTensor*>> keyed;
  keyed.reserve(tensors.size());
  for (const SourceTensor* tensor : tensors)
    keyed.emplace_back(residentKey(supportedModel, tensor->name), tensor);
  std::sort(keyed.begin(), keyed.end());
  std::vector<const SourceTensor*> ordered;
  ordered.reserve(keyed.size());
  for (const auto& [key, tensor] : keyed) ordered.push_back(tensor);
  return ordered;
}

// ---- Quantised tensors ----

struct QuantisedSource {
  const SourceTensor& scales;
  const SourceTensor& biases;
  std::int64_t bits;
};

std::string moduleName(const std::string& weightName) {
  return weightName.ends_with(weightSuffix) ? weightName.substr(0, weightName.size() - weightSuffix.size())
                                            : weightName;
}

/// The scales, biases and bit width that belong to a packed weight.
QuantisedSource quantisedSource(const SourceTensor& weight, const Registry& registry,
                                const IndexLoader::SourceMetadata& meta) {
  const std::string module = moduleName(weight.name);
  const auto scales = registry.find(module + ".scales");
  if (scales == registry.end()) throw RepackError(MissingScalesCompanion{weight.name});
  const auto biases = registry.find(module + ".biases");
  if (biases == registry.end()) throw RepackError(MissingBiasesCompanion{weight.name});
  if (scales->second->dtype != SourceTensor::Dtype::bf16 ||
      biases->second->dtype != SourceTensor::Dtype::bf16) {
    throw RepackError(DtypeMismatch{.name = weight.name,
                                    .detail = fmt::format("expected BF16 scales/biases, got {}/{}",
                                                          SourceTensor::dtypeName(scales->second->dtype),
                                                          SourceTensor::dtypeName(biases->second->dtype))});
  }
  const auto own = meta.bitsOverrides.find(module);
  const std::int64_t bits = own == meta.bitsOverrides.end() ? meta.baseBits : own->second.bits;
  if (bits < 1 || bits > 32) {
    throw RepackError(
        ConfigurationInvalid{fmt::format("bit width {} of {} is outside 1 to 32", bits, module)});
  }
  return {*scales->second, *biases->second, bits};
}

/// The shape of the values that 32-bit words of `bits`-bit weights hold: the last dimension counts values.
std::vector<std::uint64_t> unpackedShape(const std::string& name, std::vector<std::uint64_t> shape,
                                         std::int64_t bits) {
  if (shape.empty())
    throw RepackError(ShapeMismatch{.name = name, .detail = "packed weights have no dimension"});
  const std::uint64_t packedBits = morlenCheckedMultiply(shape.back(), 32, name);
  const auto width = static_cast<std::uint64_t>(bits);
  if (packedBits % width != 0) {
    throw RepackError(ShapeMismatch{
        .name = name,
        .detail = fmt::format("{} packed words do not hold whole {}-bit weights", shape.back(), bits)});
  }
  shape.back() = packedBits / width;
  return shape;
}

// ---- Layer files ----

/// Bytes of one expert's blob so far, without padding.
std::uint64_t blobBytes(const LayerFilePlan& plan) {
  if (plan.subTensors.empty()) return 0;
  const PerExpertTensorSlice& last = plan.subTensors.back();
  return morlenCheckedAdd(last.offsetInExpertBlob, last.sizeInExpertBlob, "expert blob");
}

/// Appends one component of one projection to the blob.
void appendSlice(LayerFilePlan& plan, std::string_view role, std::string_view component,
                 const SourceTensor& stacked, std::vector<std::uint64_t> logicalShape,
                 std::optional<std::int64_t> bits) {
  const std::uint64_t perExpert = stacked.sizeBytes / static_cast<std::uint64_t>(plan.expertsPerLayer);
  plan.subTensors.push_back({.role = std::string(role),
                             .component = std::string(component),
                             .dtype = outputDtype(stacked),
                             .logicalShape = std::move(logicalShape),
                             .offsetInExpertBlob = blobBytes(plan),
                             .sizeInExpertBlob = perExpert,
                             .sourceOffsetPerExpert = perExpert,
                             .sourceTensor = stacked,
                             .bitsForWeights = bits});
}

std::vector<std::uint64_t> shapeOfOneExpert(const std::string& weightName, const SourceTensor& stacked) {
  if (stacked.shape.empty()) {
    throw RepackError(
        ShapeMismatch{.name = weightName, .detail = fmt::format("{} has no expert dimension", stacked.name)});
  }
  return {stacked.shape.begin() + 1, stacked.shape.end()};
}

void checkStacked(const SourceTensor& weight, std::uint64_t experts) {
  if (weight.dtype == SourceTensor::Dtype::u32 && weight.shape.size() == 3 && weight.shape[0] == experts)
    return;
  throw RepackError(
      ShapeMismatch{.name = weight.name,
                    .detail = fmt::format("expected U32 rank-3 with leading {}, got {} {}", experts,
                                          SourceTensor::dtypeName(weight.dtype), shapeText(weight.shape))});
}

LayerFilePlan planLayerFile(LayerFilePlan plan, const RoutedBundle& bundle, const Registry& registry,
                            const IndexLoader::SourceMetadata& meta) {
  const auto experts = static_cast<std::uint64_t>(plan.expertsPerLayer);
  for (std::size_t role = 0; role < expertRoles.size(); ++role) {
    const SourceTensor& weight = *bundle[role];
    checkStacked(weight, experts);
    const auto [scales, biases, bits] = quantisedSource(weight, registry, meta);
    if (weight.sizeBytes % experts != 0 || scales.sizeBytes % experts != 0 ||
        biases.sizeBytes % experts != 0) {
      throw RepackError(
          ShapeMismatch{.name = weight.name,
                        .detail = fmt::format("source bytes not evenly divisible by {} experts", experts)});
    }
    const std::string_view name = expertRoles[role];
    appendSlice(plan, name, "weights", weight,
                unpackedShape(weight.name, shapeOfOneExpert(weight.name, weight), bits), bits);
    appendSlice(plan, name, "scales", scales, shapeOfOneExpert(weight.name, scales), std::nullopt);
    appendSlice(plan, name, "biases", biases, shapeOfOneExpert(weight.name, biases), std::nullopt);
  }
  plan.expertStride = morlenRoundUpToAlignment(blobBytes(plan), "expert stride");
  return plan;
}

void requireComplete(std::int64_t layer, const RoutedBundle& bundle) {
  if (std::find(bundle.begin(), bundle.end(), nullptr) == bundle.end()) return;
  std::vector<std::string> present;
  for (std::size_t role = 0; role < expertRoles.size(); ++role) {
    if (bundle[role] == nullptr) continue;
    present.push_back(fmt::format("\"{}\": \"{}\"", expertRoles[role], bundle[role]->name));
  }
  throw RepackError(ConfigurationInvalid{
      fmt::format("layer {} routed-expert bundle incomplete: [{}]", layer, fmt::join(present, ", "))});
}

void checkExpertCount(const ArchInfo& arch, std::size_t routedLayers) {
  if (routedLayers == 0) return;
  const std::int64_t maximum = maximumRoutedExperts / static_cast<std::int64_t>(routedLayers);
  if (arch.numExperts >= 1 && arch.numExperts <= maximum) return;
  throw RepackError(ConfigurationInvalid{fmt::format("{} experts in each of {} layers is outside 1 to {}",
                                                     arch.numExperts, routedLayers, maximum)});
}

std::vector<LayerFilePlan> planLayers(const Classified& classified, const Registry& registry,
                                      const IndexLoader::SourceMetadata& meta, const ArchInfo& arch,
                                      const std::string& outputDir) {
  checkExpertCount(arch, classified.routed.size());
  const std::string directory = joinPath(outputDir, MorlenFormatV1::expertsDirectory);
  std::vector<LayerFilePlan> layers;
  layers.reserve(static_cast<std::size_t>(arch.numLayers));
  for (std::int64_t layer = 0; layer < arch.numLayers; ++layer) {
    LayerFilePlan plan;
    plan.layerIndex = layer;
    plan.path = joinPath(directory, fmt::format("layer_{:02}.bin", layer));
    if (const auto bundle = classified.routed.find(layer); bundle != classified.routed.end()) {
      requireComplete(layer, bundle->second);
      plan.expertsPerLayer = arch.numExperts;
      plan = planLayerFile(std::move(plan), bundle->second, registry, meta);
    }
    layers.push_back(std::move(plan));
  }
  return layers;
}

// ---- Resident file ----

std::array<std::uint32_t, 4> padTo4(const std::string& name, const std::vector<std::uint64_t>& shape) {
  std::array<std::uint32_t, 4> padded{};
  const bool fits =
      shape.size() <= padded.size() &&
      std::all_of(shape.begin(), shape.end(), [](auto dimension) { return dimension <= maximumU32; });
  if (!fits) {
    throw RepackError(ShapeMismatch{
        .name = name,
        .detail = fmt::format("{} is not representable as four 32-bit dimensions", shapeText(shape))});
  }
  std::transform(shape.begin(), shape.end(), padded.begin(),
                 [](std::uint64_t dimension) { return static_cast<std::uint32_t>(dimension); });
  return padded;
}

void buildStringTable(const std::vector<const SourceTensor*>& tensors, ResidentFilePlan& plan) {
  plan.stringTableOffsets.reserve(tensors.size());
  for (const SourceTensor* tensor : tensors) {
    if (plan.stringTable.size() > maximumU32) {
      throw RepackError(ConfigurationInvalid{"resident string table exceeds 32-bit offsets"});
    }
    plan.stringTableOffsets.push_back(static_cast<std::uint32_t>(plan.stringTable.size()));
    plan.stringTable += tensor->name;
  }
}

/// Places one tensor, and its scales and biases when it is quantised, at the cursor and advances it.
ResidentEntry placeResident(const SourceTensor& weight, const Registry& registry,
                            const IndexLoader::SourceMetadata& meta, std::uint64_t& cursor) {
  const auto place = [&](const SourceTensor& tensor) {
    return std::exchange(cursor, morlenCheckedAdd(cursor, tensor.sizeBytes, "resident payload"));
  };
  ResidentEntry entry;
  entry.name = weight.name;
  entry.dtype = outputDtype(weight);
  entry.sizeBytes = weight.sizeBytes;
  entry.sourceWeight = weight;
  if (weight.dtype != SourceTensor::Dtype::u32 || !weight.name.ends_with(weightSuffix)) {
    entry.logicalShape4 = padTo4(weight.name, weight.shape);
    entry.fileOffset = place(weight);
    return entry;
  }
  const auto [scales, biases, bits] = quantisedSource(weight, registry, meta);
  entry.logicalShape4 = padTo4(weight.name, unpackedShape(weight.name, weight.shape, bits));
  entry.fileOffset = place(weight);
  entry.scaleOffset = place(scales);
  entry.scaleSize = scales.sizeBytes;
  entry.biasOffset = place(biases);
  entry.biasSize = biases.sizeBytes;
  entry.quantSpec = QuantSpec{bits};
  entry.sourceScales = scales;
  entry.sourceBiases = biases;
  return entry;
}

ResidentFilePlan planResidentFile(std::string path, const std::vector<const SourceTensor*>& tensors,
                                  const Registry& registry, const IndexLoader::SourceMetadata& meta) {
  ResidentFilePlan plan;
  plan.path = std::move(path);
  buildStringTable(tensors, plan);
  const std::uint64_t tableBytes =
      morlenCheckedMultiply(tensors.size(), MorlenFormatV1::residentEntryBytes, "resident index");
  const std::uint64_t indexBytes =
      morlenCheckedAdd(morlenCheckedAdd(tableBytes, MorlenFormatV1::residentHeaderBytes, "resident index"),
                       plan.stringTable.size(), "resident index");
  plan.indexSize = morlenRoundUpToAlignment(indexBytes, "resident index");

  std::uint64_t cursor = plan.indexSize;
  plan.entries.reserve(tensors.size());
  for (const SourceTensor* tensor : tensors) {
    plan.entries.push_back(placeResident(*tensor, registry, meta, cursor));
  }
  plan.residentSize = cursor - plan.indexSize;
  return plan;
}

}  // namespace

std::string LayerFilePlan::relativePath() const { return MorlenFormatV1::layerPath(lastPathComponent(path)); }

std::uint64_t LayerFilePlan::fileBytes(std::string_view field) const {
  return MorlenFormatV1::layerBytes(expertsPerLayer, expertStride, field);
}

const LayerFilePlan* RepackPlan::firstExpertLayer() const {
  const auto layer = std::ranges::find_if(layers, &LayerFilePlan::hasFile);
  return layer == layers.end() ? nullptr : &*layer;
}

RepackPlan RepackPlanner::plan(const IndexLoader::SourceMetadata& meta, const ArchInfo& arch,
                               const std::vector<Safetensors::Header>& shardHeaders,
                               const std::string& outputDir) try {
  if (arch.numLayers < 0 || arch.numLayers > maximumLayers) {
    throw RepackError(
        ConfigurationInvalid{fmt::format("{} layers is outside 0 to {}", arch.numLayers, maximumLayers)});
  }
  const Registry registry = buildRegistry(shardHeaders);
  Classified classified = classify(registry, arch.numLayers);

  RepackPlan plan;
  plan.arch = arch;
  plan.baseMode = meta.baseMode;
  plan.baseGroupSize = meta.baseGroupSize;
  plan.bitsOverrideCount = static_cast<std::int64_t>(meta.bitsOverrides.size());
  plan.resident = planResidentFile(joinPath(outputDir, MorlenFormatV1::weightsPath),
                                   inResidentOrder(classified.resident), registry, meta);
  plan.layers = planLayers(classified, registry, meta, arch, outputDir);
  plan.matchedModelID = SourceFingerprint::modelID(meta.indexSha256Hex);
  plan.excludedMultimodalTensorNames = std::move(classified.excluded);
  return plan;
} catch (const MorlenFormatError& error) {
  throw RepackError(ConfigurationInvalid{error.description()});
}

}  // namespace vellicor
