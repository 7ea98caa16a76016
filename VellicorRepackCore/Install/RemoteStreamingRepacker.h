#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/FileSystem/RemoteInstallPaths.h"
#include "VellicorRepackCore/Install/RangeCopyPlanner.h"
#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"
#include "VellicorRepackCore/Install/RemoteStreamingRepackOptions.h"
#include "VellicorRepackCore/Planning/RepackPlanner.h"
#include "VellicorRepackCore/Reporting/ModelInstallProgress.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"

namespace vellicor {

struct RemoteStreamingRepackResult {
  /// The finished artifact directory.
  std::string outputDir;
  std::string resolvedCommit;
  RepackPlan plan;
  std::uint64_t rangeRequestCount = 0;
  std::uint64_t remoteBytesToDownload = 0;
  std::uint64_t remoteGapBytesDownloaded = 0;
  std::uint64_t remoteRetryCount = 0;
  /// Source bytes of the ranges reused from a saved download.
  std::uint64_t reusedBytes = 0;
  std::uint64_t downloadedThisRunBytes = 0;
  bool dryRun = false;
};

/// The install's driver: lock, snapshot, plan, space, copy, hash, record, verify, promote. Every failure
/// leaves the output absent, resumable, or finished, and releases the lock. One object per install; `run` is
/// called once.
class RemoteStreamingRepacker {
 public:
  /// `audit` is fresh and outlives the object. A stop asked for through `stop` ends `run` with
  /// `CancellationError` and leaves a resumable state.
  RemoteStreamingRepacker(RemoteStreamingRepackOptions options, RepackAudit& audit,
                          CancellationToken stop = {});

  /// One install. Throws `RepackError` and what the floors below pass up.
  RemoteStreamingRepackResult run(const ModelInstallProgressCallback& progress);

  /// Removes a saved download. Throws `installStateMissing` when there is none.
  static void discardPartial(const std::string& outputDirectory);

 private:
  RemoteStreamingRepackOptions options_;
  RepackAudit& audit_;
  CancellationToken stop_;
  std::chrono::steady_clock::time_point startTime_;
};

}  // namespace vellicor
