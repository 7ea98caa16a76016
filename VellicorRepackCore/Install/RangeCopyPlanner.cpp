#include "VellicorRepackCore/Install/RangeCopyPlanner.h"

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <tuple>
#include <utility>

#include <fmt/format.h>

#include "VellicorFormat/Unicode.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Output/ResidentWriter.h"

namespace vellicor {
namespace {

/// The most pieces a plan may be cut into: sizes come from the source, and every piece is held in memory.
constexpr std::uint64_t maximumPieces = 4194304;

RepackError invalid(std::string detail) { return RepackError(ConfigurationInvalid{std::move(detail)}); }

/// A copy's paths repeat thousands of times; each is normalized once. Keys are views of the copies' own
/// paths, which outlive this.
class RelativePaths {
 public:
  explicit RelativePaths(std::string_view root) : root_(root) {}

  const std::string& of(std::string_view path) {
    // Mostly it is the very text of the copy before.
    if (path.data() != last_.data() || path.size() != last_.size()) {
      auto known = byPath_.find(path);
      if (known == byPath_.end())
        known = byPath_.emplace(path, RangeCopyPlanner::normalizedRelativePath(path, root_)).first;
      last_ = path;
      lastRelative_ = &known->second;
    }
    return *lastRelative_;
  }

 private:
  std::string_view root_;
  std::string_view last_;
  const std::string* lastRelative_ = nullptr;
  std::map<std::string_view, std::string> byPath_;
};

void requireCanonicalRelative(const std::string& path) {
  try {
    MorlenPathValidator::validateRelativePath(path, path);
  } catch (const MorlenFormatError&) {
    throw invalid("invalid relative destination path " + path);
  }
}

// ---- Generating ----

void appendResidentCopies(const ResidentFilePlan& resident, std::vector<RangeCopy>& copies) {
  const SharedText path = resident.path;
  const auto append = [&](const SourceTensor& source, std::uint64_t size, std::uint64_t destinationOffset) {
    copies.push_back({source.shardPath, source.absoluteOffset, size, path, destinationOffset});
  };
  for (const ResidentEntry& entry : resident.entries) {
    append(entry.sourceWeight, entry.sizeBytes, entry.fileOffset);
    if (entry.sourceScales) append(*entry.sourceScales, entry.scaleSize, entry.scaleOffset);
    if (entry.sourceBiases) append(*entry.sourceBiases, entry.biasSize, entry.biasOffset);
  }
}

/// `base` + `count` x `step`.
std::uint64_t strided(std::uint64_t base, std::uint64_t count, std::uint64_t step, std::string_view field) {
  return morlenCheckedAdd(base, morlenCheckedMultiply(count, step, field), field);
}

void appendLayerCopies(const LayerFilePlan& layer, std::vector<RangeCopy>& copies) {
  const SharedText path = layer.path;
  for (std::int64_t number = 0; number < layer.expertsPerLayer; ++number) {
    const auto expert = static_cast<std::uint64_t>(number);
    for (const PerExpertTensorSlice& slice : layer.subTensors) {
      const SourceTensor& source = slice.sourceTensor;
      copies.push_back(
          {source.shardPath,
           strided(source.absoluteOffset, expert, slice.sourceOffsetPerExpert, "expert source offset"),
           slice.sizeInExpertBlob, path,
           strided(slice.offsetInExpertBlob, expert, layer.expertStride, "expert destination offset")});
    }
  }
}

std::vector<RangeCopy> scalarCopies(const RepackPlan& plan) {
  std::vector<RangeCopy> copies;
  copies.reserve(3 * plan.resident.entries.size());
  appendResidentCopies(plan.resident, copies);
  for (const LayerFilePlan& layer : plan.layers) appendLayerCopies(layer, copies);
  return copies;
}

std::vector<RemoteExpectedOutput> expectedOutputList(const RepackPlan& plan) {
  std::vector<RemoteExpectedOutput> outputs;
  outputs.push_back(
      {MorlenFormatV1::weightsPath,
       morlenCheckedAdd(plan.resident.indexSize, plan.resident.residentSize, "resident file size")});
  for (const LayerFilePlan& layer : plan.layers) {
    if (layer.hasFile()) outputs.push_back({layer.relativePath(), layer.fileBytes("layer file size")});
  }
  std::stable_sort(outputs.begin(), outputs.end(), [](const auto& left, const auto& right) {
    return left.relativePath < right.relativePath;
  });
  return outputs;
}

/// Sum of the sizes of scalar or coalesced copies.
template <typename Copies>
std::uint64_t totalSize(const Copies& copies) {
  std::uint64_t sum = 0;
  for (const auto& copy : copies) sum = morlenCheckedAdd(sum, copy.size, "copy plan size");
  return sum;
}

// ---- Coalescing ----

void checkPieceCount(const std::vector<RangeCopy>& copies, std::uint64_t chunkBytes) {
  std::uint64_t room = maximumPieces;
  for (const RangeCopy& copy : copies) {
    const std::uint64_t pieces = copy.size / chunkBytes + (copy.size % chunkBytes != 0 ? 1 : 0);
    if (pieces > room) throw invalid(fmt::format("copy plan needs more than {} pieces", maximumPieces));
    room -= pieces;
  }
}

std::vector<RangeCopy> splitLargeCopies(const std::vector<RangeCopy>& copies, std::uint64_t chunkBytes) {
  checkPieceCount(copies, chunkBytes);
  std::vector<RangeCopy> pieces;
  pieces.reserve(copies.size());
  for (const RangeCopy& copy : copies) {
    // Both ends fit, so no offset on the way to them overflows.
    morlenCheckedAdd(copy.sourceOffset, copy.size, "copy source range");
    morlenCheckedAdd(copy.destinationOffset, copy.size, "copy destination range");
    std::uint64_t emitted = 0;
    while (emitted < copy.size) {
      const std::uint64_t size = std::min(chunkBytes, copy.size - emitted);
      pieces.push_back({copy.shardID, copy.sourceOffset + emitted, size, copy.destinationPath,
                        copy.destinationOffset + emitted});
      emitted += size;
    }
  }
  return pieces;
}

std::uint64_t sourceEnd(const RangeCopy& piece) { return piece.sourceOffset + piece.size; }

/// Takes pieces ordered by shard and source offset; a group's span never exceeds `chunkBytes`.
std::vector<CoalescedRangeCopy> groupPieces(std::vector<RangeCopy> pieces, std::uint64_t chunkBytes) {
  std::vector<CoalescedRangeCopy> groups;
  for (RangeCopy& piece : pieces) {
    CoalescedRangeCopy* open = groups.empty() ? nullptr : &groups.back();
    if (open != nullptr && open->shardID == piece.shardID) {
      const std::uint64_t span = std::max(open->size, sourceEnd(piece) - open->sourceOffset);
      if (span <= chunkBytes) {
        open->size = span;
        open->destinations.push_back(std::move(piece));
        continue;
      }
    }
    CoalescedRangeCopy group{.id = fmt::format("range-{:08}", groups.size()),
                             .shardID = piece.shardID,
                             .sourceOffset = piece.sourceOffset,
                             .size = piece.size,
                             .destinations = {}};
    group.destinations.push_back(std::move(piece));
    groups.push_back(std::move(group));
  }
  return groups;
}

bool comesFirstInSource(const RangeCopy& left, const RangeCopy& right) {
  return std::tie(left.shardID, left.sourceOffset) < std::tie(right.shardID, right.sourceOffset);
}

bool comesFirstInDestination(const RangeCopy& left, const RangeCopy& right) {
  return std::tie(left.destinationPath, left.destinationOffset, left.sourceOffset) <
         std::tie(right.destinationPath, right.destinationOffset, right.sourceOffset);
}

// ---- Intervals ----

void checkIntervals(std::string_view relativePath, std::vector<const RangeCopy*> copies) {
  std::stable_sort(copies.begin(), copies.end(), [](const RangeCopy* left, const RangeCopy* right) {
    return left->destinationOffset < right->destinationOffset;
  });
  std::uint64_t previousEnd = 0;
  for (const RangeCopy* copy : copies) {
    if (copy->size > std::numeric_limits<std::uint64_t>::max() - copy->destinationOffset) {
      throw invalid(fmt::format("destination range overflows {}", relativePath));
    }
    if (copy->destinationOffset < previousEnd) {
      throw invalid(fmt::format("overlapping destination ranges in {}", relativePath));
    }
    previousEnd = copy->destinationOffset + copy->size;
  }
}

// ---- Fingerprint ----

void appendCopy(const CoalescedRangeCopy& copy, RelativePaths& relativePaths, FingerprintWriter& writer) {
  writer.append(copy.id);
  writer.append(canonicalComposition(copy.shardID.text()));
  writer.append(copy.sourceOffset);
  writer.append(copy.size);
  writer.append(std::uint64_t{copy.destinations.size()});
  for (const RangeCopy& destination : copy.destinations) {
    writer.append(relativePaths.of(destination.destinationPath.text()));
    writer.append(destination.destinationOffset);
    writer.append(destination.sourceOffset - copy.sourceOffset);
    writer.append(destination.size);
  }
}

}  // namespace

std::string RangeCopyPlanner::normalizedRelativePath(std::string_view path, std::string_view root) {
  if (root.ends_with('/')) root.remove_suffix(1);
  const std::string prefix = fmt::format("{}{}", root, root.ends_with('/') ? "" : "/");
  if (!path.starts_with(prefix)) {
    throw invalid(fmt::format("destination {} is outside partial output {}", path, root));
  }
  std::string relative = canonicalComposition(path.substr(prefix.size()));
  requireCanonicalRelative(relative);
  return relative;
}

void RangeCopyPlanner::validateDestinationIntervals(const std::vector<RangeCopy>& copies,
                                                    const std::string& outputRoot) {
  RelativePaths relativePaths(outputRoot);
  std::map<std::string_view, std::vector<const RangeCopy*>> byFile;
  for (const RangeCopy& copy : copies) byFile[relativePaths.of(copy.destinationPath.text())].push_back(&copy);
  for (auto& [relativePath, ofFile] : byFile) checkIntervals(relativePath, std::move(ofFile));
}

std::vector<CoalescedRangeCopy> RangeCopyPlanner::coalesce(const std::vector<RangeCopy>& copies,
                                                           std::int64_t rangeChunkBytes) {
  if (rangeChunkBytes < 1) throw invalid("rangeChunkBytes must be positive");
  const auto chunkBytes = static_cast<std::uint64_t>(rangeChunkBytes);
  std::vector<RangeCopy> pieces = splitLargeCopies(copies, chunkBytes);
  std::stable_sort(pieces.begin(), pieces.end(), comesFirstInSource);
  std::vector<CoalescedRangeCopy> groups = groupPieces(std::move(pieces), chunkBytes);
  for (CoalescedRangeCopy& group : groups) {
    std::stable_sort(group.destinations.begin(), group.destinations.end(), comesFirstInDestination);
  }
  return groups;
}

std::string RangeCopyPlanner::canonicalFingerprint(const std::vector<CoalescedRangeCopy>& copies,
                                                   const std::string& outputRoot,
                                                   std::int64_t rangeChunkBytes,
                                                   const std::string& layoutMode,
                                                   const std::optional<std::string>& layoutOrderSha256,
                                                   const std::string& residentIndexSha256,
                                                   const std::vector<RemoteExpectedOutput>& expectedOutputs) {
  FingerprintWriter writer;
  writer.append("Vellicor.RemoteInstallPlan.v1");
  writer.append(static_cast<std::uint64_t>(MorlenFormatV1::versionMajor));
  writer.append(static_cast<std::uint64_t>(MorlenFormatV1::versionMinor));
  writer.append(static_cast<std::uint64_t>(rangeChunkBytes));
  writer.append(layoutMode);
  writer.append(layoutOrderSha256.value_or(""));
  writer.append(residentIndexSha256);
  writer.append(std::uint64_t{expectedOutputs.size()});
  for (const RemoteExpectedOutput& output : expectedOutputs) {
    writer.append(output.relativePath);
    writer.append(output.size);
  }
  RelativePaths relativePaths(outputRoot);
  writer.append(std::uint64_t{copies.size()});
  for (const CoalescedRangeCopy& copy : copies) appendCopy(copy, relativePaths, writer);
  return writer.finalizeHexString();
}

RangeCopyPlan RangeCopyPlanner::plan(const RepackPlan& repackPlan, std::int64_t rangeChunkBytes,
                                     const std::string& layoutMode,
                                     const std::optional<std::string>& layoutOrderSha256) {
  RangeCopyPlan plan;
  plan.scalarCopies = scalarCopies(repackPlan);
  const std::string outputRoot = parentPath(repackPlan.resident.path);
  validateDestinationIntervals(plan.scalarCopies, outputRoot);
  plan.coalescedCopies = coalesce(plan.scalarCopies, rangeChunkBytes);
  plan.residentIndexSha256 = hashData(ResidentWriter::encodeIndex(repackPlan.resident));
  plan.expectedOutputs = expectedOutputList(repackPlan);
  plan.canonicalFingerprint =
      canonicalFingerprint(plan.coalescedCopies, outputRoot, rangeChunkBytes, layoutMode, layoutOrderSha256,
                           plan.residentIndexSha256, plan.expectedOutputs);
  plan.remoteBytesToDownload = totalSize(plan.coalescedCopies);
  // Copies that read the same source bytes can exceed what is downloaded; no gap is left then.
  const std::uint64_t copied = totalSize(plan.scalarCopies);
  plan.remoteGapBytesDownloaded = plan.remoteBytesToDownload - std::min(copied, plan.remoteBytesToDownload);
  return plan;
}

}  // namespace vellicor
