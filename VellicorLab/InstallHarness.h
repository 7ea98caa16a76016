#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VellicorLab/LocalHub.h"
#include "VellicorLab/PredictedArtifact.h"
#include "VellicorLab/SyntheticCheckpoint.h"
#include "VellicorLab/TemporaryDirectory.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Install/RemoteStreamingRepacker.h"
#include "VellicorRepackCore/Reporting/ModelInstallProgress.h"

namespace vellicor {

inline constexpr const char* labRepoID = "lab-owner/lab-model";

/// Relative path to content of every regular file below a directory, links not followed; empty for a
/// directory that is not there.
std::map<std::string, std::string> readTree(const std::string& directory);

/// Where the build put a program of the project.
std::string programPath(const std::string& name);

/// Whether two names can be exchanged where temporary directories lie. Where they cannot, an install that
/// overwrites ends at once, and there is nothing to try.
bool canExchangeNames();
inline constexpr const char* noExchange = "NOT TRIED, this file system cannot exchange two names";

/// A checkpoint of a few kilobytes, so that even one-byte ranges end soon.
SyntheticCheckpoint::Shape tinyShape();

/// A directory of its own, a checkpoint, a hub that serves it, and the core's install against them.
class InstallHarness {
 public:
  explicit InstallHarness(std::shared_ptr<SyntheticCheckpoint> checkpoint = SyntheticCheckpoint::custom({},
                                                                                                        1),
                          std::function<void(LocalHub::Options&)> configure = nullptr);

  /// Starts the hub, in the place of one that was there, on a free port.
  void startHub();

  /// Of an install without retry delays or disk reserve, in small ranges.
  RemoteStreamingRepackOptions options() const;

  RemoteStreamingRepackResult install(const RemoteStreamingRepackOptions& options,
                                      CancellationToken stop = {});
  /// The error's text, or "no error".
  std::string installError(const RemoteStreamingRepackOptions& options, CancellationToken stop = {});

  /// Fails the install at the payload range number `index`, from 0, leaving the ranges before it in the
  /// checkpoint.
  void interruptAtRange(std::size_t index);

  /// The command that has the lab run the same install in a process of its own, with further flags.
  std::vector<std::string> command(const std::vector<std::string>& flags = {}) const;

  /// What the install must leave, to be compared with what it left.
  PredictedArtifact predicted() const { return PredictedArtifact(*checkpoint); }

  /// "file range" of every payload range that was answered or refused on its last hop, in order, on the
  /// connections from that number on.
  std::vector<std::string> payloadRanges(std::uint64_t firstConnection = 0) const;

  TemporaryDirectory directory;
  std::shared_ptr<SyntheticCheckpoint> checkpoint;
  std::unique_ptr<LocalHub> hub;
  std::string output;
  std::int64_t rangeChunkBytes = 4096;
  RepackAudit audit;
  std::vector<ModelInstallProgress> events;

 private:
  std::function<void(LocalHub::Options&)> configure_;
};

/// Whether a request fetches payload on its last hop: a ranged GET of a shard after its header.
bool isPayload(const SyntheticCheckpoint& checkpoint, const HubRequest& request);

}  // namespace vellicor
