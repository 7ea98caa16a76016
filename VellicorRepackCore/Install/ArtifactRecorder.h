#pragma once

#include <stop_token>
#include <string>
#include <vector>

#include "VellicorRepackCore/Planning/RepackPlanner.h"
#include "VellicorRepackCore/Remote/RemoteSnapshotLoader.h"
#include "VellicorRepackCore/Reporting/ModelInstallProgress.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"

namespace vellicor {

/// Completes a partial directory whose payload is in place: hashes every output, writes the layout, fetches
/// the sidecars, clears away what is not of the artifact, and writes manifest and receipt. Everything that it
/// returns from is durable. Used by one install on one thread; only the hashing of the payload has others
/// help.
class ArtifactRecorder {
 public:
  ArtifactRecorder(std::string partialDirectory, const RepackPlan& plan, RepackAudit& audit,
                   const ModelInstallProgressCallback& progress, std::stop_token stop);

  /// Refuses, before anything is fetched, a plan whose layout no reader would accept. Throws
  /// `configurationInvalid` or the format's own error.
  static void requireReadableLayout(const RepackPlan& plan);

  /// Hashes model_weights.bin and the layer files into the audit's list.
  void recordPayload();

  /// Writes packed_experts/layout.json, checks it against the plan and records it.
  void writeLayout();

  /// Puts config.json and the tokenizer files of the snapshot's commit under tokenizer/ and records them.
  void copyRemoteMetadataSidecars(const RemoteSnapshot& snapshot, const HuggingFaceRemoteSource& remote);

  /// Removes what an interrupted run left beside the recorded outputs (temporary files of every kind), as
  /// far as it can be removed.
  void removeStrayEntries();

  /// Writes manifest.json and the install's receipt; `finalDirectory` is where the artifact will live.
  void writeManifestAndReceipt(const RemoteSnapshot& snapshot, const std::string& repoID,
                               const std::string& finalDirectory);

  /// Proves that every recorded output is still a file that no link leads to. Throws `fileOpenFailed`.
  void requireInPlace() const;

 private:
  /// A directory of the artifact. What stands in its place and is none is removed.
  void makeDirectory(const std::string& directory);
  /// Hashes files, some of them side by side, and appends them to the audit's outputs in this order; they are
  /// durable afterwards. Looks for a stop before each but the first, and once each is announced.
  void recordOutputFiles(const std::vector<std::string>& relativePaths);
  void recordOutputFile(const std::string& relativePath) { recordOutputFiles({relativePath}); }
  std::string path(const std::string& relativePath) const;

  std::string partialDirectory_;
  const RepackPlan& plan_;
  RepackAudit& audit_;
  const ModelInstallProgressCallback& progress_;
  std::stop_token stop_;
};

}  // namespace vellicor
