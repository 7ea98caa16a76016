#include "VellicorRepackCore/Install/RemoteStreamingRepacker.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <set>
#include <utility>

#include <fmt/format.h>

#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorRepackCore/Base/BoundedScratch.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/FileSystem/DiskSpaceChecker.h"
#include "VellicorRepackCore/FileSystem/InstallLock.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Install/ArtifactRecorder.h"
#include "VellicorRepackCore/Install/OutputFiles.h"
#include "VellicorRepackCore/Install/PayloadProof.h"
#include "VellicorRepackCore/Install/Promotion.h"
#include "VellicorRepackCore/Install/SavedDownload.h"
#include "VellicorRepackCore/Install/SourceByteProvider.h"
#include "VellicorRepackCore/Remote/RemoteChunkPolicy.h"
#include "VellicorRepackCore/Remote/RemoteSnapshotLoader.h"
#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"

namespace vellicor {

namespace {

constexpr std::int64_t maximumWriteTileBytes = BoundedScratch::defaultLimitBytes;

using EntryKind = Posix::EntryKind;

void validateOptions(const RemoteStreamingRepackOptions& options) {
  const auto require = [](bool holds, const char* what, std::int64_t value) {
    if (!holds) throw RepackError(ConfigurationInvalid{fmt::format("{} {}", what, value)});
  };
  require(options.rangeChunkBytes >= 1 && options.rangeChunkBytes <= RemoteChunkPolicy::maxBytes,
          "bad range chunk bytes", options.rangeChunkBytes);
  require(options.writeTileBytes >= 1 && options.writeTileBytes <= maximumWriteTileBytes,
          "bad write tile bytes", options.writeTileBytes);
  require(options.rangeRetryAttempts >= 0, "bad range retry attempts", options.rangeRetryAttempts);
}

/// Decides between a fresh install, a resume and a refusal from what exists beside the output.
void checkEntryState(const RemoteInstallPaths& paths, const RemoteStreamingRepackOptions& options) {
  if (!options.overwrite && Posix::entryKind(paths.finalDirectory) == EntryKind::directory) {
    throw RepackError(
        ConfigurationInvalid{fmt::format(ConfigurationInvalid::outputExists, paths.finalDirectory)});
  }
  const bool hasPartial = Posix::entryKind(paths.partialDirectory) == EntryKind::directory;
  const bool hasCheckpoint = Posix::entryKind(paths.checkpointFile) == EntryKind::regular;
  if (hasPartial != hasCheckpoint) {
    throw RepackError(InstallStateCorrupt{.path = paths.partialDirectory,
                                          .detail = std::string(InstallStateCorrupt::halfThere)});
  }
  if (hasPartial && !options.resume) {
    throw RepackError(InstallStateIncompatible{std::string(InstallStateIncompatible::savedDownloadExists)});
  }
  if (!hasPartial && options.resume) throw RepackError(InstallStateMissing{paths.checkpointFile});
  if (Posix::entryKind(paths.finalDirectory) == EntryKind::directory) Promotion::requireReplaceable(paths);
}

/// The source at one commit, and where each of its bytes goes.
struct PlannedInstall {
  RemoteSnapshot snapshot;
  /// Pinned to the snapshot's commit.
  HuggingFaceRemoteSource remote;
  RepackPlan plan;
  RangeCopyPlan copies;
  std::uint64_t outputBytes;
};

/// The finished ranges of an install, each with its proof.
struct Download {
  RemoteInstallCheckpoint checkpoint;
  PayloadProof proof;
  /// Source bytes of the ranges that an earlier run finished.
  std::uint64_t reusedBytes = 0;
};

/// One install under its lock, from the checkpoint to the promoted artifact. A failure anywhere leaves the
/// disk as it is at that moment.
class LockedInstall {
 public:
  LockedInstall(const RemoteStreamingRepackOptions& options, InstallLock& lock, RepackAudit& audit,
                const ModelInstallProgressCallback& progress, const CancellationToken& stop)
      : options_(options), lock_(lock), audit_(audit), progress_(progress), stop_(stop) {}

