#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VellicorArtifact/ArtifactMetadata.h"
#include "VellicorArtifact/MorlenDirectoryAccess.h"
#include "VellicorFormat/MorlenResidentIndexV1.h"

namespace vellicor {

/// Where an artifact came from, by its receipt alone.
struct ArtifactReceipt {
  std::optional<std::string> sourceRepoID;
  std::optional<std::string> sourceRevision;
  std::optional<std::string> toolVersion;
  std::optional<std::string> verificationTimestamp;
};

/// An artifact directory whose records agree with each other, whose listed files are there with the sizes
/// that the manifest gives them, and whose ranges all lie inside these files. Sizes are checked, and the
/// digest of layout.json; the other digests are not (VellicorRepack --verify-install proves them).
struct Artifact {
  MorlenDirectoryAccess directory;
  ArtifactMetadata metadata;
  std::uint64_t indexSize = 0;
  /// In the order of the index.
  std::vector<MorlenResidentIndexEntryV1> resident{};
  /// A receipt that is missing or damaged is no failure: an artifact is whole without one.
  std::optional<ArtifactReceipt> receipt{};
  /// Why the receipt is missing.
  std::string receiptProblem{};

  const MorlenManifestV1& manifest() const { return metadata.manifest; }
  /// The commit of the source, as far as the receipt knows it: that of a verification repeats the source
  /// index's digest instead.
  std::optional<std::string> revision() const;

  /// Throws `RepackError` at the first thing that is wrong, in the words of verification.
  static Artifact open(const std::string& path);
};

}  // namespace vellicor
