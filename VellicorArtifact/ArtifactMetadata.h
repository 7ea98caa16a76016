#pragma once

#include <cstdint>
#include <string>

#include "VellicorArtifact/MorlenDirectoryAccess.h"
#include "VellicorFormat/MorlenManifestV1.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"

namespace vellicor {

/// The manifest and the layout of an artifact, each checked by itself and against the other. Nothing in the
/// directory is trusted: both are read through no link, and no more than their maximum sizes.
struct ArtifactMetadata {
  MorlenManifestV1 manifest;
  MorlenPackedExpertsLayoutV1 layout;
  /// Size and digest of the bytes that were read.
  MorlenManifestFileV1 manifestFile;
  MorlenManifestFileV1 layoutFile;

  /// Throws `RepackError` at the first thing that is wrong.
  static ArtifactMetadata read(const MorlenDirectoryAccess& directory);
};

/// Throws `ConfigurationInvalid` when a file does not have the size or digest that the manifest lists for it.
void requireListedSize(const std::string& path, std::uint64_t size, const MorlenManifestFileV1& listed);
void requireListedDigest(const std::string& path, const std::string& sha256,
                         const MorlenManifestFileV1& listed);

}  // namespace vellicor
