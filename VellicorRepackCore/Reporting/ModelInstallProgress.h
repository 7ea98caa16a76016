#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <variant>

#include "VellicorRepackCore/FileSystem/DiskSpaceChecker.h"

namespace vellicor {

/// The plan is known: bytes to fetch in all and bytes the artifact will occupy.
struct PlanningProgress {
  std::uint64_t downloadBytes = 0;
  std::uint64_t outputBytes = 0;
  bool operator==(const PlanningProgress&) const = default;
};
/// The free space suffices.
struct CheckingDiskProgress {
  DiskSpaceRequirement requirement;
  bool operator==(const CheckingDiskProgress&) const = default;
};
/// The output files are being created at their final sizes.
struct ReservingOutputProgress {
  std::uint64_t bytes = 0;
  bool operator==(const ReservingOutputProgress&) const = default;
};
/// Bytes present from an earlier run, bytes fetched in this run, and the total to fetch.
struct CopyingPayloadProgress {
  std::uint64_t reusedBytes = 0;
  std::uint64_t downloadedThisRun = 0;
  std::uint64_t total = 0;
  bool operator==(const CopyingPayloadProgress&) const = default;
};
/// An output file, by its relative path, is being hashed.
struct HashingOutputProgress {
  std::string relativePath;
  bool operator==(const HashingOutputProgress&) const = default;
};
/// Small metadata files are being fetched.
struct DownloadingMetadataProgress {
  bool operator==(const DownloadingMetadataProgress&) const = default;
};
/// The artifact is being finished and promoted.
struct FinalizingProgress {
  bool operator==(const FinalizingProgress&) const = default;
};

/// One progress event of an install.
using ModelInstallProgress =
    std::variant<PlanningProgress, CheckingDiskProgress, ReservingOutputProgress, CopyingPayloadProgress,
                 HashingOutputProgress, DownloadingMetadataProgress, FinalizingProgress>;

/// Receives the events in order, on the installing thread.
using ModelInstallProgressCallback = std::function<void(const ModelInstallProgress&)>;

}  // namespace vellicor