  RemoteStreamingRepackResult run() {
    throwIfCancelled(stop_);
    std::optional<RemoteInstallCheckpoint> saved;
    if (options_.resume) saved = loadCheckpoint();
    const PlannedInstall install = planInstall(saved);
    Download download = {.checkpoint = freshCheckpoint(install),
                         .proof = PayloadProof(install.plan, install.copies, paths_.partialDirectory)};
    if (saved && adopt(*std::move(saved), install, download) == Adopted::exchangedAlready) {
      if (!options_.dryRunSpaceCheck) Promotion::removeReplaced(paths_);
      return resultOf(install, download);
    }
    checkSpace(install, download);
    recordSource(install);
    if (options_.dryRunSpaceCheck) {
      if (!options_.resume) Posix::removeTree(paths_.partialDirectory);
      return resultOf(install, download);
    }
    if (!options_.resume) reserveOutput(install, download);
    copyPayload(install, download);
    finishArtifact(install, download);
    promote();
    return resultOf(install, download);
  }

 private:
  RemoteInstallCheckpoint loadCheckpoint() const {
    RemoteInstallCheckpoint saved = RemoteInstallCheckpoint::load(paths_.checkpointFile);
    if (saved.repoID != options_.repoID || saved.requestedRevision != options_.revision) {
      throw RepackError(InstallStateIncompatible{"saved download belongs to a different source"});
    }
    return saved;
  }

  PlannedInstall planInstall(const std::optional<RemoteInstallCheckpoint>& saved) {
    const HuggingFaceRemoteSource remote{
        .repoID = options_.repoID,
        .requestedRevision = options_.revision,
        .resolvedCommit = saved ? std::optional(saved->resolvedCommit) : std::nullopt,
        .token = options_.token,
        .downloadSession = options_.downloadSession,
        .baseURL = options_.baseURL,
        .tempDirectory = paths_.partialDirectory,
        .retryPolicy = {.attempts = options_.rangeRetryAttempts, .baseDelayNs = options_.retryBaseDelayNs},
        .stop = stop_,
    };
    progress_(DownloadingMetadataProgress{});
    remote.requireUsable();
    lock_.holdPartialDirectory();
    const auto knownSource = options_.requireKnownSource ? RemoteSnapshotLoader::KnownSource::require
                                                         : RemoteSnapshotLoader::KnownSource::accept;
    RemoteSnapshot snapshot =
        RemoteSnapshotLoader::load(remote, knownSource, paths_.metadataDirectory, &audit_);
    RepackPlan plan = planFor(snapshot, paths_.partialDirectory);
    RangeCopyPlan copies = copiesOf(plan);
    const std::uint64_t outputBytes = OutputFiles::totalBytes(plan);
    ArtifactRecorder::requireReadableLayout(plan);
    HuggingFaceRemoteSource pinned = remote.pinned(snapshot.resolvedCommit);
    return {std::move(snapshot), std::move(pinned), std::move(plan), std::move(copies), outputBytes};
  }

  static RepackPlan planFor(const RemoteSnapshot& snapshot, const std::string& directory) {
    return RepackPlanner::plan(snapshot.metadata, snapshot.arch, snapshot.shardHeaders, directory);
  }

  RangeCopyPlan copiesOf(const RepackPlan& plan) const {
    return RangeCopyPlanner::plan(plan, options_.rangeChunkBytes, "identity", std::nullopt);
  }

  RemoteInstallCheckpoint freshCheckpoint(const PlannedInstall& install) const {
    return {.repoID = options_.repoID,
            .requestedRevision = options_.revision,
            .resolvedCommit = install.snapshot.resolvedCommit,
            .sourceIndexSHA256 = install.snapshot.metadata.indexSha256Hex,
            .planFingerprint = install.copies.canonicalFingerprint,
            .totalSourceBytes = install.copies.remoteBytesToDownload,
            .completedRanges = {}};
  }

