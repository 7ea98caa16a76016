#include "VellicorRepackCore/Install/ArtifactRecorder.h"

#include <algorithm>
#include <array>
#include <exception>
#include <filesystem>
#include <map>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "VellicorRepackCore/Base/BoundedScratch.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/OrderedWork.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/FileSystem/ArtifactRecords.h"
#include "VellicorRepackCore/FileSystem/MorlenDirectoryAccess.h"
#include "VellicorRepackCore/FileSystem/PageCacheTrail.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Output/MorlenJSON.h"
#include "VellicorRepackCore/Output/MorlenLayoutValidator.h"
#include "VellicorRepackCore/Verification/VerifiedInstallReceiptWriter.h"

namespace vellicor {

namespace {

constexpr std::size_t hashChunkBytes = 524288;
constexpr const char* sidecarDirectory = "tokenizer";

struct Sidecar {
  const char* name;
  std::uint64_t capBytes;
  bool isRequired;
};

constexpr std::uint64_t mebibyte = 1048576;
constexpr std::array<Sidecar, 5> sidecars = {{
    {"tokenizer.json", 64 * mebibyte, true},
    {"tokenizer_config.json", 4 * mebibyte, true},
    {"special_tokens_map.json", 1 * mebibyte, false},
    {"chat_template.jinja", 4 * mebibyte, false},
    {"chat_template.json", 4 * mebibyte, false},
}};

bool isRemoteNotFound(const RepackError& error) {
  if (const auto* status = error.as<RepackError::RemoteHTTPStatus>()) return status->status == 404;
  if (const auto* response = error.as<RepackError::RemoteHTTPResponse>()) return response->status == 404;
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

/// The first layer with experts decides: every layer of a valid layout has the same dimensions.
const LayerFilePlan* firstExpertLayer(const RepackPlan& plan) {
  const auto layer = std::find_if(plan.layers.begin(), plan.layers.end(), [](const LayerFilePlan& candidate) {
    return candidate.expertsPerLayer > 0;
  });
  return layer == plan.layers.end() ? nullptr : &*layer;
}

std::string encodedLayout(const RepackPlan& plan) {
  const LayerFilePlan* layer = firstExpertLayer(plan);
  return MorlenJSON::encodeLayout(plan, layer == nullptr ? 0 : layer->expertStride);
}

std::int64_t routedExpertBits(const RepackPlan& plan) {
  const auto layer = std::find_if(plan.layers.begin(), plan.layers.end(), [](const LayerFilePlan& candidate) {
    return !candidate.subTensors.empty();
  });
  return layer == plan.layers.end() ? 4 : layer->subTensors.front().bitsForWeights.value_or(4);
}

std::map<std::string, std::int64_t> manifestBitWidths(const RepackPlan& plan) {
  std::map<std::string, std::int64_t> widths = {{"embedding", 4},
                                                {"attention", 4},
                                                {"router", 8},
                                                {"sharedExpert", 8},
                                                {"routedExpert", routedExpertBits(plan)}};
  for (const ResidentEntry& entry : plan.resident.entries) {
    if (!entry.quantSpec) continue;
    const std::string_view name = entry.name;
    const std::int64_t bits = entry.quantSpec->bits;
    if (name == "language_model.model.embed_tokens.weight") widths["embedding"] = bits;
    if (name.ends_with(".self_attn.q_proj.weight")) widths["attention"] = bits;
    if (name.ends_with(".router.proj.weight")) widths["router"] = bits;
    if (name.ends_with(".mlp.gate_proj.weight")) widths["sharedExpert"] = bits;
  }
  return widths;
}

/// What is known of an output so far.
struct HashedOutput {
  std::uint64_t size = 0;
  std::string sha256;
  std::uint64_t chunks = 0;
  std::int64_t scratchBytes = 0;
};

void hashOutput(const std::string& file, const std::stop_token& stop, HashedOutput& output) {
  const FileDescriptor fd = Posix::openReadNoFollow(file);
  // The manifest will name this file, so its bytes are on the disk before its digest is recorded.
  Posix::fsync(fd.get(), file);
  output.size = Posix::fileSize(fd.get(), file);
  PageCacheTrail trail(fd.get(), PageCacheTrail::Drops::allPages);
  AlignedBuffer buffer(hashChunkBytes);
  output.scratchBytes = hashChunkBytes;

  Sha256Stream digest;
  for (std::uint64_t done = 0; done < output.size;) {
    throwIfCancelled(stop);
    const std::uint64_t length = std::min<std::uint64_t>(buffer.size(), output.size - done);
    Posix::preadAll(fd.get(), file, buffer.data(), static_cast<std::int64_t>(length), done);
    digest.update(buffer.bytes().first(static_cast<std::size_t>(length)));
    output.chunks += 1;
    done += length;
    trail.advanceTo(done);
  }
  trail.finishAt(output.size);
  output.sha256 = digest.finalizeHexString();
}

}  // namespace

ArtifactRecorder::ArtifactRecorder(std::string partialDirectory, const RepackPlan& plan, RepackAudit& audit,
                                   const ModelInstallProgressCallback& progress, std::stop_token stop)
    : partialDirectory_(std::move(partialDirectory)),
      plan_(plan),
      audit_(audit),
      progress_(progress),
      stop_(std::move(stop)) {}

std::string ArtifactRecorder::path(const std::string& relativePath) const {
  return joinPath(partialDirectory_, relativePath);
}

void ArtifactRecorder::recordPayload() {
  std::vector<std::string> relativePaths = {"model_weights.bin"};
  for (const LayerFilePlan& layer : plan_.layers) {
    if (layer.expertsPerLayer < 1) continue;
    relativePaths.push_back("packed_experts/" + lastPathComponent(layer.path));
  }
  recordOutputFiles(relativePaths);
}

void ArtifactRecorder::requireReadableLayout(const RepackPlan& plan) {
  const std::size_t bytes = encodedLayout(plan).size();
  if (bytes <= MorlenLayoutValidator::maximumLayoutBytes) return;
  throw RepackError::configurationInvalid(
      fmt::format("packed expert layout of {} bytes exceeds the {}-byte cap", bytes,
                  MorlenLayoutValidator::maximumLayoutBytes));
}

void ArtifactRecorder::writeLayout() {
  const std::string layout = encodedLayout(plan_);
  const std::string file = path(ArtifactRecords::layoutPath);
  makeDirectory(parentPath(file));
  Posix::atomicWrite(layout, file, parentPath(file));
  MorlenLayoutValidator::validate(file, plan_, &audit_);
  recordOutputFile(ArtifactRecords::layoutPath);
  throwIfCancelled(stop_);
}

void ArtifactRecorder::copyRemoteMetadataSidecars(const RemoteSnapshot& snapshot,
                                                  const HuggingFaceRemoteSource& remote) {
  throwIfCancelled(stop_);
  const std::string directory = path(sidecarDirectory);
  const std::string config = joinPath(snapshot.metadataDirectory, IndexLoader::configFilename);
  if (Posix::entryKind(config) != Posix::EntryKind::absent) {
    const std::string relativePath = joinPath(sidecarDirectory, IndexLoader::configFilename);
    makeDirectory(directory);
    Posix::removeTree(path(relativePath));
    Posix::atomicWrite(Posix::readBoundedData(config, RemoteSnapshotLoader::maximumConfigBytes),
                       path(relativePath), directory);
    recordOutputFile(relativePath);
  }
  for (const Sidecar& sidecar : sidecars) {
    throwIfCancelled(stop_);
    const std::optional<RemoteFileInfo> info = resolveSidecar(remote, sidecar, audit_);
    if (!info) continue;
    remote.fetchSmallFile(sidecar.name, *info, sidecar.capBytes, joinPath(directory, sidecar.name), &audit_);
    recordOutputFile(joinPath(sidecarDirectory, sidecar.name));
  }
  Posix::fsyncDirectory(directory);
}

void ArtifactRecorder::removeStrayEntries() {
  std::set<std::string> kept;
  for (const RepackAudit::OutputFile& output : audit_.outputFiles) {
    const std::string file = path(output.relativePath);
    kept.insert(file);
    kept.insert(parentPath(file));
  }
  // What cannot be removed stays: the manifest does not list it, and it harms no reader.
  std::error_code ignored;
  std::vector<std::filesystem::path> strays;
  std::filesystem::recursive_directory_iterator entry(partialDirectory_, ignored);
  for (; entry != std::filesystem::recursive_directory_iterator(); entry.increment(ignored)) {
    if (kept.contains(entry->path().string())) continue;
    entry.disable_recursion_pending();
    strays.push_back(entry->path());
  }
  for (const std::filesystem::path& stray : strays) {
    try {
      Posix::removeTree(stray.string());
    } catch (const std::exception&) {
      continue;
    }
  }
}

void ArtifactRecorder::writeManifestAndReceipt(const RemoteSnapshot& snapshot, const std::string& repoID,
                                               const std::string& finalDirectory) {
  std::vector<MorlenJSON::NamedFile> files;
  for (const RepackAudit::OutputFile& output : audit_.outputFiles) {
    files.push_back({output.relativePath, {output.size, output.sha256}});
  }
  const LayerFilePlan* layer = firstExpertLayer(plan_);
  const std::string manifest = MorlenJSON::encodeManifest(
      plan_, plan_.matchedModelID.value_or("unknown/snapshot"), snapshot.metadata.indexSha256Hex, files,
      layer == nullptr ? 0 : layer->expertsPerLayer, plan_.arch.numLayers,
      layer == nullptr ? 0 : layer->expertStride, manifestBitWidths(plan_));
  const std::string temporary = path(std::string(ArtifactRecords::manifestName) + ".tmp");
  Posix::atomicWrite(manifest, temporary, partialDirectory_);
  audit_.outputBytesWritten += manifest.size();
  Posix::rename(temporary, path(ArtifactRecords::manifestName));

  const std::string receipt = VerifiedInstallReceiptWriter::encode(
      finalDirectory, hashData(manifest), manifest.size(), repoID, snapshot.resolvedCommit,
      VerifiedInstallReceiptWriter::installToolVersion, audit_.outputFiles);
  MorlenDirectoryAccess(partialDirectory_)
      .atomicWrite(receipt, VerifiedInstallReceiptWriter::receiptFilename);
}

void ArtifactRecorder::requireInPlace() const {
  for (const RepackAudit::OutputFile& output : audit_.outputFiles) {
    Posix::openReadNoFollow(path(output.relativePath));
  }
}

void ArtifactRecorder::makeDirectory(const std::string& directory) {
  if (Posix::entryKind(directory) != Posix::EntryKind::directory) Posix::removeTree(directory);
  Posix::mkdirP(directory);
}

void ArtifactRecorder::recordOutputFiles(const std::vector<std::string>& relativePaths) {
  std::vector<HashedOutput> hashed(relativePaths.size());
  OrderedWork work(relativePaths.size(), Posix::availableProcessors(), stop_,
                   [&](std::size_t item, const std::stop_token& stop) {
                     hashOutput(path(relativePaths[item]), stop, hashed[item]);
                   });
  for (std::size_t item = 0; item < relativePaths.size(); ++item) {
    if (item > 0) throwIfCancelled(stop_);
    progress_(HashingOutputProgress{relativePaths[item]});
    throwIfCancelled(stop_);
    const std::exception_ptr failure = failureOf([&] { work.next(); });
    audit_.largestScratchBytes = std::max(audit_.largestScratchBytes, hashed[item].scratchBytes);
    audit_.byteCopyTiles += hashed[item].chunks;
    if (failure) std::rethrow_exception(failure);
    audit_.outputFiles.push_back({relativePaths[item], hashed[item].size, std::move(hashed[item].sha256)});
  }
}

}  // namespace vellicor
