#include "VellicorRepackCore/Install/SavedDownload.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <span>
#include <utility>

#include "VellicorRepackCore/Base/BoundedScratch.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/FileSystem/FileChunks.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Install/SourceByteProvider.h"
#include "VellicorRepackCore/Output/ResidentWriter.h"

namespace vellicor {

namespace {

using EntryKind = Posix::EntryKind;

/// What the reading returns, or nothing where the bytes cannot be read: a bad sector costs what lies on it.
template <typename Reading>
auto unlessUnreadable(Reading&& reading) -> std::optional<decltype(reading())> {
  try {
    return reading();
  } catch (const RepackError& error) {
    if (error.as<PreadShort>() == nullptr) throw;
    return std::nullopt;
  }
}

bool beginsWith(int fd, const std::string& path, std::span<const std::byte> expected) {
  AlignedBuffer buffer(fileChunkBytes);
  bool isSame = true;
  forEachChunk(fd, path, 0, expected.size(), buffer.bytes(),
               [&](std::uint64_t offset, std::span<const std::byte> bytes) {
                 isSame = isSame && std::ranges::equal(bytes, expected.subspan(offset, bytes.size()));
               });
  return isSame;
}

void rewriteIndex(const std::string& path, std::span<const std::byte> index) {
  const FileDescriptor file = Posix::openExistingRW(path);
  Posix::pwriteAll(file.get(), path, index.data(), static_cast<std::int64_t>(index.size()), 0);
  Posix::fsync(file.get(), path);
}

}  // namespace

bool SavedDownload::filesMatch(const RepackPlan& plan, const RangeCopyPlan& copies,
                               const std::string& directory) {
  for (const RemoteExpectedOutput& output : copies.expectedOutputs) {
    const std::string path = joinPath(directory, output.relativePath);
    if (Posix::entryKind(parentPath(path)) != EntryKind::directory) return false;
    if (Posix::entryKind(path) != EntryKind::regular) return false;
    if (Posix::fileSize(Posix::openReadNoFollow(path).get(), path) != output.size) return false;
  }
  const std::string& path = plan.resident.path;
  const std::vector<std::byte> index = ResidentWriter::encodeIndex(plan.resident);
  const std::optional<bool> isThere =
      unlessUnreadable([&] { return beginsWith(Posix::openReadNoFollow(path).get(), path, index); });
  if (!isThere) rewriteIndex(path, index);
  return isThere.value_or(true);
}

std::vector<RemoteCompletedRange> SavedDownload::provenRanges(
    const std::vector<RemoteCompletedRange>& ranges, const RangeCopyPlan& copies,
    const std::string& directory, const CancellationToken& stop,
    const std::function<void(const std::string& rangeID, RangeProof)>& keep) {
  std::map<std::string, const CoalescedRangeCopy*> copiesByID;
  for (const CoalescedRangeCopy& copy : copies.coalescedCopies) copiesByID.emplace(copy.id, &copy);

  AlignedBuffer buffer(fileChunkBytes);
  std::vector<RemoteCompletedRange> kept;
  for (const RemoteCompletedRange& range : ranges) {
    throwIfCancelled(stop);
    const auto copy = copiesByID.find(range.id);
    if (copy == copiesByID.end() || range.sourceBytes != copy->second->size ||
        range.destinationBytes != destinationByteCount(*copy->second)) {
      throw RepackError(
          InstallStateCorrupt{.path = directory, .detail = "checkpoint contains an unknown range"});
    }
    std::optional<RangeProof> proof =
        unlessUnreadable([&] { return RangeProof::readBack(*copy->second, directory, buffer.bytes()); });
    if (!proof || proof->digest != range.destinationDigest) continue;
    kept.push_back(range);
    keep(range.id, *std::move(proof));
  }
  std::ranges::sort(kept, {}, &RemoteCompletedRange::id);
  return kept;
}

}  // namespace vellicor
