#include "VellicorInspect/TensorList.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <map>
#include <span>
#include <tuple>
#include <utility>

#include <fmt/format.h>

namespace vellicor {

namespace {

constexpr std::uint64_t bf16Bytes = 2;
using Shape = std::vector<std::uint64_t>;

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

Family familyOf(std::string_view name) {
  if (contains(name, ".embed_tokens.")) return Family::embedding;
  if (contains(name, ".self_attn.")) return Family::attention;
  if (contains(name, ".router.")) return Family::router;
  if (contains(name, ".mlp.")) return Family::sharedExpert;
  return Family::normsAndOther;
}

std::optional<std::int64_t> layerOf(std::string_view name) {
  constexpr std::string_view marker = ".layers.";
  const std::size_t found = name.find(marker);
  if (found == std::string_view::npos) return std::nullopt;
  const std::string_view rest = name.substr(found + marker.size());
  std::int64_t layer = 0;
  const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), layer);
  const bool isNumber = error == std::errc() && end != rest.data() + rest.size() && *end == '.';
  return isNumber ? std::optional(layer) : std::nullopt;
}

/// The number of elements, or nothing when it does not fit.
std::optional<std::uint64_t> elementCount(std::span<const std::uint64_t> shape) {
  std::uint64_t count = 1;
  for (const std::uint64_t dimension : shape) {
    if (dimension != 0 && count > std::numeric_limits<std::uint64_t>::max() / dimension) return std::nullopt;
    count *= dimension;
  }
  return count;
}

/// Bits for each of the elements that fill `bytes` of 32-bit words.
std::optional<std::uint64_t> packedBits(const Shape& shape, std::uint64_t bytes) {
  const auto elements = elementCount(shape);
  if (!elements || bytes > std::numeric_limits<std::uint64_t>::max() / 8) return std::nullopt;
  const std::uint64_t bits = 8 * bytes / *elements;
  const bool isExact = 8 * bytes % *elements == 0 && bits >= 1 && bits <= 32;
  return isExact ? std::optional(bits) : std::nullopt;
}

/// The weight's shape with as many elements in the last dimension as the bytes hold.
Shape companionShape(Shape weightShape, std::uint64_t bytes) {
  const auto rows = elementCount(std::span(weightShape).first(weightShape.size() - 1));
  if (!rows || bytes % bf16Bytes != 0 || bytes / bf16Bytes % *rows != 0) return {};
  weightShape.back() = bytes / bf16Bytes / *rows;
  return weightShape;
}

void addResident(const MorlenResidentIndexEntryV1& entry, std::vector<StoredTensor>& tensors) {
  const auto dtype = MorlenFormatV1::dtypeFromRaw(entry.dtype).value();
  StoredTensor weight{.name = entry.name,
                      .family = familyOf(entry.name),
                      .dtype = std::string(MorlenFormatV1::name(dtype)),
                      .shape = Shape(entry.shape.begin(), std::ranges::find(entry.shape, 0U)),
                      .bits = {},
                      .file = MorlenFormatV1::weightsPath,
                      .offset = entry.fileOffset,
                      .bytes = entry.sizeBytes,
                      .layer = layerOf(entry.name)};
  std::ranges::transform(weight.dtype, weight.dtype.begin(),
                         [](char c) { return c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c; });
  if (dtype == MorlenFormatV1::DType::u32) weight.bits = packedBits(weight.shape, weight.bytes);
  tensors.push_back(weight);

  const auto addCompanion = [&](const char* suffix, std::uint64_t offset, std::uint64_t bytes) {
    if (bytes == 0) return;
    StoredTensor companion = weight;
    companion.name += suffix;
    companion.dtype = "BF16";
    companion.shape = companionShape(weight.shape, bytes);
    companion.bits.reset();
    companion.offset = offset;
    companion.bytes = bytes;
    tensors.push_back(std::move(companion));
  };
  addCompanion(".scales", entry.scaleOffset, entry.scaleSize);
  addCompanion(".biases", entry.biasOffset, entry.biasSize);
}

