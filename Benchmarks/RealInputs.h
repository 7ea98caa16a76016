#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"
#include "VellicorRepackCore/Planning/RepackPlanner.h"

namespace vellicor::bench {

// The supported checkpoint as the inputs of the installer's steps, and the same with more of everything. A
// scale of n means n times as many tensors, copies or experts; scale 1 is the real thing, byte for byte.

/// The names, sizes and headers of the shards, the index and the configuration. Every further copy has shards
/// and layers of its own. Its layers have fewer experts: the planner bounds their number over all layers.
struct RealSnapshot {
  struct Shard {
    std::string name;
    std::uint64_t fileBytes = 0;
    std::string header;
  };
  std::vector<Shard> shards;
  std::string index;
  std::string config;

  explicit RealSnapshot(int scale);

  /// Writes index and configuration into a directory and reads everything as an install does.
  struct Parsed {
    IndexLoader::SourceMetadata meta;
    ArchInfo arch;
    std::vector<Safetensors::Header> headers;
  };
  void write(const std::string& directory) const;
  Parsed parse(const std::string& directory) const;
};

RepackPlan repackPlan(const RealSnapshot::Parsed& parsed);

/// The plan of the real checkpoint with `scale` times as many layer files.
RepackPlan realPlan(int scale);

/// The layout that `realPlan` leads to.
MorlenPackedExpertsLayoutV1 realLayout(int scale);

/// As many resident tensors as the real checkpoint has, times `scale`, with names short enough for an index
/// of all of them.
ResidentFilePlan residentPlan(int scale);

}  // namespace vellicor::bench