  enum class Adopted { download, exchangedAlready };

  /// Goes on from a saved download: proves it, keeps what is proven, and says in the checkpoint what that is.
  Adopted adopt(RemoteInstallCheckpoint saved, const PlannedInstall& install, Download& download) {
    const RemoteInstallCheckpoint& fresh = download.checkpoint;
    if (saved.resolvedCommit != fresh.resolvedCommit || saved.totalSourceBytes != fresh.totalSourceBytes ||
        !saved.matches(fresh.repoID, fresh.requestedRevision, fresh.sourceIndexSHA256,
                       fresh.planFingerprint)) {
      throw RepackError(InstallStateIncompatible{"saved download source or copy plan changed"});
    }
    const bool filesMatch = SavedDownload::filesMatch(install.plan, install.copies, paths_.partialDirectory);
    std::vector<RemoteCompletedRange> kept;
    if (filesMatch) {
      kept = SavedDownload::provenRanges(
          saved.completedRanges, install.copies, paths_.partialDirectory, stop_,
          [&](const std::string& id, RangeProof proof) { download.proof.add(id, std::move(proof)); });
    }
    for (const RemoteCompletedRange& range : kept) {
      download.reusedBytes = morlenCheckedAdd(download.reusedBytes, range.sourceBytes, "reused bytes");
    }
    const bool isLess = kept.size() < saved.completedRanges.size();
    if (isLess && isExchanged(saved, install)) return Adopted::exchangedAlready;
    if (!filesMatch) {
      clearPartialDirectory();
      OutputFiles::create(install.plan, paths_.partialDirectory, audit_);
    }
    download.checkpoint = std::move(saved);
    download.checkpoint.completedRanges = std::move(kept);
    write(download.checkpoint);
    return Adopted::download;
  }

  /// Whether an earlier process ended right after its exchange: then the output is a right artifact of these
  /// very ranges, and the old one is at the partial path.
  bool isExchanged(const RemoteInstallCheckpoint& saved, const PlannedInstall& install) const {
    const std::size_t rangeCount = install.copies.coalescedCopies.size();
    if (!options_.overwrite || saved.completedRanges.size() != rangeCount) return false;
    const std::string& output = paths_.finalDirectory;
    try {
      VerifiedInstallTool::check({output});
      const RangeCopyPlan copies = copiesOf(planFor(install.snapshot, output));
      const auto forget = [](const std::string&, const RangeProof&) {};
      return SavedDownload::provenRanges(saved.completedRanges, copies, output, stop_, forget).size() ==
             rangeCount;
    } catch (const RepackError&) {
      return false;
    }
  }

  /// Empties the partial directory except for the metadata just fetched into it. The directory itself stays,
  /// so that it and the checkpoint exist together at every moment.
  void clearPartialDirectory() {
    for (const std::string& name : Posix::listDirectory(paths_.partialDirectory)) {
      const std::string entry = joinPath(paths_.partialDirectory, name);
      if (entry != paths_.metadataDirectory) Posix::removeTree(entry);
    }
  }

  /// The output bytes that need no more room: those of the finished ranges, or those that have blocks already
  /// where these are more. A compressed file has fewer blocks than bytes.
  std::uint64_t ownedOutputBytes(const PlannedInstall& install, const Download& download) const {
    const std::uint64_t inPlace = OutputFiles::bytesInPlace(install.copies, paths_.partialDirectory);
    return std::max(std::min(inPlace, install.outputBytes), download.checkpoint.validatedDestinationBytes(
                                                                install.outputBytes, paths_.checkpointFile));
  }

