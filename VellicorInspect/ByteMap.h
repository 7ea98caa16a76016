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
  /// What lies there, unless it is no tensor; in the list that the map was made from.
  const StoredTensor* tensor = nullptr;
  std::optional<std::int64_t> expert{};

  std::uint64_t bytes() const { return end - start; }
};

struct FileMap {
  std::string path;
  std::uint64_t size = 0;
  /// Without gap or overlap from the file's first byte to its end.
  std::vector<Region> regions{};
  std::optional<std::int64_t> layer{};
};

/// What every byte of an artifact is for.
struct ByteMap {
  /// The resident file, the small files by path, the layer files by layer.
  std::vector<FileMap> files;
  std::map<Family, std::uint64_t> familyBytes;
  std::uint64_t totalBytes = 0;
};

/// The map of an artifact, its receipt left out. Refers to `tensors`, which are the artifact's. Throws
/// `MorlenFormatError` when the files are together larger than any size.
ByteMap byteMap(const Artifact& artifact, const std::vector<StoredTensor>& tensors);

}  // namespace vellicor
