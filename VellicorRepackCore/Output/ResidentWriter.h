#pragma once

#include <cstddef>
#include <vector>

#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Planning/RepackPlanner.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"

namespace vellicor {

/// Header and entry sizes of the binary resident index, in bytes.
struct MorlenBinary {
  static constexpr std::size_t indexHeaderBytes = MorlenFormatV1::residentHeaderBytes;
  static constexpr std::size_t indexEntryBytes = MorlenFormatV1::residentEntryBytes;
};

/// Turns a resident file plan into the head of model_weights.bin.
struct ResidentWriter {
  /// The complete index region, exactly `plan.indexSize` bytes, proven by decoding it again. Throws
  /// `configurationInvalid` or `scratchExceeded`.
  static std::vector<std::byte> encodeIndex(const ResidentFilePlan& plan);

  /// Encodes the index and writes it at offset 0 of `fd`, the file at `plan.path`.
  static void writeIndex(const ResidentFilePlan& plan, int fd, RepackAudit& audit);

  /// Creates the resident file at its full size, sparse after the index; the caller owns the open
  /// descriptor. A failed index write leaves the file behind.
  static FileDescriptor createAndWriteIndex(const ResidentFilePlan& plan, RepackAudit& audit);
};

}  // namespace vellicor
