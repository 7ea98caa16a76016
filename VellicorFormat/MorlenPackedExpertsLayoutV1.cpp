#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"

#include <algorithm>
#include <limits>
#include <set>
#include <utility>

#include <fmt/format.h>

#include "VellicorFormat/ByteRanges.h"

namespace vellicor {

namespace {

/// The checks of one expert's sub-tensors; `id` names the expert in errors.
void validateTensors(const MorlenExpertV1& expert, std::int64_t id, std::uint64_t expertStride) {
  const auto refuse = [id](const std::string& name, const char* reason) {
    return MorlenFormatError::invalid(fmt::format("expert[{}].tensors.{}", id, name), reason);
  };
  std::vector<OwnedRange<std::string_view>> ranges;
  ranges.reserve(expert.tensors.size());
  for (const auto& [name, tensor] : expert.tensors) {
    const bool hasDtype = tensor.dtype == "U32" || tensor.dtype == "BF16";
    const bool hasShape = !tensor.shape.empty() &&
                          std::find(tensor.shape.begin(), tensor.shape.end(), 0U) == tensor.shape.end();
    const bool hasBits = !tensor.bits || (*tensor.bits >= 1 && *tensor.bits <= 32);
    if (!hasDtype || name.empty() || tensor.size == 0 || !hasShape || !hasBits)
      throw refuse(name, "invalid dtype or shape");
    if (tensor.size > std::numeric_limits<std::uint64_t>::max() - tensor.offset)
      throw MorlenFormatError::overflow(fmt::format("tensor.{}.range", name));
    if (!rangeLiesWithin(tensor.offset, tensor.size, 0, expertStride))
      throw refuse(name, "range exceeds expert blob");
    ranges.push_back({tensor.offset, tensor.offset + tensor.size, name});
  }
  if (const auto overlap = firstOverlap(ranges))
    throw MorlenFormatError::invalid(
        fmt::format("expert[{}].tensors", id),
        fmt::format("overlapping ranges {} and {}", overlap->first, overlap->second));
}

bool isIndexBelow(std::int64_t value, std::int64_t limit) { return value >= 0 && value < limit; }

void validateExperts(const MorlenLayerV1& layer, const MorlenPackedExpertsLayoutV1& layout) {
  const auto refuse = [&layer](const char* reason) {
    return MorlenFormatError::invalid(fmt::format("layout.layers[{}].experts", layer.layer), reason);
  };
  if (!std::cmp_equal(layer.experts.size(), layout.expertsPerLayer)) throw refuse("wrong expert count");
  const bool isExplicit = layer.experts.front().expert.has_value();
  if (std::any_of(layer.experts.begin(), layer.experts.end(), [isExplicit](const MorlenExpertV1& expert) {
        return expert.expert.has_value() != isExplicit;
      }))
    throw refuse("expert ids must be either all explicit or all positional");

  std::set<std::int64_t> ids;
  std::set<std::int64_t> ranks;
  std::set<std::uint64_t> offsets;
  std::int64_t position = 0;
  for (const MorlenExpertV1& expert : layer.experts) {
    const std::int64_t id = expert.expert.value_or(position);
    ++position;
    const std::int64_t rank = expert.physicalRank.value_or(id);
    if (!isIndexBelow(id, layout.expertsPerLayer) || !isIndexBelow(rank, layout.expertsPerLayer) ||
        !ids.insert(id).second || !ranks.insert(rank).second || !offsets.insert(expert.offset).second)
      throw refuse("duplicate or invalid expert mapping");
    const std::uint64_t blobOffset =
        morlenCheckedMultiply(static_cast<std::uint64_t>(rank), layout.expertStride, "expert.offset");
    if (expert.offset != blobOffset || expert.size != layout.expertStride)
      throw MorlenFormatError::invalid(fmt::format("expert[{}]", id),
                                       "offset or size does not match physical rank");
    validateTensors(expert, id, layout.expertStride);
  }
}

/// `keys` holds the file-system keys of the earlier layers' files.
void validateFile(const MorlenLayerV1& layer, std::set<std::string>& keys) {
  const std::string field = fmt::format("layout.layers[{}].file", layer.layer);
  MorlenPathValidator::validateBasename(layer.file, field);
  std::string key = MorlenPathValidator::appleFilesystemKey(layer.file);
  if (key == "layout.json") throw MorlenFormatError::invalid(field, "reserved packed-expert filename");
  if (!keys.insert(std::move(key)).second)
    throw MorlenFormatError::invalid(field, "duplicate layer filename");
}

}  // namespace

void MorlenV1StructuralValidator::validate(const MorlenPackedExpertsLayoutV1& layout) {
  if (layout.numLayers < 1 || layout.expertsPerLayer < 1 || layout.expertStride == 0 ||
      layout.expertStride % MorlenFormatV1::alignmentBytes != 0 ||
      !std::cmp_equal(layout.layers.size(), layout.numLayers))
    throw MorlenFormatError::invalid("layout", "invalid dimensions or stride");

  std::set<std::int64_t> layers;
  std::set<std::string> fileKeys;
  for (const MorlenLayerV1& layer : layout.layers) {
    if (!isIndexBelow(layer.layer, layout.numLayers) || !layers.insert(layer.layer).second)
      throw MorlenFormatError::invalid("layout.layers", "duplicate or invalid layer");
    validateFile(layer, fileKeys);
    validateExperts(layer, layout);
  }
}

void MorlenV1StructuralValidator::crossValidate(const MorlenManifestV1& manifest,
                                                const MorlenPackedExpertsLayoutV1& layout) {
  std::map<std::string, std::uint64_t> sizes;
  for (const auto& [path, file] : manifest.files) sizes.emplace(path, file.size);
  crossValidate(manifest.numLayers, manifest.expertsPerLayer, manifest.expertStride, sizes, layout);
}

void MorlenV1StructuralValidator::crossValidate(std::int64_t manifestNumLayers,
                                                std::int64_t manifestExpertsPerLayer,
                                                std::uint64_t manifestExpertStride,
                                                const std::map<std::string, std::uint64_t>& manifestFileSizes,
                                                const MorlenPackedExpertsLayoutV1& layout) {
  if (manifestNumLayers != layout.numLayers || manifestExpertsPerLayer != layout.expertsPerLayer ||
      manifestExpertStride != layout.expertStride)
    throw MorlenFormatError::invalid("manifest/layout", "dimension mismatch");
  const std::uint64_t layerSize =
      MorlenFormatV1::layerBytes(layout.expertsPerLayer, layout.expertStride, "layout.layerSize");
  for (const MorlenLayerV1& layer : layout.layers) {
    const std::string path = MorlenFormatV1::layerPath(layer.file);
    const auto file = manifestFileSizes.find(path);
    if (file == manifestFileSizes.end() || file->second != layerSize)
      throw MorlenFormatError::invalid("manifest.files." + path, "missing or wrong layer size");
  }
}

}  // namespace vellicor
