#include "VellicorInspect/Report.h"

#include <algorithm>
#include <functional>
#include <set>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fnmatch.h>

#include "VellicorInspect/Table.h"
#include "VellicorTerminal/Escaping.h"
#include "VellicorTerminal/Units.h"

namespace vellicor {

namespace {

constexpr auto left = Table::Align::left;
constexpr auto right = Table::Align::right;

std::string line(std::string_view label, std::string_view text) {
  return fmt::format("{:<14}{}\n", label, escaped(text));
}

std::string sourceLines(const Artifact& artifact) {
  const auto text = [](const std::optional<std::string>& value) { return value.value_or("unknown"); };
  std::string lines = line("model", artifact.manifest().modelID);
  lines += line("source index", text(artifact.manifest().sourceSnapshotHash));
  if (!artifact.receipt) return lines + line("receipt", artifact.receiptProblem);
  lines += line("revision", text(artifact.revision()));
  lines += line("repository", text(artifact.receipt->sourceRepoID));
  lines += line("receipt", fmt::format("{}, by {}", text(artifact.receipt->verificationTimestamp),
                                       text(artifact.receipt->toolVersion)));
  return lines;
}

std::string architectureLines(const MorlenManifestV1& manifest) {
  const MorlenManifestArchV1& arch = manifest.arch;
  const auto full = std::ranges::count(arch.fullAttentionLayerMask, 1);
  std::string lines =
      line("format", fmt::format("{} {}.{}", manifest.magic, manifest.versionMajor, manifest.versionMinor));
  lines += line("layers", fmt::format("{}, {} of them with full attention, the others with a window of {}",
                                      arch.numLayers, full, arch.slidingWindow));
  lines += line("experts", fmt::format("{} a layer, {} chosen for a token, {} each", arch.numExperts,
                                       arch.topKExperts, bytesText(manifest.expertStride)));
  lines += line("dimensions",
                fmt::format("hidden {}, shared expert {}, routed expert {}, vocabulary {}", arch.hiddenSize,
                            arch.ffnIntermediate, arch.moeIntermediateSize, arch.vocabSize));
  return lines;
}

std::string quantisationTable(const MorlenManifestV1& manifest) {
  if (!manifest.quant) return line("quantisation", "unknown");
  const MorlenManifestQuantV1& quant = *manifest.quant;
  Table table({left, right, right, left, left, left}, std::nullopt);
  table.add({"quantisation", "bits", "group", "scheme", "scales", "biases"});
  const std::vector<std::pair<Family, const MorlenManifestQuantSlotV1*>> slots = {
      {Family::embedding, &quant.embedding},
      {Family::attention, &quant.attention},
      {Family::router, &quant.router},
      {Family::sharedExpert, &quant.sharedExpert},
      {Family::routedExperts, &quant.routedExpert}};
  for (const auto& [family, slot] : slots) {
    table.add({fmt::format("  {}", titleOf(family)), std::to_string(slot->weightBits),
               std::to_string(slot->groupSize), escaped(slot->scheme), escaped(slot->scaleType),
               escaped(slot->biasType)});
  }
  return table.text();
}

std::string sizesTable(const ByteMap& map) {
  Table table({left, right, right, right}, std::nullopt);
  table.add({"bytes", "", "", "share"});
  const auto add = [&](std::string_view title, std::uint64_t bytes) {
    table.add({fmt::format("  {}", title), bytesText(bytes), std::to_string(bytes),
               percentText(bytes, map.totalBytes)});
  };
  for (const Family family : allFamilies) {
    const auto found = map.familyBytes.find(family);
    if (found != map.familyBytes.end()) add(titleOf(family), found->second);
  }
  add(fmt::format("all {} files", map.files.size()), map.totalBytes);
  return table.text();
}

std::string bitsText(const std::vector<std::uint64_t>& bits) {
  return bits.empty() ? "-" : fmt::format("{}", fmt::join(bits, ", "));
}

}  // namespace

std::vector<LayerSummary> layerSummaries(const Inspection& inspection) {
  const MorlenManifestV1& manifest = inspection.artifact.manifest();
  const MorlenPackedExpertsLayoutV1& layout = inspection.artifact.metadata.layout;
  std::vector<LayerSummary> summaries(layout.layers.size());
  std::vector<std::set<std::uint64_t>> bits(summaries.size());
  for (const MorlenLayerV1& layer : layout.layers) {
    // The decoder has checked that the layers are numbered from 0 without a gap, and the mask's length.
    const auto number = static_cast<std::size_t>(layer.layer);
    summaries[number] = {.layer = &layer,
                         .hasFullAttention = manifest.arch.fullAttentionLayerMask[number] == 1,
                         .expertBytes = manifest.files.at(MorlenFormatV1::layerPath(layer.file)).size};
  }
  for (const StoredTensor& tensor : inspection.tensors) {
    if (!tensor.layer || !std::cmp_less(*tensor.layer, summaries.size()) || *tensor.layer < 0) continue;
    const auto number = static_cast<std::size_t>(*tensor.layer);
    if (!tensor.experts.empty()) {
      if (tensor.bits) bits[number].insert(*tensor.bits);
      continue;
    }
    summaries[number].residentBytes += tensor.bytes;
  }
  for (std::size_t i = 0; i < bits.size(); ++i)
    summaries[i].expertBits.assign(bits[i].begin(), bits[i].end());
  return summaries;
}

std::vector<const StoredTensor*> matchingTensors(const std::vector<StoredTensor>& tensors,
                                                 const std::vector<std::string>& globs) {
  std::vector<const StoredTensor*> matching;
  for (const StoredTensor& tensor : tensors) {
    const auto matches = [&](const std::string& glob) {
      return ::fnmatch(glob.c_str(), tensor.name.c_str(), 0) == 0;
    };
    if (globs.empty() || std::ranges::any_of(globs, matches)) matching.push_back(&tensor);
  }
  if (matching.empty() && !globs.empty()) {
    throw RepackError(ConfigurationInvalid{fmt::format("no tensor matches {}", fmt::join(globs, " or "))});
  }
  return matching;
}

std::string summaryText(const Inspection& inspection) {
  const MorlenManifestV1& manifest = inspection.artifact.manifest();
  std::string flags;
  for (const auto& [flag, isSet] : manifest.flags) {
    if (isSet) flags += (flags.empty() ? "" : ", ") + flag;
  }
  return fmt::format("{}{}{}{}\n{}\n{}", line("artifact", inspection.artifact.directory.rootPath()),
                     sourceLines(inspection.artifact), architectureLines(manifest),
                     line("flags", flags.empty() ? "none" : flags), quantisationTable(manifest),
                     sizesTable(inspection.map));
}

std::string tensorsText(const std::vector<const StoredTensor*>& tensors, std::optional<std::size_t> width) {
  Table table({left, left, right, right, left, right, right}, width);
  table.add({"tensor", "dtype", "shape", "bits", "file", "offset", "bytes"});
  for (const StoredTensor* tensor : tensors) {
    const bool isRouted = !tensor->experts.empty();
    table.add({escaped(tensor->name), tensor->dtype, shapeText(tensor->shape),
               tensor->bits ? std::to_string(*tensor->bits) : "-", escaped(tensor->file),
               std::to_string(tensor->offset),
               isRouted ? fmt::format("{} x {}", tensor->experts.size(), tensor->bytes)
                        : std::to_string(tensor->bytes)});
  }
  return table.text();
}

std::string layersText(const Inspection& inspection, std::optional<std::size_t> width) {
  const MorlenPackedExpertsLayoutV1& layout = inspection.artifact.metadata.layout;
  Table table({left, right, left, right, right, right, right, right}, width);
  table.add({"file", "layer", "attention", "experts", "stride", "bits", "bytes", "resident"});
  for (const LayerSummary& summary : layerSummaries(inspection)) {
    table.add({escaped(MorlenFormatV1::layerPath(summary.layer->file)), std::to_string(summary.layer->layer),
               summary.hasFullAttention ? "full" : "sliding", std::to_string(layout.expertsPerLayer),
               std::to_string(layout.expertStride), bitsText(summary.expertBits),
               std::to_string(summary.expertBytes), std::to_string(summary.residentBytes)});
  }
  return table.text();
}

std::string shapeText(const std::vector<std::uint64_t>& shape) {
  return shape.empty() ? "?" : fmt::format("{}", fmt::join(shape, " x "));
}

}  // namespace vellicor
