#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "VellicorRepackCore/Install/RangeCopyPlanner.h"
#include "VellicorRepackCore/Install/RangeProof.h"
#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"
#include "VellicorRepackCore/Remote/HuggingFaceRemote.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"

namespace vellicor {

/// Bytes that a range request writes: the sum of its destinations' sizes. Throws `MorlenFormatError` on
/// overflow.
std::uint64_t destinationByteCount(const CoalescedRangeCopy& copy);

/// What one call of `SourceByteProvider::copyBatch` works on.
struct CopyBatch {
  /// Processed strictly in this order, one at a time.
  const std::vector<CoalescedRangeCopy>& copies;
  /// Ranges already valid on disk, to be skipped.
  const std::set<std::string>& completedRangeIDs;
  /// Root of the relative paths in a range's digest.
  const std::string& partialDirectory;
  /// Receives one range's body at a time.
  const std::string& temporaryPath;
  RepackAudit& audit;
  /// Called with the bytes downloaded by this call so far.
  RemoteProgressCallback progress;
  /// Called once per finished range, with what was read back of it; the range is durable when it returns. Its
  /// failure ends the call.
  std::function<void(RemoteCompletedRange, RangeProof)> commit;
};

/// Carries out the copy phase of an install.
class SourceByteProvider {
 public:
  virtual ~SourceByteProvider() = default;
  virtual void copyBatch(const CopyBatch& batch) = 0;
};

/// Fetches each range from the hub into the temporary file, scatters it tile by tile into the outputs, syncs
/// them, digests what was written and commits the range. Memory: one tile. Disk: one range.
class HTTPRangeSourceByteProvider final : public SourceByteProvider {
 public:
  HTTPRangeSourceByteProvider(HuggingFaceRemoteSource remote, std::map<std::string, RemoteFileInfo> files,
                              std::int64_t writeTileBytes);

  void copyBatch(const CopyBatch& batch) override;

  /// Identifies what a range has written: SHA-256 over the copy's mapping and the bytes now on disk, read
  /// back through `scratch`, or through a buffer of its own when `scratch` is empty.
  static std::string destinationDigest(const CoalescedRangeCopy& copy, const std::string& partialDirectory,
                                       std::span<std::byte> scratch);

 private:
  HuggingFaceRemoteSource remote_;
  std::map<std::string, RemoteFileInfo> files_;
  std::int64_t writeTileBytes_;
};

}  // namespace vellicor
