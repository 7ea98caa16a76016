#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/Install/RangeCopyPlanner.h"

namespace vellicor {

/// What a range has written, read back from the disk: its digest, and the digest's course from file to file.
/// A range scatters over several files; with the course, each file's share of it can be proven again by
/// itself, in one pass over that file and without the others.
struct RangeProof {
  struct Share {
    /// The range's destinations in one file: this many, from this one on.
    std::size_t first = 0;
    std::size_t count = 0;
    /// The range's digest before the share, and what it comes to right after it.
    FingerprintWriter before;
    std::string after;
  };

  /// SHA-256 over the copy's mapping and bytes, in 64 hexadecimal digits: the checkpoint's
  /// `destinationDigest`.
  std::string digest;
  /// In the order of the destinations.
  std::vector<Share> shares;

  /// Reads through `scratch`. Throws `fileOpenFailed` or `preadShort`.
  static RangeProof readBack(const CoalescedRangeCopy& copy, const std::string& partialDirectory,
                             std::span<std::byte> scratch);

  /// Puts a destination's place in the mapping into a digest; its bytes follow.
  static void appendPlace(const CoalescedRangeCopy& copy, const RangeCopy& destination,
                          const std::string& partialDirectory, FingerprintWriter& digest);
};

}  // namespace vellicor
