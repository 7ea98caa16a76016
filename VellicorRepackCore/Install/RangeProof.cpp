#include "VellicorRepackCore/Install/RangeProof.h"

#include <cstdint>

#include "VellicorRepackCore/FileSystem/FileChunks.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {

namespace {

FingerprintWriter begunDigest(const CoalescedRangeCopy& copy) {
  FingerprintWriter digest;
  digest.append("Vellicor.RemoteRangeDestination.v1");
  digest.append(copy.id);
  digest.append(std::uint64_t{copy.destinations.size()});
  return digest;
}

void appendBytes(const RangeCopy& destination, std::span<std::byte> scratch, FingerprintWriter& digest) {
  const std::string& path = destination.destinationPath;
  const FileDescriptor file = Posix::openReadNoFollow(path);
  forEachChunk(file.get(), path, destination.destinationOffset, destination.size, scratch,
               [&](std::uint64_t, std::span<const std::byte> bytes) { digest.appendBytes(bytes); });
}

std::string digestSoFar(const FingerprintWriter& digest) {
  return FingerprintWriter(digest).finalizeHexString();
}

}  // namespace

void RangeProof::appendPlace(const CoalescedRangeCopy& copy, const RangeCopy& destination,
                             const std::string& partialDirectory, FingerprintWriter& digest) {
  digest.append(
      RangeCopyPlanner::normalizedRelativePath(destination.destinationPath.text(), partialDirectory));
  digest.append(destination.destinationOffset);
  digest.append(destination.sourceOffset - copy.sourceOffset);
  digest.append(destination.size);
}

RangeProof RangeProof::readBack(const CoalescedRangeCopy& copy, const std::string& partialDirectory,
                                std::span<std::byte> scratch) {
  RangeProof proof;
  FingerprintWriter digest = begunDigest(copy);
  const std::vector<RangeCopy>& destinations = copy.destinations;
  for (std::size_t at = 0; at < destinations.size();) {
    Share& share = proof.shares.emplace_back(Share{.first = at, .count = 0, .before = digest, .after = {}});
    const SharedText& path = destinations[at].destinationPath;
    for (; at < destinations.size() && destinations[at].destinationPath == path; ++at) {
      appendPlace(copy, destinations[at], partialDirectory, digest);
      appendBytes(destinations[at], scratch, digest);
    }
    share.count = at - share.first;
    share.after = digestSoFar(digest);
  }
  proof.digest = digest.finalizeHexString();
  return proof;
}

}  // namespace vellicor
