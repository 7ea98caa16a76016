#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "VellicorFormat/MorlenManifestV1.h"
#include "VellicorRepackCore/Planning/RepackPlanner.h"
#include "VellicorRepackCore/Source/SupportedModel.h"

namespace vellicor {

/// Fills the artifact's JSON records from a plan.
struct MorlenJSON {
  static constexpr std::int64_t versionMajor = MorlenFormatV1::versionMajor;
  static constexpr std::int64_t versionMinor = MorlenFormatV1::versionMinor;

  struct FileEntry {
    std::uint64_t size = 0;
    /// Lower-case hexadecimal.
    std::string sha256;
  };
  struct NamedFile {
    std::string relativePath;
    FileEntry info;
  };

  /// The bytes of packed_experts/layout.json. Throws `configurationInvalid`, or the format's own error.
  static std::string encodeLayout(const RepackPlan& plan, std::uint64_t expertStride);

  /// The bytes of manifest.json. `bitWidths` maps the five quantisation slot names to weight bit widths.
  /// Throws `configurationInvalid` (a slot without a width, a path given twice), or the format's own error.
  static std::string encodeManifest(const RepackPlan& plan, const std::string& modelID,
                                    const std::optional<std::string>& sourceSnapshotHash,
                                    const std::vector<NamedFile>& files, std::int64_t expertsPerLayer,
                                    std::int64_t numLayers, std::uint64_t expertStride,
                                    const std::map<std::string, std::int64_t>& bitWidths);

  /// The weight bit width of every quantisation slot, as the plan's tensors have it.
  static std::map<std::string, std::int64_t> bitWidths(const RepackPlan& plan, const SupportedModel& model);
};

}  // namespace vellicor
