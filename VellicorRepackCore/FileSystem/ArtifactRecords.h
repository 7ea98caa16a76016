#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorFormat/MorlenManifestV1.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/FileSystem/MorlenDirectoryAccess.h"

namespace vellicor {

/// The two JSON records that say what an artifact is, checked by themselves and against each other. Nothing
/// in the directory is trusted: both are read under a cap and through no link.
struct ArtifactRecords {
  static constexpr const char* manifestName = "manifest.json";
  static constexpr const char* layoutPath = "packed_experts/layout.json";
  static constexpr std::uint64_t maximumManifestBytes = 4194304;
  static constexpr std::uint64_t maximumLayoutBytes = 16777216;

  MorlenManifestV1 manifest;
  MorlenPackedExpertsLayoutV1 layout;
  /// Size and digest of the bytes that were read.
  MorlenManifestFileV1 manifestFile;
  MorlenManifestFileV1 layoutFile;

  /// Throws `RepackError` at the first thing that is wrong.
  static ArtifactRecords read(const MorlenDirectoryAccess& directory);
};

/// Throws `configurationInvalid` when a file does not have the size or digest that the manifest lists for it.
void requireListedSize(const std::string& path, std::uint64_t size, const MorlenManifestFileV1& listed);
void requireListedDigest(const std::string& path, const std::string& sha256,
                         const MorlenManifestFileV1& listed);

/// What `operation` returns; the format library's error becomes `configurationInvalid("<prefix>: <its
/// text>")`.
template <typename Operation>
auto withFormatErrors(std::string_view prefix, Operation&& operation) {
  try {
    return operation();
  } catch (const MorlenFormatError& error) {
    throw RepackError(ConfigurationInvalid{std::string(prefix) + ": " + error.description()});
  }
}

}  // namespace vellicor
