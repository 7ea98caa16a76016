#include "VellicorRepackCore/Install/ArtifactRecorder.h"

#include <algorithm>
#include <exception>
#include <map>
#include <set>
#include <span>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "VellicorArtifact/ArtifactMetadata.h"
#include "VellicorArtifact/MorlenDirectoryAccess.h"
#include "VellicorRepackCore/Base/BoundedScratch.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/OrderedWork.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/FileSystem/FileChunks.h"
#include "VellicorRepackCore/FileSystem/PageCacheTrail.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Output/MorlenJSON.h"
#include "VellicorRepackCore/Output/MorlenLayoutValidator.h"
#include "VellicorRepackCore/Source/SupportedModel.h"
#include "VellicorRepackCore/Verification/VerifiedInstallReceiptWriter.h"

namespace vellicor {

namespace {

/// Files up to this size are cheap enough to be read again.
constexpr std::uint64_t smallFileBytes = 67108864;

using Sidecar = SupportedModel::Sidecar;

bool isRemoteNotFound(const RepackError& error) {
  if (const auto* status = error.as<RemoteHTTPStatus>()) return status->status == 404;
  if (const auto* response = error.as<RemoteHTTPResponse>()) return response->status == 404;
  return false;
}

/// Nothing for an optional file that the repository does not hold.
std::optional<RemoteFileInfo> resolveSidecar(const HuggingFaceRemoteSource& remote, const Sidecar& sidecar,
                                             RepackAudit& audit) {
  try {
    return remote.resolveFileInfo(sidecar.name, &audit);
  } catch (const RepackError& error) {
    if (sidecar.isRequired || !isRemoteNotFound(error)) throw;
    return std::nullopt;
  }
}

std::string encodedLayout(const RepackPlan& plan) {
  const LayerFilePlan* layer = plan.firstExpertLayer();
  return MorlenJSON::encodeLayout(plan, layer == nullptr ? 0 : layer->expertStride);
}

/// The result of hashing an output, complete or up to a failure.
struct HashedOutput {
  std::uint64_t size = 0;
  std::string sha256;
  std::uint64_t chunks = 0;
  std::int64_t scratchBytes = 0;
  /// As the hashing began.
  FileStamp stamp;
  PayloadDamage damage;
};

/// Reads the file that is open as `fd` from its first byte to its last. `pass`, when given, sees every byte.
void hashOutput(int fd, const std::string& file, const CancellationToken& stop, PayloadProof::Pass* pass,
                HashedOutput& output) {
  // The manifest will name this file, so its bytes are on the disk before its digest is recorded.
  Posix::fsync(fd, file);
  output.stamp = FileStamp::of(fd, file);
  output.size = output.stamp.size;
  PageCacheTrail trail(fd, PageCacheTrail::Drops::allPages);
  AlignedBuffer buffer(fileChunkBytes);
  output.scratchBytes = fileChunkBytes;

  Sha256Stream digest;
  throwIfCancelled(stop);
  forEachChunk(fd, file, 0, output.size, buffer.bytes(),
               [&](std::uint64_t offset, std::span<const std::byte> bytes) {
                 digest.update(bytes);
                 if (pass != nullptr) pass->take(bytes);
                 output.chunks += 1;
                 trail.advanceTo(offset + bytes.size());
                 throwIfCancelled(stop);
               });
  trail.finishAt(output.size);
  output.sha256 = digest.finalizeHexString();
  if (pass != nullptr) output.damage = pass->finish();
}

std::vector<std::string> payloadPaths(const RepackPlan& plan) {
  std::vector<std::string> relativePaths = {MorlenFormatV1::weightsPath};
  for (const LayerFilePlan& layer : plan.layers) {
    if (layer.hasFile()) relativePaths.push_back(layer.relativePath());
  }
  return relativePaths;
}

void account(const HashedOutput& output, RepackAudit& audit) {
  audit.largestScratchBytes = std::max(audit.largestScratchBytes, output.scratchBytes);
  audit.byteCopyTiles += output.chunks;
}

RepackAudit::OutputFile recordOf(const char* relativePath, const std::string& content) {
  return {.relativePath = relativePath, .size = content.size(), .sha256 = hashData(content)};
}

RepackError changedSince(const std::string& file) {
  return RepackError(
      InstallStateCorrupt{.path = file, .detail = std::string(InstallStateCorrupt::fileChanged)});
}

/// The file that the path names, which must be one.
FileDescriptor openRecorded(const std::string& file) {
  if (Posix::entryKind(file) != Posix::EntryKind::regular) throw changedSince(file);
  FileDescriptor fd = Posix::openReadNoFollow(file);
  if (!Posix::descriptorMatchesPath(fd.get(), file)) throw changedSince(file);
  return fd;
}

/// The path must still name the file of the stamp, which nobody has touched since: not while it was read.
void requireStill(const std::string& file, const FileStamp& stamp) {
  if (!stamp.matches(FileStamp::at(file))) throw changedSince(file);
}

}  // namespace

ArtifactRecorder::ArtifactRecorder(std::string partialDirectory, const RepackPlan& plan, RepackAudit& audit,
                                   const ModelInstallProgressCallback& progress, CancellationToken stop)
    : partialDirectory_(std::move(partialDirectory)),
      plan_(plan),
      audit_(audit),
      progress_(progress),
      stop_(std::move(stop)) {}

std::string ArtifactRecorder::path(const std::string& relativePath) const {
  return joinPath(partialDirectory_, relativePath);
}

RecordedPayload ArtifactRecorder::recordPayload(const PayloadProof& proof) {
  const std::vector<std::string> relativePaths = payloadPaths(plan_);
  std::vector<HashedOutput> hashed(relativePaths.size());
  // Some of them side by side; those that a stop or a failure cut short count as far as they came.
  OrderedWork work(relativePaths.size(), Posix::availableProcessors(), stop_,
                   [&](std::size_t item, const CancellationToken& stop) {
                     const std::string file = path(relativePaths[item]);
                     PayloadProof::Pass pass = proof.passOver(file);
                     const FileDescriptor fd = Posix::openReadNoFollow(file);
                     hashOutput(fd.get(), file, stop, &pass, hashed[item]);
                   });
  RecordedPayload payload;
  for (std::size_t item = 0; item < relativePaths.size(); ++item) {
    if (item > 0) throwIfCancelled(stop_);
    announceHashing(relativePaths[item]);
    const std::exception_ptr failure = failureOf([&] { work.next(); });
    account(hashed[item], audit_);
    if (failure) std::rethrow_exception(failure);
    if (hashed[item].damage) {
      payload.damage = std::move(hashed[item].damage);
      return payload;
    }
    payload.stamps.emplace(relativePaths[item], hashed[item].stamp);
    audit_.outputFiles.push_back({relativePaths[item], hashed[item].size, std::move(hashed[item].sha256)});
  }
  return payload;
}

void ArtifactRecorder::requireReadableLayout(const RepackPlan& plan) {
  const std::size_t bytes = encodedLayout(plan).size();
  if (bytes <= MorlenFormatV1::layoutMaxBytes) return;
  throw RepackError(ConfigurationInvalid{fmt::format(
      "packed expert layout of {} bytes exceeds the {}-byte cap", bytes, MorlenFormatV1::layoutMaxBytes)});
}

void ArtifactRecorder::writeLayout() {
  const std::string layout = encodedLayout(plan_);
  const std::string file = path(MorlenFormatV1::layoutPath);
  makeDirectory(parentPath(file));
  clearPlace(MorlenFormatV1::layoutPath);
  Posix::atomicWrite(layout, file, parentPath(file), Posix::FileMode::shared);
  MorlenLayoutValidator::validate(file, plan_, &audit_);
  recordOutputFile(MorlenFormatV1::layoutPath);
  throwIfCancelled(stop_);
}

void ArtifactRecorder::copyRemoteMetadataSidecars(const RemoteSnapshot& snapshot,
                                                  const HuggingFaceRemoteSource& remote) {
  throwIfCancelled(stop_);
  const std::string directory = path(MorlenFormatV1::tokenizerDirectory);
  const std::string config = joinPath(MorlenFormatV1::tokenizerDirectory, IndexLoader::configFilename);
  makeDirectory(directory);
  clearPlace(config);
  Posix::atomicWrite(snapshot.config, path(config), directory, Posix::FileMode::shared);
  recordOutputFile(config);
  for (const Sidecar& sidecar : supportedModel.sidecars) {
    throwIfCancelled(stop_);
    const std::optional<RemoteFileInfo> info = resolveSidecar(remote, sidecar, audit_);
    if (!info) continue;
    clearPlace(joinPath(MorlenFormatV1::tokenizerDirectory, sidecar.name));
    remote.fetchSmallFile(sidecar.name, *info, sidecar.maximumBytes, joinPath(directory, sidecar.name),
                          Posix::FileMode::shared, &audit_);
    recordOutputFile(joinPath(MorlenFormatV1::tokenizerDirectory, sidecar.name));
  }
  Posix::fsyncDirectory(directory);
}

void ArtifactRecorder::removeStrayEntries() {
  std::set<std::string> directories, kept;
  for (const RepackAudit::OutputFile& output : audit_.outputFiles) {
    const std::string file = path(output.relativePath);
    directories.insert(parentPath(file));
    kept.insert(file);
  }
  kept.insert(directories.begin(), directories.end());
  // What cannot be removed stays: the manifest does not list it, and it harms no reader.
  for (const std::string& directory : directories) {
    failureOf([&] {
      for (const std::string& name : Posix::listDirectory(directory)) {
        const std::string entry = joinPath(directory, name);
        if (!kept.contains(entry)) failureOf([&] { Posix::removeTree(entry); });
      }
    });
  }
}

std::vector<RepackAudit::OutputFile> ArtifactRecorder::writeManifestAndReceipt(
    const RemoteSnapshot& snapshot, const std::string& repoID, const std::string& finalDirectory) {
  std::vector<MorlenJSON::NamedFile> files;
  for (const RepackAudit::OutputFile& output : audit_.outputFiles) {
    files.push_back({output.relativePath, {output.size, output.sha256}});
  }
  const LayerFilePlan* layer = plan_.firstExpertLayer();
  const std::string manifest = MorlenJSON::encodeManifest(
      plan_, plan_.matchedModelID.value_or("unknown/snapshot"), snapshot.metadata.indexSha256Hex, files,
      layer == nullptr ? 0 : layer->expertsPerLayer, plan_.arch.numLayers,
      layer == nullptr ? 0 : layer->expertStride, MorlenJSON::bitWidths(plan_, supportedModel));
  const std::string temporary = path(std::string(MorlenFormatV1::manifestPath) + ".tmp");
  Posix::atomicWrite(manifest, temporary, partialDirectory_, Posix::FileMode::shared);
  audit_.outputBytesWritten += manifest.size();
  Posix::rename(temporary, path(MorlenFormatV1::manifestPath));

  const std::string receipt = VerifiedInstallReceiptWriter::encode(
      finalDirectory, hashData(manifest), manifest.size(), repoID, snapshot.resolvedCommit,
      VerifiedInstallReceiptWriter::installToolVersion, audit_.outputFiles);
  Posix::atomicWrite(receipt, path(MorlenFormatV1::receiptPath), partialDirectory_, Posix::FileMode::shared);
  return {recordOf(MorlenFormatV1::manifestPath, manifest), recordOf(MorlenFormatV1::receiptPath, receipt)};
}

PayloadDamage ArtifactRecorder::proveAgain(const RecordedPayload& payload, const PayloadProof& proof,
                                           const std::vector<RepackAudit::OutputFile>& records) const {
  for (const auto& [relativePath, stamp] : payload.stamps) {
    const std::string file = path(relativePath);
    const FileDescriptor fd = openRecorded(file);
    FileStamp now = FileStamp::of(fd.get(), file);
    if (now.size <= smallFileBytes || !stamp.provesUnchanged(now)) {
      HashedOutput again;
      PayloadProof::Pass pass = proof.passOver(file);
      hashOutput(fd.get(), file, stop_, &pass, again);
      if (again.damage) return std::move(again.damage);
      now = again.stamp;
    }
    requireStill(file, now);
  }
  for (const RepackAudit::OutputFile& output : audit_.outputFiles) {
    if (!payload.stamps.contains(output.relativePath)) requireUnchanged(output);
  }
  for (const RepackAudit::OutputFile& record : records) requireUnchanged(record);
  return {};
}

void ArtifactRecorder::requireUnchanged(const RepackAudit::OutputFile& recorded) const {
  const std::string file = path(recorded.relativePath);
  const FileDescriptor fd = openRecorded(file);
  HashedOutput again;
  hashOutput(fd.get(), file, stop_, nullptr, again);
  if (again.size != recorded.size || again.sha256 != recorded.sha256) throw changedSince(file);
  requireStill(file, again.stamp);
}

void ArtifactRecorder::makeDirectory(const std::string& directory) {
  if (Posix::entryKind(directory) != Posix::EntryKind::directory) Posix::removeTree(directory);
  Posix::mkdir(directory);
}

void ArtifactRecorder::clearPlace(const std::string& relativePath) const {
  const std::string file = path(relativePath);
  const Posix::EntryKind kind = Posix::entryKind(file);
  const bool isFree = kind == Posix::EntryKind::absent || kind == Posix::EntryKind::regular;
  if (!isFree) Posix::removeTree(file);
}

void ArtifactRecorder::announceHashing(const std::string& relativePath) const {
  progress_(HashingOutputProgress{relativePath});
  throwIfCancelled(stop_);
}

void ArtifactRecorder::recordOutputFile(const std::string& relativePath) {
  announceHashing(relativePath);
  HashedOutput hashed;
  const std::string file = path(relativePath);
  const std::exception_ptr failure =
      failureOf([&] { hashOutput(Posix::openReadNoFollow(file).get(), file, stop_, nullptr, hashed); });
  account(hashed, audit_);
  if (failure) std::rethrow_exception(failure);
  audit_.outputFiles.push_back({relativePath, hashed.size, std::move(hashed.sha256)});
}

}  // namespace vellicor
