#pragma once

#include <cstdint>
#include <string>

#include "VellicorRepackCore/Install/RangeCopyPlanner.h"
#include "VellicorRepackCore/Planning/RepackPlanner.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"

namespace vellicor {

/// The payload files of an install, as the plan places them in its partial directory.
struct OutputFiles {
  /// The bytes of all of them together. Throws `MorlenFormatError` when they do not fit in 64 bits.
  static std::uint64_t totalBytes(const RepackPlan& plan);

  /// Creates every file at its final size, sparse, with the resident index in place, all of it durable.
  static void create(const RepackPlan& plan, const std::string& partialDirectory, RepackAudit& audit);

  /// The bytes that already have blocks which a later write uses again.
  static std::uint64_t bytesInPlace(const RangeCopyPlan& copies, const std::string& partialDirectory);
};

}  // namespace vellicor
