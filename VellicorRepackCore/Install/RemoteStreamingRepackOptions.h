#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "VellicorRepackCore/Remote/RemoteChunkPolicy.h"
#include "VellicorRepackCore/Remote/RemoteDownloadSession.h"
#include "VellicorRepackCore/Remote/RemoteUrl.h"

namespace vellicor {

/// Everything that decides one install. The command line's values come from
/// `SupportedModelSource::installOptions`.
struct RemoteStreamingRepackOptions {
  std::string repoID;
  /// A branch, tag or commit.
  std::string revision;
  std::string outputDir;
  std::optional<std::string> token{};
  /// Refuse a source whose shard index is not known.
  bool requireKnownSource = true;
  /// Where to write the audit document, if anywhere.
  std::optional<std::string> copyAuditPath{};
  /// Largest range request, 1 to 64 MiB.
  std::int64_t rangeChunkBytes = RemoteChunkPolicy::defaultBytes;
  /// Tile buffer of the copy, 1 to 1048575.
  std::int64_t writeTileBytes = 524288;
  /// Free space that must remain after the install.
  std::uint64_t minFreeReserveBytes = 1073741824;
  /// Replace an existing artifact.
  bool overwrite = false;
  /// Continue a saved download.
  bool resume = false;
  /// Stop after the space check, download no payload.
  bool dryRunSpaceCheck = false;
  std::shared_ptr<RemoteDownloadSession> downloadSession;
  RemoteUrl baseURL;
  /// Attempts per remote operation, at least 0.
  std::int64_t rangeRetryAttempts = 4;
  std::uint64_t retryBaseDelayNs = 1'000'000'000;
};

}  // namespace vellicor
