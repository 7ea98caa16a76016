#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorRepackCore/Planning/RepackPlanner.h"

namespace vellicor {

/// One scalar copy: `size` bytes of a shard into an output file.
struct RangeCopy {
  /// The shard's file name in the snapshot.
  SharedText shardID;
  std::uint64_t sourceOffset = 0;
  /// May be 0.
  std::uint64_t size = 0;
  /// Inside the partial output directory.
  SharedText destinationPath;
  std::uint64_t destinationOffset = 0;
  bool operator==(const RangeCopy&) const = default;
};

/// One range request and what is done with its bytes.
struct CoalescedRangeCopy {
  /// "range-%08d" of the position in the plan.
  std::string id;
  SharedText shardID;
  std::uint64_t sourceOffset = 0;
  std::uint64_t size = 0;
  /// Sorted by destination path, destination offset, source offset; each lies inside the requested range.
  std::vector<RangeCopy> destinations;
  bool operator==(const CoalescedRangeCopy&) const = default;
};

/// One output file the install must produce, relative to the artifact directory.
struct RemoteExpectedOutput {
  std::string relativePath;
  std::uint64_t size = 0;
  bool operator==(const RemoteExpectedOutput&) const = default;
};

struct RangeCopyPlan {
  /// In generation order, unsplit, zero-size copies included.
  std::vector<RangeCopy> scalarCopies;
  /// The range requests, ordered by shard and source offset.
  std::vector<CoalescedRangeCopy> coalescedCopies;
  std::uint64_t remoteBytesToDownload = 0;
  /// Of those, the bytes fetched only because they lie between the copies of one request.
  std::uint64_t remoteGapBytesDownloaded = 0;
  /// The plan's identity: what a saved download must match to be resumed. 64 hexadecimal digits.
  std::string canonicalFingerprint;
  std::string residentIndexSha256;
  /// Sorted by relative path.
  std::vector<RemoteExpectedOutput> expectedOutputs;
};

/// Turns a repack plan into range requests. Pure: neither disk nor network. Every refusal is
/// `configurationInvalid`; an overflow is `MorlenFormatError`.
struct RangeCopyPlanner {
  static RangeCopyPlan plan(const RepackPlan& repackPlan, std::int64_t rangeChunkBytes,
                            const std::string& layoutMode,
                            const std::optional<std::string>& layoutOrderSha256);

  /// Cuts copies into pieces of at most `rangeChunkBytes` and groups neighbours of one shard into requests
  /// whose whole span, gaps included, is at most `rangeChunkBytes`.
  static std::vector<CoalescedRangeCopy> coalesce(const std::vector<RangeCopy>& copies,
                                                  std::int64_t rangeChunkBytes);

  /// Refuses copies that leave `outputRoot` or overlap in one file.
  static void validateDestinationIntervals(const std::vector<RangeCopy>& copies,
                                           const std::string& outputRoot);

  /// `path` relative to `root`, in NFC.
  static std::string normalizedRelativePath(std::string_view path, std::string_view root);

  static std::string canonicalFingerprint(const std::vector<CoalescedRangeCopy>& copies,
                                          const std::string& outputRoot, std::int64_t rangeChunkBytes,
                                          const std::string& layoutMode,
                                          const std::optional<std::string>& layoutOrderSha256,
                                          const std::string& residentIndexSha256,
                                          const std::vector<RemoteExpectedOutput>& expectedOutputs);
};

}  // namespace vellicor
