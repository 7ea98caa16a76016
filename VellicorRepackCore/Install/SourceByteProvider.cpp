#include "VellicorRepackCore/Install/SourceByteProvider.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorRepackCore/Base/BoundedScratch.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/FileSystem/FileChunks.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {

namespace {

/// The output files of one call, each opened once on first use and closed when the call ends.
class DestinationFiles {
 public:
  int open(const std::string& path) {
    FileDescriptor& file = files_[path];
    if (!file) file = Posix::openExistingRW(path);
    return file.get();
  }

 private:
  std::map<std::string, FileDescriptor> files_;
};

/// The copy phase of one call: its batch, its one tile and its running count.
class BatchCopier {
 public:
  BatchCopier(const HuggingFaceRemoteSource& remote, const std::map<std::string, RemoteFileInfo>& files,
              std::int64_t writeTileBytes, const CopyBatch& batch)
      : remote_(remote), files_(files), batch_(batch), tile_(static_cast<std::size_t>(writeTileBytes)) {
    batch_.audit.largestScratchBytes = std::max(batch_.audit.largestScratchBytes, writeTileBytes);
  }

  void copyAll() {
    for (const CoalescedRangeCopy& copy : batch_.copies) {
      if (!batch_.completedRangeIDs.contains(copy.id)) copyRange(copy);
    }
  }

 private:
  void copyRange(const CoalescedRangeCopy& copy) {
    throwIfCancelled(remote_.stop);
    const auto info = files_.find(copy.shardID);
    if (info == files_.end()) {
      throw RepackError(ConfigurationInvalid{"missing remote info for " + copy.shardID.text()});
    }
    Posix::removeTree(batch_.temporaryPath);
    account(download(copy, info->second));
    const std::set<std::string> touched = scatter(copy);
    throwIfCancelled(remote_.stop);
    for (const std::string& path : touched) Posix::fsync(destinations_.open(path), path);
    RangeProof proof = RangeProof::readBack(copy, batch_.partialDirectory, tile_.bytes());
    // The digest has read what the path names; it must be what was written.
    for (const std::string& path : touched) requireUnreplaced(path);
    RemoteCompletedRange range{copy.id, proof.digest, copy.size, destinationByteCount(copy)};
    batch_.commit(std::move(range), std::move(proof));
    batch_.progress(downloaded_);
    removeTemporaryFile();
    throwIfCancelled(remote_.stop);
  }

  TemporaryRangeFile download(const CoalescedRangeCopy& copy, const RemoteFileInfo& info) {
    return remote_.downloadRangeToTempFile(
        copy.shardID, info, copy.sourceOffset, static_cast<std::int64_t>(copy.size), batch_.temporaryPath,
        [&](std::uint64_t received) { batch_.progress(downloaded_ + received); }, &batch_.audit);
  }

  void account(const TemporaryRangeFile& received) {
    RepackAudit& audit = batch_.audit;
    audit.remoteRangeRequests += 1;
    audit.remoteBytesDownloaded += received.byteCount;
    audit.largestRemoteTransferBytes =
        std::max(audit.largestRemoteTransferBytes, static_cast<std::int64_t>(received.byteCount));
    downloaded_ += received.byteCount;
    batch_.progress(downloaded_);
  }

  /// Moves the range from the temporary file to its destinations; returns the paths it wrote to.
  std::set<std::string> scatter(const CoalescedRangeCopy& copy) {
    const FileDescriptor source = Posix::openReadNoFollow(batch_.temporaryPath);
    std::set<std::string> touched;
    for (const RangeCopy& destination : copy.destinations) {
      const int fd = destinations_.open(destination.destinationPath);
      touched.insert(destination.destinationPath);
      moveTiles(source.get(), destination.sourceOffset - copy.sourceOffset, fd, destination);
      Posix::startWriteBack(fd, destination.destinationOffset, destination.size);
    }
    return touched;
  }

  void moveTiles(int source, std::uint64_t readOffset, int fd, const RangeCopy& destination) {
    RepackAudit& audit = batch_.audit;
    const auto write = [&](std::uint64_t offset, std::span<const std::byte> bytes) {
      throwIfCancelled(remote_.stop);
      Posix::pwriteAll(fd, destination.destinationPath, bytes.data(), std::ssize(bytes),
                       destination.destinationOffset + (offset - readOffset));
      audit.sourceBytesRead += bytes.size();
      audit.outputBytesWritten += bytes.size();
      audit.intentionalCopyBytes += bytes.size();
      audit.byteCopyTiles += 1;
    };
    forEachChunk(source, batch_.temporaryPath, readOffset, destination.size, tile_.bytes(), write);
  }

  void requireUnreplaced(const std::string& path) {
    if (Posix::descriptorMatchesPath(destinations_.open(path), path)) return;
    throw RepackError(InstallPathUnsafe{.path = path, .detail = "output file was replaced during the copy"});
  }

  /// What stays behind is removed before the next download.
  void removeTemporaryFile() noexcept {
    try {
      Posix::unlink(batch_.temporaryPath);
    } catch (const std::exception&) {
      return;
    }
  }

  const HuggingFaceRemoteSource& remote_;
  const std::map<std::string, RemoteFileInfo>& files_;
  const CopyBatch& batch_;
  AlignedBuffer tile_;
  DestinationFiles destinations_;
  std::uint64_t downloaded_ = 0;
};

}  // namespace

std::uint64_t destinationByteCount(const CoalescedRangeCopy& copy) {
  std::uint64_t total = 0;
  for (const RangeCopy& destination : copy.destinations) {
    total = morlenCheckedAdd(total, destination.size, copy.id);
  }
  return total;
}

HTTPRangeSourceByteProvider::HTTPRangeSourceByteProvider(HuggingFaceRemoteSource remote,
                                                         std::map<std::string, RemoteFileInfo> files,
                                                         std::int64_t writeTileBytes)
    : remote_(std::move(remote)), files_(std::move(files)), writeTileBytes_(writeTileBytes) {}

void HTTPRangeSourceByteProvider::copyBatch(const CopyBatch& batch) {
  BatchCopier(remote_, files_, writeTileBytes_, batch).copyAll();
}

std::string HTTPRangeSourceByteProvider::destinationDigest(const CoalescedRangeCopy& copy,
                                                           const std::string& partialDirectory,
                                                           std::span<std::byte> scratch) {
  std::optional<AlignedBuffer> ownBuffer;
  if (scratch.empty()) scratch = ownBuffer.emplace(fileChunkBytes).bytes();
  return RangeProof::readBack(copy, partialDirectory, scratch).digest;
}

}  // namespace vellicor
