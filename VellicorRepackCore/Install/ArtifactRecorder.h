#pragma once

#include <map>
#include <string>
#include <vector>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/FileSystem/FileStamp.h"
#include "VellicorRepackCore/Install/PayloadProof.h"
#include "VellicorRepackCore/Planning/RepackPlanner.h"
#include "VellicorRepackCore/Remote/RemoteSnapshotLoader.h"
#include "VellicorRepackCore/Reporting/ModelInstallProgress.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"

namespace vellicor {

struct RecordedPayload {
  /// What was found wrong; nothing of that file and those after it is recorded then.
  PayloadDamage damage;
  /// Of every file as its hashing began, by relative path.
  std::map<std::string, FileStamp> stamps;
};

/// Completes a partial directory whose payload is in place: hashes every output, writes the layout, fetches
/// the sidecars, clears away what is not of the artifact, and writes manifest and receipt. Everything that it
/// returns from is durable. Used by one install on one thread; only the hashing of the payload has others
/// help.
class ArtifactRecorder {
 public:
  ArtifactRecorder(std::string partialDirectory, const RepackPlan& plan, RepackAudit& audit,
                   const ModelInstallProgressCallback& progress, CancellationToken stop);

  /// Refuses, before anything is fetched, a plan whose layout no reader would accept. Throws
  /// `configurationInvalid` or the format's own error.
  static void requireReadableLayout(const RepackPlan& plan);

  /// Hashes model_weights.bin and the layer files into the audit's list, and proves every byte of them in the
  /// same pass.
  RecordedPayload recordPayload(const PayloadProof& proof);

  /// Writes packed_experts/layout.json, checks it against the plan and records it.
  void writeLayout();

  /// Puts config.json and the tokenizer files of the snapshot's commit under tokenizer/ and records them.
  void copyRemoteMetadataSidecars(const RemoteSnapshot& snapshot, const HuggingFaceRemoteSource& remote);

  /// Removes what an interrupted run left beside the recorded outputs (temporary files of every kind), as
  /// far as it can be removed.
  void removeStrayEntries();

  /// Writes manifest.json and the install's receipt, and returns what they are; `finalDirectory` is where the
  /// artifact will live.
  std::vector<RepackAudit::OutputFile> writeManifestAndReceipt(const RemoteSnapshot& snapshot,
                                                               const std::string& repoID,
                                                               const std::string& finalDirectory);

  /// The last look before the promotion: every recorded output and every one of `records` must still be the
  /// file it was, reached through no link. Large payload files are judged by their stamps, and read again
  /// where these do not prove them; what is damaged in the payload is returned. All else is read again.
  /// Throws `installStateCorrupt` for what else has changed, or `fileOpenFailed`.
  PayloadDamage proveAgain(const RecordedPayload& payload, const PayloadProof& proof,
                           const std::vector<RepackAudit::OutputFile>& records) const;

 private:
  /// A directory of the artifact. What stands in its place and is none is removed.
  void makeDirectory(const std::string& directory);
  /// Removes what is no regular file from the place of one.
  void clearPlace(const std::string& relativePath) const;
  /// Hashes one file and appends it to the audit's outputs; it is durable afterwards.
  void recordOutputFile(const std::string& relativePath);
  void announceHashing(const std::string& relativePath) const;
  void requireUnchanged(const RepackAudit::OutputFile& recorded) const;
  std::string path(const std::string& relativePath) const;

  std::string partialDirectory_;
  const RepackPlan& plan_;
  RepackAudit& audit_;
  const ModelInstallProgressCallback& progress_;
  CancellationToken stop_;
};

}  // namespace vellicor