  void checkSpace(const PlannedInstall& install, const Download& download) {
    progress_(PlanningProgress{install.copies.remoteBytesToDownload, install.outputBytes});
    const std::uint64_t owned = options_.resume ? ownedOutputBytes(install, download) : 0;
    const std::uint64_t required =
        morlenCheckedAdd(install.outputBytes - owned, static_cast<std::uint64_t>(options_.rangeChunkBytes),
                         "required disk space");
    progress_(CheckingDiskProgress{
        DiskSpaceChecker::requireAvailable(paths_.parentDirectory, required, options_.minFreeReserveBytes)});
    throwIfCancelled(stop_);
  }

  void recordSource(const PlannedInstall& install) {
    audit_.remoteRepoID = options_.repoID;
    audit_.remoteRequestedRevision = options_.revision;
    audit_.remoteResolvedCommit = install.snapshot.resolvedCommit;
    audit_.remoteRangeStreamingSupported = true;
    audit_.remoteGapBytesDownloaded = install.copies.remoteGapBytesDownloaded;
    audit_.sourceSnapshotSha256 = install.snapshot.metadata.indexSha256Hex;
    audit_.bitWidthOverridesHonored = install.plan.bitsOverrideCount;
    audit_.tensorsDroppedMultimodal = install.plan.excludedMultimodalTensorNames;
    audit_.packedExpertLayoutMode = "identity";
  }

  void reserveOutput(const PlannedInstall& install, const Download& download) {
    progress_(ReservingOutputProgress{install.outputBytes});
    OutputFiles::create(install.plan, paths_.partialDirectory, audit_);
    write(download.checkpoint);
  }

  void copyPayload(const PlannedInstall& install, Download& download) {
    std::set<std::string> completedIDs;
    for (const RemoteCompletedRange& range : download.checkpoint.completedRanges) {
      completedIDs.insert(range.id);
    }
    const auto report = [&](std::uint64_t downloaded) {
      progress_(
          CopyingPayloadProgress{download.reusedBytes, downloaded, install.copies.remoteBytesToDownload});
    };
    report(0);
    HTTPRangeSourceByteProvider provider(install.remote, install.snapshot.remoteFiles,
                                         options_.writeTileBytes);
    provider.copyBatch({.copies = install.copies.coalescedCopies,
                        .completedRangeIDs = completedIDs,
                        .partialDirectory = paths_.partialDirectory,
                        .temporaryPath = paths_.rangeTemporaryFile,
                        .audit = audit_,
                        .progress = report,
                        .commit = [&](RemoteCompletedRange range, RangeProof proof) {
                          download.proof.add(range.id, std::move(proof));
                          download.checkpoint.record(std::move(range));
                          write(download.checkpoint);
                        }});
  }

  void finishArtifact(const PlannedInstall& install, Download& download) {
    ArtifactRecorder recorder(paths_.partialDirectory, install.plan, audit_, progress_, stop_);
    const RecordedPayload payload = recorder.recordPayload(download.proof);
    refuse(payload.damage, download);
    recorder.writeLayout();
    recorder.copyRemoteMetadataSidecars(install.snapshot, install.remote);
    recorder.removeStrayEntries();
    progress_(FinalizingProgress{});
    throwIfCancelled(stop_);
    lock_.requirePartialDirectory();
    const std::vector<RepackAudit::OutputFile> records =
        recorder.writeManifestAndReceipt(install.snapshot, options_.repoID, paths_.finalDirectory);
    throwIfCancelled(stop_);
    refuse(recorder.proveAgain(payload, download.proof, records), download);
    lock_.requirePartialDirectory();
  }

  /// Ends the install when there is damage, in a state whose resume fetches the damaged ranges and no other.
  void refuse(const PayloadDamage& damage, Download& download) {
    if (!damage) return;
    std::erase_if(download.checkpoint.completedRanges, [&](const RemoteCompletedRange& range) {
      return std::ranges::find(damage.rangeIDs, range.id) != damage.rangeIDs.end();
    });
    download.proof.restoreOutside(damage.path);
    write(download.checkpoint);
    throw RepackError(InstallStateCorrupt{
        .path = damage.path,
        .detail = damage.rangeIDs.empty()
                      ? std::string(InstallStateCorrupt::paddingChanged)
                      : fmt::format(InstallStateCorrupt::rangeChanged, damage.rangeIDs.front())});
  }

