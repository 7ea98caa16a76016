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
#include "VellicorRepackCore/Install/PayloadProof.h"
#include "VellicorRepackCore/Install/Promotion.h"
#include "VellicorRepackCore/Install/SavedDownload.h"
#include "VellicorRepackCore/Install/SourceByteProvider.h"
#include "VellicorRepackCore/Output/ResidentWriter.h"
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
    throw RepackError(ConfigurationInvalid{"output directory already exists: " + paths.finalDirectory});
  }
  const bool hasPartial = Posix::entryKind(paths.partialDirectory) == EntryKind::directory;
  const bool hasCheckpoint = Posix::entryKind(paths.checkpointFile) == EntryKind::regular;
  if (hasPartial != hasCheckpoint) {
    throw RepackError(InstallStateCorrupt{.path = paths.partialDirectory,
                                          .detail = "partial directory and checkpoint must exist together"});
  }
  if (hasPartial && !options.resume) {
    throw RepackError(InstallStateIncompatible{"saved download exists; resume or discard it"});
  }
  if (!hasPartial && options.resume) throw RepackError(InstallStateMissing{paths.checkpointFile});
  if (Posix::entryKind(paths.finalDirectory) == EntryKind::directory) Promotion::requireReplaceable(paths);
}

std::uint64_t totalOutputBytes(const RepackPlan& plan) {
  constexpr const char* field = "output size";
  std::uint64_t total = morlenCheckedAdd(plan.resident.indexSize, plan.resident.residentSize, field);
  for (const LayerFilePlan& layer : plan.layers) {
    total = morlenCheckedAdd(total, layer.fileBytes(field), field);
  }
  return total;
}

/// One install under its lock, from the checkpoint to the promoted artifact. Each step leaves what the next
/// needs in a member; a failure anywhere leaves the disk as it is at that moment.
class LockedInstall {
 public:
  LockedInstall(const RemoteStreamingRepackOptions& options, InstallLock& lock, RepackAudit& audit,
                const ModelInstallProgressCallback& progress, const CancellationToken& stop)
      : options_(options), lock_(lock), audit_(audit), progress_(progress), stop_(stop) {}

  RemoteStreamingRepackResult run() {
    throwIfCancelled(stop_);
    loadCheckpoint();
    loadSnapshotAndPlan();
    if (!resumed_) {
      checkpoint_ = expectedCheckpoint();
    } else if (adoptCheckpoint(expectedCheckpoint()) == Adopted::exchangedAlready) {
      return options_.dryRunSpaceCheck ? finishDryRun() : finishExchange();
    }
    checkSpace();
    recordSource();
    if (options_.dryRunSpaceCheck) return finishDryRun();
    if (!resumed_) beginFresh();
    copyPayload();
    finishArtifact();
    promote();
    return result();
  }

 private:
  void loadCheckpoint() {
    if (!options_.resume) return;
    checkpoint_ = RemoteInstallCheckpoint::load(paths_.checkpointFile);
    resumed_ = true;
    if (checkpoint_.repoID != options_.repoID || checkpoint_.requestedRevision != options_.revision) {
      throw RepackError(InstallStateIncompatible{"saved download belongs to a different source"});
    }
  }

