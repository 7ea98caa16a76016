#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <variant>

#include "VellicorRepackCore/FileSystem/DiskSpaceChecker.h"

namespace vellicor {

/// The phases of an install, in their order.
enum class InstallPhase { metadata, planning, checkingDisk, reserving, copying, hashing, finalizing };

/// The plan is known: bytes to fetch in all and bytes the artifact will occupy.
struct PlanningProgress {
  static constexpr InstallPhase phase = InstallPhase::planning;
  static constexpr std::string_view phaseName = "planning";
  std::uint64_t downloadBytes = 0;
  std::uint64_t outputBytes = 0;
  bool operator==(const PlanningProgress&) const = default;
};
/// The free space suffices.
struct CheckingDiskProgress {
  static constexpr InstallPhase phase = InstallPhase::checkingDisk;
  static constexpr std::string_view phaseName = "checkingDisk";
  DiskSpaceRequirement requirement;
  bool operator==(const CheckingDiskProgress&) const = default;
};
/// The output files are being created at their final sizes.
struct ReservingOutputProgress {
  static constexpr InstallPhase phase = InstallPhase::reserving;
  static constexpr std::string_view phaseName = "reserving";
  std::uint64_t bytes = 0;
  bool operator==(const ReservingOutputProgress&) const = default;
};
/// Bytes present from an earlier run, bytes fetched in this run, and the total to fetch.
struct CopyingPayloadProgress {
  static constexpr InstallPhase phase = InstallPhase::copying;
  static constexpr std::string_view phaseName = "copying";
  std::uint64_t reusedBytes = 0;
  std::uint64_t downloadedThisRun = 0;
  std::uint64_t total = 0;
  bool operator==(const CopyingPayloadProgress&) const = default;
};
/// An output file, by its relative path, is being hashed.
struct HashingOutputProgress {
  static constexpr InstallPhase phase = InstallPhase::hashing;
  static constexpr std::string_view phaseName = "hashing";
  std::string relativePath;
  bool operator==(const HashingOutputProgress&) const = default;
};
/// Small metadata files are being fetched.
struct DownloadingMetadataProgress {
  static constexpr InstallPhase phase = InstallPhase::metadata;
  static constexpr std::string_view phaseName = "metadata";
  bool operator==(const DownloadingMetadataProgress&) const = default;
};
/// The artifact is being finished and promoted.
struct FinalizingProgress {
  static constexpr InstallPhase phase = InstallPhase::finalizing;
  static constexpr std::string_view phaseName = "finalizing";
  bool operator==(const FinalizingProgress&) const = default;
};

/// One progress event of an install.
using ModelInstallProgress =
    std::variant<PlanningProgress, CheckingDiskProgress, ReservingOutputProgress, CopyingPayloadProgress,
                 HashingOutputProgress, DownloadingMetadataProgress, FinalizingProgress>;

/// The phase that the event belongs to.
inline InstallPhase phaseOf(const ModelInstallProgress& event) {
  return std::visit([](const auto& known) { return known.phase; }, event);
}

/// Receives the events in order, on the installing thread.
using ModelInstallProgressCallback = std::function<void(const ModelInstallProgress&)>;

}  // namespace vellicor
