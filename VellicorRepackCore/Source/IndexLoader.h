#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "VellicorRepackCore/Source/TensorMetadata.h"

namespace vellicor {

/// Reads a checkpoint's shard index and the quantisation settings of its configuration from a directory.
struct IndexLoader {
  static constexpr const char* indexFilename = "model.safetensors.index.json";
  static constexpr const char* configFilename = "config.json";

  struct SourceMetadata {
    std::string indexPath;
    std::string configPath;
    /// SHA-256 of the index file's bytes, lower-case hexadecimal.
    std::string indexSha256Hex;
    /// Tensor name to shard file name.
    std::map<std::string, std::string> weightMap;
    std::int64_t baseBits = 4;
    std::int64_t baseGroupSize = 64;
    std::string baseMode = "affine";
    /// Per-module overrides of the bit width, by module path.
    std::map<std::string, QuantSpec> bitsOverrides;
    /// The distinct shards, ordered by the smallest tensor name that each holds.
    std::vector<std::string> shardFilenames;
  };

  /// Throws `indexJsonInvalid`, `configJsonInvalid`, or the file errors of reading either file.
  static SourceMetadata load(const std::string& snapshotDir);
};

}  // namespace vellicor
