#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vellicor {

/// The record of what one install did. One instance lives for one install; whoever owns a quantity updates
/// its field (counters by addition, maxima by max, lists by appending). It holds no lock: all updates come
/// from one thread.
struct RepackAudit {
  struct OutputFile {
    /// Relative to the artifact directory.
    std::string relativePath;
    std::uint64_t size = 0;
    /// 64 lower-case hexadecimal characters.
    std::string sha256;
    bool operator==(const OutputFile&) const = default;
  };

  struct RemoteRetryRecord {
    /// The operation, such as "resolveFileInfo:config.json".
    std::string label;
    /// The number of the attempt that failed, from 1.
    std::int64_t attempt = 0;
    std::string detail;
    bool operator==(const RemoteRetryRecord&) const = default;
  };

  std::uint64_t sourceBytesRead = 0;
  std::uint64_t outputBytesWritten = 0;
  std::uint64_t intentionalCopyBytes = 0;
  std::uint64_t byteCopyTiles = 0;
  std::int64_t largestScratchBytes = 0;
  bool wholeFileHeapBuffers = false;
  bool platformMemmoveObserved = false;
  std::int64_t mallocCountObserved = 0;
  std::int64_t bitWidthOverridesHonored = 0;
  std::string sourceSnapshotSha256;
  std::vector<std::string> tensorsDroppedMultimodal;
  double wallTimeSeconds = 0;
  std::uint64_t peakRssBytes = 0;
  std::vector<OutputFile> outputFiles;
  std::vector<std::uint64_t> rssSamples;
  std::string packedExpertLayoutMode = "identity";
  std::optional<std::string> packedExpertLayoutOrderPath;
  std::optional<std::string> packedExpertLayoutOrderSha256;
  std::optional<std::string> packedExpertLayoutStrategy;
  std::int64_t packedExpertReorderedLayerCount = 0;
  std::int64_t packedExpertLayoutAuditLogicalIDCount = 0;
  bool packedExpertLayoutOffsetValidationPassed = false;
  std::uint64_t remoteBytesDownloaded = 0;
  std::uint64_t remoteGapBytesDownloaded = 0;
  std::uint64_t remoteRangeRequests = 0;
  std::uint64_t remoteRangeRetries = 0;
  bool remoteRangeStreamingSupported = false;
  std::int64_t largestRemoteTransferBytes = 0;
  std::int64_t largestRemotePayloadHeapBytes = 0;
  std::optional<std::string> remoteRepoID;
  std::optional<std::string> remoteRequestedRevision;
  std::optional<std::string> remoteResolvedCommit;
  std::vector<RemoteRetryRecord> remoteRetries;
  std::vector<std::string> stalePartialsRemoved;

  void recordRemoteRetry(std::string label, std::int64_t attempt, std::string detail);

  /// The audit document: pretty-printed JSON with sorted snake-case keys and plain slashes.
  std::string toJSONData(const std::string& outputDir) const;
};

}  // namespace vellicor
