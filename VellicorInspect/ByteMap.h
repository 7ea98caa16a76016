#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "VellicorArtifact/Artifact.h"
#include "VellicorInspect/TensorList.h"

namespace vellicor {

/// A stretch of a file.
struct Region {
  std::uint64_t start;
  std::uint64_t end;
  Family family;
  /// The tensor that lies there, if any, in the list that the map was made from.
  const StoredTensor* tensor = nullptr;
  std::optional<std::int64_t> expert{};

  std::uint64_t bytes() const { return end - start; }
};

struct FileMap {
  std::string path;
  std::uint64_t size = 0;
  /// Without gap or overlap from the file's first byte to its end.
  std::vector<Region> regions{};
  /// The layer of a layer file.
  const MorlenLayerV1* layer = nullptr;
};

/// The purpose of every byte of an artifact.
struct ByteMap {
  /// The resident file, the small files by path, the layer files by layer.
  std::vector<FileMap> files;
  std::map<Family, std::uint64_t> familyBytes;
  std::uint64_t totalBytes = 0;
};

/// The map of an artifact without its receipt. It refers to the artifact and to `tensors`, the artifact's.
/// Throws `MorlenFormatError` when the sum of the sizes overflows.
ByteMap byteMap(const Artifact& artifact, const std::vector<StoredTensor>& tensors);

}  // namespace vellicor