/// A sub-tensor as a blob names it; equal ones of several experts are one tensor.
struct BlobEntry {
  const std::string* name;
  const MorlenSubTensorV1* tensor;

  bool operator<(const BlobEntry& other) const {
    const auto key = [](const BlobEntry& entry) {
      const MorlenSubTensorV1& t = *entry.tensor;
      return std::tie(t.offset, *entry.name, t.size, t.dtype, t.shape, t.bits);
    };
    return key(*this) < key(other);
  }
};

void addLayer(const MorlenLayerV1& layer, std::vector<StoredTensor>& tensors) {
  std::map<BlobEntry, std::vector<ExpertPlace>> entries;
  for (std::size_t position = 0; position < layer.experts.size(); ++position) {
    const MorlenExpertV1& expert = layer.experts[position];
    const std::int64_t id = expert.expert.value_or(static_cast<std::int64_t>(position));
    for (const auto& [name, tensor] : expert.tensors) {
      // The decoder has checked that both sums stay inside the layer file.
      entries[{&name, &tensor}].push_back({id, expert.offset + tensor.offset});
    }
  }
  for (auto& [entry, places] : entries) {
    std::ranges::sort(places, {}, &ExpertPlace::expert);
    Shape shape = {places.size()};
    const std::uint64_t offset = places.front().offset;
    shape.insert(shape.end(), entry.tensor->shape.begin(), entry.tensor->shape.end());
    tensors.push_back({.name = fmt::format("layers.{}.experts.{}", layer.layer, *entry.name),
                       .family = Family::routedExperts,
                       .dtype = entry.tensor->dtype,
                       .shape = std::move(shape),
                       .bits = entry.tensor->bits,
                       .file = MorlenFormatV1::layerPath(layer.file),
                       .offset = offset,
                       .bytes = entry.tensor->size,
                       .layer = layer.layer,
                       .experts = std::move(places)});
  }
}

struct FamilyFacts {
  std::string_view key;
  std::string_view title;
  std::string_view colour;
};

FamilyFacts factsOf(Family family) {
  switch (family) {
    case Family::embedding:
      return {"embedding", "embedding", "#3a6fb5"};
    case Family::attention:
      return {"attention", "attention", "#e08b2d"};
    case Family::router:
      return {"router", "router", "#c23b36"};
    case Family::sharedExpert:
      return {"sharedExpert", "shared expert", "#2f9d78"};
    case Family::routedExperts:
      return {"routedExperts", "routed experts", "#8474bd"};
    case Family::normsAndOther:
      return {"normsAndOther", "norms and other", "#7d5d3f"};
    case Family::records:
      return {"records", "index and records", "#86919d"};
    case Family::padding:
      return {"padding", "padding", "#d9dee4"};
  }
  std::abort();
}

}  // namespace

std::string_view keyOf(Family family) { return factsOf(family).key; }

std::string_view titleOf(Family family) { return factsOf(family).title; }

std::string_view colourOf(Family family) { return factsOf(family).colour; }

bool StoredTensor::isInOrder(std::uint64_t expertStride) const {
  for (std::size_t i = 0; i < experts.size(); ++i) {
    if (experts[i].expert != static_cast<std::int64_t>(i)) return false;
    if (experts[i].offset < offset || experts[i].offset - offset != i * expertStride) return false;
  }
  return true;
}

std::vector<StoredTensor> storedTensors(const Artifact& artifact) {
  std::vector<StoredTensor> tensors;
  for (const auto& entry : artifact.resident) addResident(entry, tensors);
  std::vector<const MorlenLayerV1*> layers;
  for (const MorlenLayerV1& layer : artifact.metadata.layout.layers) layers.push_back(&layer);
  std::ranges::sort(layers, {}, &MorlenLayerV1::layer);
  for (const MorlenLayerV1* layer : layers) addLayer(*layer, tensors);
  return tensors;
}

}  // namespace vellicor
