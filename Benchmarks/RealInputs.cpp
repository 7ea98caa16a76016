#include "Benchmarks/RealInputs.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "VellicorLab/CheckpointShapes.h"
#include "VellicorLab/SupportedModelData.h"
#include "VellicorLab/TemporaryDirectory.h"
#include "VellicorRepackCore/Output/MorlenJSON.h"

namespace vellicor::bench {
namespace {

using Json = nlohmann::json;

/// The name that a tensor has in a further copy.
std::string nameInCopy(const std::string& name, int copy) {
  constexpr std::string_view layers = "language_model.model.layers.";
  std::string other = name;
  if (!name.starts_with(layers)) return other.insert(name.find('.') + 1, fmt::format("copy{}.", copy));
  const std::size_t end = name.find('.', layers.size());
  const std::int64_t layer = std::stoll(name.substr(layers.size(), end - layers.size()));
  const std::int64_t moved = layer + copy * CheckpointDimensions::fullSize().layers;
  return other.replace(layers.size(), end - layers.size(), std::to_string(moved));
}

/// A header's entry with one `scale`th of the experts.
Json withFewerExperts(Json entry, int scale) {
  entry["shape"][0] = entry["shape"][0].get<std::uint64_t>() / static_cast<std::uint64_t>(scale);
  const auto begin = entry["data_offsets"][0].get<std::uint64_t>();
  const auto end = entry["data_offsets"][1].get<std::uint64_t>();
  entry["data_offsets"][1] = begin + (end - begin) / static_cast<std::uint64_t>(scale);
  return entry;
}

std::string enlargedHeader(const Json& header, int copy, int scale) {
  Json enlarged;
  for (const auto& [name, entry] : header.items()) {
    const bool isTensor = name != "__metadata__";
    const bool isStacked = name.find(".experts.switch_glu.") != std::string::npos;
    const std::string key = isTensor && copy > 0 ? nameInCopy(name, copy) : name;
    enlarged[key] = isStacked ? withFewerExperts(entry, scale) : entry;
  }
  return enlarged.dump();
}

std::uint64_t fileBytes(const Json& header, std::size_t headerBytes) {
  std::uint64_t end = 0;
  for (const auto& [name, entry] : header.items()) {
    if (name != "__metadata__") end = std::max(end, entry["data_offsets"][1].get<std::uint64_t>());
  }
  return Safetensors::lengthPrefixBytes + headerBytes + end;
}

}  // namespace

RealSnapshot::RealSnapshot(int scale) {
  Json weightMap;
  for (int copy = 0; copy < scale; ++copy) {
    for (const std::string_view text : SupportedModelData::shardHeaders()) {
      const Json header = Json::parse(text);
      Shard shard;
      shard.name = fmt::format("model-{:05}-of-{:05}.safetensors", shards.size() + 1, 3 * scale);
      shard.header = scale == 1 ? std::string(text) : enlargedHeader(header, copy, scale);
      shard.fileBytes = fileBytes(header, shard.header.size());
      const Json entries = Json::parse(shard.header);
      for (const auto& [name, entry] : entries.items()) {
        if (name != "__metadata__") weightMap[name] = shard.name;
      }
      shards.push_back(std::move(shard));
    }
  }
  index = scale == 1 ? std::string(SupportedModelData::indexJson()) : Json{{"weight_map", weightMap}}.dump();
  CheckpointDimensions dimensions = CheckpointDimensions::fullSize();
  dimensions.layers *= scale;
  dimensions.experts /= scale;
  config = configJson(dimensions);
}

void RealSnapshot::write(const std::string& directory) const {
  writeFile(directory + "/" + IndexLoader::indexFilename, index);
  writeFile(directory + "/" + IndexLoader::configFilename, config);
}

RealSnapshot::Parsed RealSnapshot::parse(const std::string& directory) const {
  Parsed parsed;
  parsed.meta = IndexLoader::load(directory);
  parsed.arch = ArchInfo::load(parsed.meta.configPath);
  for (const Shard& shard : shards)
    parsed.headers.push_back(Safetensors::parseHeaderBytes(shard.name, shard.fileBytes, shard.header));
  return parsed;
}

RepackPlan repackPlan(const RealSnapshot::Parsed& parsed) {
  return RepackPlanner::plan(parsed.meta, parsed.arch, parsed.headers, "/models/checkpoint.artifact.partial");
}

RepackPlan realPlan(int scale) {
  const TemporaryDirectory directory;
  const RealSnapshot snapshot(1);
  snapshot.write(directory.path());
  RepackPlan plan = repackPlan(snapshot.parse(directory.path()));
  const std::vector<LayerFilePlan> layers = plan.layers;
  for (int copy = 1; copy < scale; ++copy) {
    for (LayerFilePlan layer : layers) {
      layer.layerIndex += plan.arch.numLayers * copy;
      layer.path = fmt::format("{}.{}", layer.path, copy);
      const SharedText shard = fmt::format("{}.{}", layer.subTensors[0].sourceTensor.shardPath.text(), copy);
      for (PerExpertTensorSlice& slice : layer.subTensors) slice.sourceTensor.shardPath = shard;
      plan.layers.push_back(std::move(layer));
    }
  }
  plan.arch.numLayers *= scale;
  return plan;
}

MorlenPackedExpertsLayoutV1 realLayout(int scale) {
  const RepackPlan plan = realPlan(scale);
  return MorlenPackedExpertsLayoutCodec::decode(
      MorlenJSON::encodeLayout(plan, plan.layers.front().expertStride));
}

ResidentFilePlan residentPlan(int scale) {
  const std::vector<ResidentEntry> real = realPlan(1).resident.entries;
  ResidentFilePlan plan;
  for (int copy = 0; copy < scale; ++copy) {
    for (ResidentEntry entry : real) {
      entry.name = fmt::format("tensor.{}", plan.entries.size());
      plan.stringTableOffsets.push_back(static_cast<std::uint32_t>(plan.stringTable.size()));
      plan.stringTable += entry.name;
      plan.entries.push_back(std::move(entry));
    }
  }
  plan.indexSize = morlenRoundUpToAlignment(MorlenFormatV1::residentHeaderBytes +
                                                MorlenFormatV1::residentEntryBytes * plan.entries.size() +
                                                plan.stringTable.size(),
                                            "resident index");
  std::uint64_t cursor = plan.indexSize;
  const auto place = [&cursor](std::uint64_t& offset, std::uint64_t size) {
    offset = size == 0 ? 0 : cursor;
    cursor += size;
  };
  for (ResidentEntry& entry : plan.entries) {
    place(entry.fileOffset, entry.sizeBytes);
    place(entry.scaleOffset, entry.scaleSize);
    place(entry.biasOffset, entry.biasSize);
  }
  plan.residentSize = cursor - plan.indexSize;
  return plan;
}

}  // namespace vellicor::bench
