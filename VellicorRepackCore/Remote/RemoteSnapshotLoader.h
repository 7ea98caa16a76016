#pragma once

#include <map>
#include <string>
#include <vector>

#include "VellicorRepackCore/Remote/HuggingFaceRemote.h"
#include "VellicorRepackCore/Source/ArchInfo.h"
#include "VellicorRepackCore/Source/IndexLoader.h"
#include "VellicorRepackCore/Source/Safetensors.h"

namespace vellicor {

/// A consistent picture of the source, all from one commit.
struct RemoteSnapshot {
  IndexLoader::SourceMetadata metadata;
  ArchInfo arch;
  /// One per shard, in the order of `metadata.shardFilenames`.
  std::vector<Safetensors::Header> shardHeaders;
  /// The index, config.json and every shard, by file name.
  std::map<std::string, RemoteFileInfo> remoteFiles;
  std::string resolvedCommit;
  /// Holds the downloaded index and configuration.
  std::string metadataDirectory;
  /// What config.json held when it was read. The file may have changed when the copying ends, hours later.
  std::string config;
};

struct RemoteSnapshotLoader {
  static constexpr std::uint64_t maximumIndexBytes = 4194304;
  static constexpr std::uint64_t maximumConfigBytes = 1048576;

  enum class KnownSource { require, accept };

  /// Fetches the index, the configuration and every shard's header. Throws; what has been fetched stays in
  /// `metadataDirectory`, whose lifetime is the caller's.
  static RemoteSnapshot load(const HuggingFaceRemoteSource& remote, KnownSource knownSource,
                             const std::string& metadataDirectory, RepackAudit* audit);
};

}  // namespace vellicor
