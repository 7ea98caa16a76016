#include "VellicorArtifact/ArtifactMetadata.h"

#include <cstddef>
#include <utility>

#include <fmt/format.h>

#include "VellicorArtifact/FormatErrors.h"
#include "VellicorFormat/Unicode.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"

namespace vellicor {

namespace {

[[noreturn]] void refuse(std::string detail) { throw RepackError(ConfigurationInvalid{std::move(detail)}); }

/// Reads a record whole and notes what was read.
std::string readRecord(const MorlenDirectoryAccess& directory, const std::string& path,
                       std::uint64_t maximumBytes, MorlenManifestFileV1& record) {
  const FileDescriptor file = directory.openFile(path);
  Posix::bypassPageCache(file.get());
  std::string content = directory.readMetadata(file.get(), path, maximumBytes);
  record = {.size = content.size(), .sha256 = hashData(content)};
  return content;
}

void checkLayerFile(const MorlenManifestV1& manifest, const MorlenLayerV1& layer,
                    std::uint64_t expectedSize) {
  const std::string path = MorlenFormatV1::layerPath(layer.file);
  const auto entry = manifest.files.find(path);
  if (entry == manifest.files.end()) refuse("manifest missing " + path);
  if (entry->second.size != expectedSize) {
    refuse(fmt::format("{} manifest size {} != {}", path, entry->second.size, expectedSize));
  }
  for (std::size_t position = 0; position < layer.experts.size(); ++position) {
    const MorlenExpertV1& expert = layer.experts[position];
    if (expert.offset > expectedSize || expert.size > expectedSize - expert.offset) {
      const std::int64_t id = expert.expert.value_or(static_cast<std::int64_t>(position));
      refuse(fmt::format("{} expert {} range exceeds file size", path, id));
    }
  }
}

void checkLayout(const MorlenManifestV1& manifest, const MorlenPackedExpertsLayoutV1& layout) {
  // Both have passed their own validation, so the count is positive.
  const std::uint64_t layerFileSize = withFormatErrors("packed expert layout does not match manifest", [&] {
    MorlenV1StructuralValidator::crossValidate(manifest, layout);
    return MorlenFormatV1::layerBytes(layout.expertsPerLayer, layout.expertStride, "layout.layerSize");
  });
  for (const MorlenLayerV1& layer : layout.layers) checkLayerFile(manifest, layer, layerFileSize);
}

}  // namespace

ArtifactMetadata ArtifactMetadata::read(const MorlenDirectoryAccess& directory) {
  ArtifactMetadata metadata;
  const std::string manifest = readRecord(directory, MorlenFormatV1::manifestPath,
                                          MorlenFormatV1::manifestMaxBytes, metadata.manifestFile);
  metadata.manifest = withFormatErrors(std::string(MorlenFormatV1::manifestPath) + " invalid",
                                       [&] { return MorlenManifestCodec::decode(manifest); });

  const auto listed = metadata.manifest.files.find(MorlenFormatV1::layoutPath);
  if (listed == metadata.manifest.files.end())
    refuse(std::string("manifest missing ") + MorlenFormatV1::layoutPath);
  const std::string layout =
      readRecord(directory, MorlenFormatV1::layoutPath, MorlenFormatV1::layoutMaxBytes, metadata.layoutFile);
  metadata.layout = withFormatErrors(std::string(MorlenFormatV1::layoutPath) + " invalid",
                                     [&] { return MorlenPackedExpertsLayoutCodec::decode(layout); });
  checkLayout(metadata.manifest, metadata.layout);
  requireListedSize(MorlenFormatV1::layoutPath, metadata.layoutFile.size, listed->second);
  requireListedDigest(MorlenFormatV1::layoutPath, metadata.layoutFile.sha256, listed->second);
  return metadata;
}

void requireListedSize(const std::string& path, std::uint64_t size, const MorlenManifestFileV1& listed) {
  if (size != listed.size) refuse(fmt::format("{} size {} != manifest {}", path, size, listed.size));
}

void requireListedDigest(const std::string& path, const std::string& sha256,
                         const MorlenManifestFileV1& listed) {
  if (sha256 != lowercased(listed.sha256)) refuse(path + " SHA mismatch");
}

}  // namespace vellicor
