#include "VellicorRepackCore/Remote/RemoteSnapshotLoader.h"

#include <utility>

#include <fmt/format.h>

#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/RemovedUnlessKept.h"
#include "VellicorRepackCore/Source/SourceFingerprint.h"

namespace vellicor {
namespace {

std::uint64_t littleEndian(std::string_view bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = bytes.size(); i > 0; --i) {
    number = number << 8 | static_cast<unsigned char>(bytes[i - 1]);
  }
  return number;
}

/// The bytes of one short range, by way of a temporary file.
std::string readRange(const HuggingFaceRemoteSource& remote, const std::string& shard,
                      const RemoteFileInfo& info, std::uint64_t offset, std::uint64_t length,
                      RepackAudit* audit) {
  const RemovedUnlessKept file(remote
                                   .downloadRangeToTempFile(shard, info, offset,
                                                            static_cast<std::int64_t>(length), std::nullopt,
                                                            nullptr, audit)
                                   .path);
  return Posix::readWholeFile(file.path());
}

Safetensors::Header loadShardHeader(const HuggingFaceRemoteSource& remote, const std::string& shard,
                                    const RemoteFileInfo& info, RepackAudit* audit) {
  constexpr std::uint64_t prefixBytes = Safetensors::lengthPrefixBytes;
  const std::string prefix = readRange(remote, shard, info, 0, prefixBytes, audit);
  if (prefix.size() != prefixBytes) {
    throw RepackError(SafetensorsHeaderInvalid{.path = shard, .detail = "short header prefix"});
  }
  const std::uint64_t headerBytes = littleEndian(prefix);
  if (headerBytes > Safetensors::maximumHeaderBytes || headerBytes > info.size - prefixBytes) {
    throw RepackError(SafetensorsHeaderTooLarge{.path = shard, .size = headerBytes});
  }
  return Safetensors::parseHeaderBytes(shard, info.size,
                                       readRange(remote, shard, info, prefixBytes, headerBytes, audit));
}

RemoteFileInfo resolveShard(const HuggingFaceRemoteSource& remote, const std::string& shard,
                            const std::string& commit, RepackAudit* audit) {
  RemoteFileInfo info = remote.resolveFileInfo(shard, audit);
  if (info.resolvedCommit != commit) {
    throw RepackError(RemoteProtocolInvalid{fmt::format("shard {} commit differs from index commit", shard)});
  }
  if (!info.acceptsRanges) {
    throw RepackError(RemoteProtocolInvalid{fmt::format("shard {} does not advertise byte ranges", shard)});
  }
  return info;
}

}  // namespace

RemoteSnapshot RemoteSnapshotLoader::load(const HuggingFaceRemoteSource& remote, KnownSource knownSource,
                                          const std::string& metadataDirectory, RepackAudit* audit) {
  const std::string indexName = IndexLoader::indexFilename;
  const std::string configName = IndexLoader::configFilename;
  remote.requireUsable();
  Posix::mkdir(metadataDirectory);
  const RemoteFileInfo indexInfo = remote.resolveFileInfo(indexName, audit);
  const HuggingFaceRemoteSource pinned = remote.pinned(indexInfo.resolvedCommit);
  const RemoteFileInfo configInfo = pinned.resolveFileInfo(configName, audit);
  if (configInfo.resolvedCommit != indexInfo.resolvedCommit) {
    throw RepackError(RemoteProtocolInvalid{"config commit differs from index commit"});
  }
  constexpr auto mode = Posix::FileMode::ownerOnly;
  pinned.fetchSmallFile(indexName, indexInfo, maximumIndexBytes, joinPath(metadataDirectory, indexName), mode,
                        audit);
  pinned.fetchSmallFile(configName, configInfo, maximumConfigBytes, joinPath(metadataDirectory, configName),
                        mode, audit);

  RemoteSnapshot snapshot;
  snapshot.metadata = IndexLoader::load(metadataDirectory);
  const IndexLoader::SourceMetadata& metadata = snapshot.metadata;
  if (knownSource == KnownSource::require && !SourceFingerprint::modelID(metadata.indexSha256Hex)) {
    throw RepackError(
        SourceFingerprintRejected{.path = metadata.indexPath, .sha256 = metadata.indexSha256Hex});
  }
  snapshot.arch = ArchInfo::load(metadata.configPath);
  snapshot.config = Posix::readBoundedData(metadata.configPath, maximumConfigBytes);
  snapshot.remoteFiles = {{indexName, indexInfo}, {configName, configInfo}};
  snapshot.resolvedCommit = indexInfo.resolvedCommit;
  snapshot.metadataDirectory = metadataDirectory;
  for (const std::string& shard : metadata.shardFilenames) {
    const RemoteFileInfo info = resolveShard(pinned, shard, snapshot.resolvedCommit, audit);
    snapshot.remoteFiles[shard] = info;
    snapshot.shardHeaders.push_back(loadShardHeader(pinned, shard, info, audit));
  }
  return snapshot;
}

}  // namespace vellicor