  void loadSnapshotAndPlan() {
    const HuggingFaceRemoteSource remote{
        .repoID = options_.repoID,
        .requestedRevision = options_.revision,
        .resolvedCommit = resumed_ ? std::optional(checkpoint_.resolvedCommit) : std::nullopt,
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
    snapshot_ = RemoteSnapshotLoader::load(remote, knownSource, paths_.metadataDirectory, &audit_);
    remote_ = remote.pinned(snapshot_.resolvedCommit);
    plan_ = planFor(paths_.partialDirectory);
    copies_ = copiesOf(plan_);
    totalOutputBytes_ = totalOutputBytes(plan_);
    ArtifactRecorder::requireReadableLayout(plan_);
    proof_.emplace(plan_, copies_, paths_.partialDirectory);
  }

  RepackPlan planFor(const std::string& directory) const {
    return RepackPlanner::plan(snapshot_.metadata, snapshot_.arch, snapshot_.shardHeaders, directory);
  }

  RangeCopyPlan copiesOf(const RepackPlan& plan) const {
    return RangeCopyPlanner::plan(plan, options_.rangeChunkBytes, "identity", std::nullopt);
  }

  RemoteInstallCheckpoint expectedCheckpoint() const {
    return {.repoID = options_.repoID,
            .requestedRevision = options_.revision,
            .resolvedCommit = snapshot_.resolvedCommit,
            .sourceIndexSHA256 = snapshot_.metadata.indexSha256Hex,
            .planFingerprint = copies_.canonicalFingerprint,
            .totalSourceBytes = copies_.remoteBytesToDownload,
            .completedRanges = {}};
  }

  enum class Adopted { download, exchangedAlready };

  Adopted adoptCheckpoint(const RemoteInstallCheckpoint& expected) {
    if (checkpoint_.resolvedCommit != expected.resolvedCommit ||
        checkpoint_.totalSourceBytes != expected.totalSourceBytes ||
        !checkpoint_.matches(expected.repoID, expected.requestedRevision, expected.sourceIndexSHA256,
                             expected.planFingerprint)) {
      throw RepackError(InstallStateIncompatible{"saved download source or copy plan changed"});
    }
    const bool filesMatch = SavedDownload::filesMatch(plan_, copies_, paths_.partialDirectory);
    std::vector<RemoteCompletedRange> kept;
    if (filesMatch) {
      kept = SavedDownload::provenRanges(
          checkpoint_.completedRanges, copies_, paths_.partialDirectory, stop_,
          [&](const std::string& id, RangeProof proof) { proof_->add(id, std::move(proof)); });
    }
    for (const RemoteCompletedRange& range : kept) {
      reusedBytes_ = morlenCheckedAdd(reusedBytes_, range.sourceBytes, "reused bytes");
    }
    const bool isLess = kept.size() < checkpoint_.completedRanges.size();
    if (isLess && isExchanged(checkpoint_)) return Adopted::exchangedAlready;
    if (!filesMatch) {
      clearPartialDirectory();
      createOutputFiles();
    }
    checkpoint_.completedRanges = std::move(kept);
    writeCheckpoint();
    return Adopted::download;
  }

  /// Whether this is what a process leaves that ended right after its exchange: the output is a right
  /// artifact of these very ranges, and the old one stands at the partial path.
  bool isExchanged(const RemoteInstallCheckpoint& saved) const {
    const std::size_t rangeCount = copies_.coalescedCopies.size();
    if (!options_.overwrite || saved.completedRanges.size() != rangeCount) return false;
    const std::string& output = paths_.finalDirectory;
    try {
      VerifiedInstallTool::check({output});
      const RangeCopyPlan copies = copiesOf(planFor(output));
      const auto forget = [](const std::string&, const RangeProof&) {};
      return SavedDownload::provenRanges(saved.completedRanges, copies, output, stop_, forget).size() ==
             rangeCount;
    } catch (const RepackError&) {
      return false;
    }
  }

  /// Empties the partial directory but for the metadata just fetched into it. The directory itself stays, so
  /// that it and the checkpoint exist together at every moment.
  void clearPartialDirectory() {
    for (const std::string& name : Posix::listDirectory(paths_.partialDirectory)) {
      const std::string entry = joinPath(paths_.partialDirectory, name);
      if (entry != paths_.metadataDirectory) Posix::removeTree(entry);
    }
  }

  /// The output bytes that a resume needs no more room for: those of the ranges that it keeps, or all that
  /// have their blocks already where that is more. A compressed file has fewer blocks than it keeps.
  std::uint64_t ownedOutputBytes() const {
    std::uint64_t inPlace = 0;
    for (const RemoteExpectedOutput& output : copies_.expectedOutputs) {
      const std::string path = joinPath(paths_.partialDirectory, output.relativePath);
      inPlace = morlenCheckedAdd(inPlace, Posix::bytesInPlace(Posix::openReadNoFollow(path).get(), path),
                                 "owned bytes");
    }
    return std::max(std::min(inPlace, totalOutputBytes_),
                    checkpoint_.validatedDestinationBytes(totalOutputBytes_, paths_.checkpointFile));
  }

  void checkSpace() {
    progress_(PlanningProgress{copies_.remoteBytesToDownload, totalOutputBytes_});
    const std::uint64_t owned = resumed_ ? ownedOutputBytes() : 0;
    const std::uint64_t required =
        morlenCheckedAdd(totalOutputBytes_ - owned, static_cast<std::uint64_t>(options_.rangeChunkBytes),
                         "required disk space");
    progress_(CheckingDiskProgress{
        DiskSpaceChecker::requireAvailable(paths_.parentDirectory, required, options_.minFreeReserveBytes)});
    throwIfCancelled(stop_);
  }

  void recordSource() {
    audit_.remoteRepoID = options_.repoID;
    audit_.remoteRequestedRevision = options_.revision;
    audit_.remoteResolvedCommit = snapshot_.resolvedCommit;
    audit_.remoteRangeStreamingSupported = true;
    audit_.remoteGapBytesDownloaded = copies_.remoteGapBytesDownloaded;
    audit_.sourceSnapshotSha256 = snapshot_.metadata.indexSha256Hex;
    audit_.bitWidthOverridesHonored = plan_.bitsOverrideCount;
    audit_.tensorsDroppedMultimodal = plan_.excludedMultimodalTensorNames;
    audit_.packedExpertLayoutMode = "identity";
  }

  RemoteStreamingRepackResult finishDryRun() {
    if (!resumed_) Posix::removeTree(paths_.partialDirectory);
    RemoteStreamingRepackResult dryResult = result();
    dryResult.dryRun = true;
    return dryResult;
  }

  void beginFresh() {
    progress_(ReservingOutputProgress{totalOutputBytes_});
    createOutputFiles();
    writeCheckpoint();
  }

  /// Creates every output at its final size, sparse, with the resident index in place, all of it durable.
  void createOutputFiles() {
    const std::string expertsDirectory = joinPath(paths_.partialDirectory, MorlenFormatV1::expertsDirectory);
    Posix::mkdir(expertsDirectory);
    {
      const FileDescriptor resident = ResidentWriter::createAndWriteIndex(plan_.resident, audit_);
      Posix::fsync(resident.get(), plan_.resident.path);
    }
    Posix::fsyncDirectory(paths_.partialDirectory);
    for (const LayerFilePlan& layer : plan_.layers) {
      if (!layer.hasFile()) continue;
      const FileDescriptor file = Posix::openCreateRWNoFollow(layer.path);
      Posix::ftruncate(file.get(), layer.path, layer.fileBytes("layer file size"));
      Posix::fsync(file.get(), layer.path);
    }
    Posix::fsyncDirectory(expertsDirectory);
  }

  void copyPayload() {
    std::set<std::string> completedIDs;
    for (const RemoteCompletedRange& range : checkpoint_.completedRanges) completedIDs.insert(range.id);
    const auto report = [&](std::uint64_t downloaded) {
      progress_(CopyingPayloadProgress{reusedBytes_, downloaded, copies_.remoteBytesToDownload});
    };
    report(0);
    HTTPRangeSourceByteProvider provider(*remote_, snapshot_.remoteFiles, options_.writeTileBytes);
    provider.copyBatch({.copies = copies_.coalescedCopies,
                        .completedRangeIDs = completedIDs,
                        .partialDirectory = paths_.partialDirectory,
                        .temporaryPath = paths_.rangeTemporaryFile,
                        .audit = audit_,
                        .progress = report,
                        .commit = [&](RemoteCompletedRange range, RangeProof proof) {
                          proof_->add(range.id, std::move(proof));
                          checkpoint_.record(std::move(range));
                          writeCheckpoint();
                        }});
  }

  void finishArtifact() {
    ArtifactRecorder recorder(paths_.partialDirectory, plan_, audit_, progress_, stop_);
    const RecordedPayload payload = recorder.recordPayload(*proof_);
    refuse(payload.damage);
    recorder.writeLayout();
    recorder.copyRemoteMetadataSidecars(snapshot_, *remote_);
    recorder.removeStrayEntries();
    progress_(FinalizingProgress{});
    throwIfCancelled(stop_);
    lock_.requirePartialDirectory();
    const std::vector<RepackAudit::OutputFile> records =
        recorder.writeManifestAndReceipt(snapshot_, options_.repoID, paths_.finalDirectory);
    throwIfCancelled(stop_);
    refuse(recorder.proveAgain(payload, *proof_, records));
    lock_.requirePartialDirectory();
  }

  /// Ends the install when there is damage, in a state whose resume fetches the damaged ranges and no other.
  void refuse(const PayloadDamage& damage) {
    if (!damage) return;
    std::erase_if(checkpoint_.completedRanges, [&](const RemoteCompletedRange& range) {
      return std::ranges::find(damage.rangeIDs, range.id) != damage.rangeIDs.end();
    });
    proof_->restoreOutside(damage.path);
    writeCheckpoint();
    throw RepackError(InstallStateCorrupt{
        .path = damage.path,
        .detail = damage.rangeIDs.empty()
                      ? "bytes outside every range changed; they were put back"
                      : fmt::format("{} changed after it was finished", damage.rangeIDs.front())});
  }

  void promote() {
    if (options_.overwrite && Posix::entryKind(paths_.finalDirectory) == EntryKind::directory) {
      Promotion::exchange(paths_);
    } else {
      Promotion::rename(paths_);
    }
  }

  RemoteStreamingRepackResult finishExchange() {
    Promotion::removeReplaced(paths_);
    return result();
  }

  RemoteStreamingRepackResult result() const {
    return {.outputDir = paths_.finalDirectory,
            .resolvedCommit = snapshot_.resolvedCommit,
            .plan = plan_,
            .rangeRequestCount = copies_.coalescedCopies.size(),
            .remoteBytesToDownload = copies_.remoteBytesToDownload,
            .remoteGapBytesDownloaded = copies_.remoteGapBytesDownloaded,
            .remoteRetryCount = audit_.remoteRangeRetries,
            .reusedBytes = reusedBytes_,
            .downloadedThisRunBytes = audit_.remoteBytesDownloaded,
            .dryRun = false};
  }

  void writeCheckpoint() const { checkpoint_.write(paths_.checkpointFile, paths_.parentDirectory); }

  const RemoteStreamingRepackOptions& options_;
  InstallLock& lock_;
  const RemoteInstallPaths& paths_ = lock_.paths();
  RepackAudit& audit_;
  const ModelInstallProgressCallback& progress_;
  const CancellationToken& stop_;

  bool resumed_ = false;
  RemoteInstallCheckpoint checkpoint_;
  RemoteSnapshot snapshot_;
  std::optional<HuggingFaceRemoteSource> remote_;
  RepackPlan plan_;
  RangeCopyPlan copies_;
  std::optional<PayloadProof> proof_;
  std::uint64_t totalOutputBytes_ = 0;
  std::uint64_t reusedBytes_ = 0;
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
