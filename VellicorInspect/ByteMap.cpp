#include "VellicorInspect/ByteMap.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace vellicor {

namespace {

/// The regions of the files that hold tensors, in any order.
std::map<std::string, std::vector<Region>> tensorRegions(const Artifact& artifact,
                                                         const std::vector<StoredTensor>& tensors) {
  std::map<std::string, std::vector<Region>> files;
  files[MorlenFormatV1::weightsPath].push_back({0, artifact.indexSize, Family::records});
  for (const MorlenLayerV1& layer : artifact.metadata.layout.layers)
    files[MorlenFormatV1::layerPath(layer.file)];
  for (const StoredTensor& tensor : tensors) {
    std::vector<Region>& regions = files[tensor.file];
    if (tensor.experts.empty()) {
      regions.push_back({tensor.offset, tensor.offset + tensor.bytes, tensor.family, &tensor});
    }
    for (const auto& [expert, offset] : tensor.experts) {
      regions.push_back({offset, offset + tensor.bytes, tensor.family, &tensor, expert});
    }
  }
  return files;
}

/// Sorts regions, and puts padding between and after them.
std::vector<Region> withPadding(std::vector<Region> regions, std::uint64_t size) {
  std::ranges::sort(regions, {}, &Region::start);
  std::vector<Region> all;
  std::uint64_t end = 0;
  const auto padTo = [&](std::uint64_t start) {
    if (start > end) all.push_back({end, start, Family::padding});
  };
  for (const Region& region : regions) {
    padTo(region.start);
    all.push_back(region);
    end = region.end;
  }
  padTo(size);
  return all;
}

}  // namespace

ByteMap byteMap(const Artifact& artifact, const std::vector<StoredTensor>& tensors) {
  auto regions = tensorRegions(artifact, tensors);
  std::map<std::string, const MorlenLayerV1*> layers;
  for (const MorlenLayerV1& layer : artifact.metadata.layout.layers) {
    layers[MorlenFormatV1::layerPath(layer.file)] = &layer;
  }
  auto listed = artifact.manifest().files;
  listed[MorlenFormatV1::manifestPath] = artifact.metadata.manifestFile;

  ByteMap map;
  for (const auto& [path, file] : listed) {
    FileMap& entry = map.files.emplace_back(FileMap{.path = path, .size = file.size});
    if (const auto layer = layers.find(path); layer != layers.end()) entry.layer = layer->second;
    const auto found = regions.find(path);
    if (found != regions.end()) {
      entry.regions = withPadding(std::move(found->second), file.size);
    } else if (file.size > 0) {
      entry.regions = {{0, file.size, Family::records}};
    }
    map.totalBytes = morlenCheckedAdd(map.totalBytes, file.size, "manifest.files");
    for (const Region& region : entry.regions) map.familyBytes[region.family] += region.bytes();
  }
  std::ranges::sort(map.files, {}, [](const FileMap& file) {
    return std::tuple(file.path != MorlenFormatV1::weightsPath, file.layer ? file.layer->layer : -1,
                      file.path);
  });
  return map;
}

}  // namespace vellicor