  void promote() {
    if (options_.overwrite && Posix::entryKind(paths_.finalDirectory) == EntryKind::directory) {
      Promotion::exchange(paths_);
    } else {
      Promotion::rename(paths_);
    }
  }

  RemoteStreamingRepackResult resultOf(const PlannedInstall& install, const Download& download) const {
    return {.outputDir = paths_.finalDirectory,
            .resolvedCommit = install.snapshot.resolvedCommit,
            .plan = install.plan,
            .rangeRequestCount = install.copies.coalescedCopies.size(),
            .remoteBytesToDownload = install.copies.remoteBytesToDownload,
            .remoteGapBytesDownloaded = install.copies.remoteGapBytesDownloaded,
            .remoteRetryCount = audit_.remoteRangeRetries,
            .reusedBytes = download.reusedBytes,
            .downloadedThisRunBytes = audit_.remoteBytesDownloaded,
            .dryRun = options_.dryRunSpaceCheck};
  }

  void write(const RemoteInstallCheckpoint& checkpoint) const {
    checkpoint.write(paths_.checkpointFile, paths_.parentDirectory);
  }

  const RemoteStreamingRepackOptions& options_;
  InstallLock& lock_;
  const RemoteInstallPaths& paths_ = lock_.paths();
  RepackAudit& audit_;
  const ModelInstallProgressCallback& progress_;
  const CancellationToken& stop_;
};

void writeAudit(const RepackAudit& audit, const std::string& path, const std::string& outputDir) {
  Posix::mkdirP(parentPath(standardizedPath(path)));
  Posix::writeWholeFile(path, audit.toJSONData(outputDir));
}

}  // namespace

RemoteStreamingRepacker::RemoteStreamingRepacker(RemoteStreamingRepackOptions options, RepackAudit& audit,
                                                 CancellationToken stop)
    : options_(std::move(options)),
      audit_(audit),
      stop_(std::move(stop)),
      startTime_(std::chrono::steady_clock::now()) {}

RemoteStreamingRepackResult RemoteStreamingRepacker::run(const ModelInstallProgressCallback& progress) {
  validateOptions(options_);
  InstallLock lock = InstallLock::acquire(options_.outputDir);
  Promotion::clearTrial(lock.paths());
  checkEntryState(lock.paths(), options_);
  RemoteStreamingRepackResult result = LockedInstall(options_, lock, audit_, progress, stop_).run();
  if (result.dryRun) return result;

  audit_.wallTimeSeconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - startTime_).count();
  audit_.wholeFileHeapBuffers = false;
  if (options_.copyAuditPath) writeAudit(audit_, *options_.copyAuditPath, result.outputDir);
  return result;
}

void RemoteStreamingRepacker::discardPartial(const std::string& outputDirectory) {
  const InstallLock lock = InstallLock::acquire(outputDirectory);
  const RemoteInstallPaths& paths = lock.paths();
  Promotion::clearTrial(paths);
  const bool hasPartial = Posix::entryKind(paths.partialDirectory) != EntryKind::absent;
  const bool hasCheckpoint = Posix::entryKind(paths.checkpointFile) != EntryKind::absent;
  if (!hasPartial && !hasCheckpoint) throw RepackError(InstallStateMissing{paths.checkpointFile});
  if (hasPartial) Posix::removeTree(paths.partialDirectory);
  if (hasCheckpoint) Posix::unlink(paths.checkpointFile);
  Posix::removeTree(paths.checkpointFile + ".tmp");  // Of a writer that was killed.
  Posix::fsyncDirectory(paths.parentDirectory);
}

}  // namespace vellicor
