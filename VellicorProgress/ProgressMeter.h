#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "VellicorRepackCore/Reporting/ModelInstallProgress.h"

namespace vellicor {

/// Every reading of the clock is a parameter, so that nothing here waits.
using ProgressTime = std::chrono::steady_clock::time_point;

/// The state of one phase at one moment. Members that a phase does not have stay at zero.
struct PhaseState {
  InstallPhase phase = InstallPhase::metadata;
  std::chrono::nanoseconds elapsed{0};
  /// planning: bytes of source; copying: all bytes to copy.
  std::uint64_t totalBytes = 0;
  /// planning, reserving: bytes of the artifact.
  std::uint64_t outputBytes = 0;
  /// copying: bytes that are done, including reused ones, and the reused ones; neither exceeds the total.
  std::uint64_t doneBytes = 0;
  std::uint64_t reusedBytes = 0;
  /// copying: bytes fetched per second over the last seconds, without reused ones. Empty in the first second
  /// and once all bytes are done.
  std::optional<double> rate;
  /// copying: the time left at that rate. Empty without a rate or when nothing arrives.
  std::optional<std::chrono::seconds> left;
  /// hashing: the current file, and the number of files including this one.
  std::string file;
  std::uint64_t files = 0;
  /// metadata, copying: nothing arrives because there is no network.
  bool isOffline = false;

  std::uint64_t fetchedBytes() const { return doneBytes - reusedBytes; }
  /// Rounded down, so that 100 means done.
  unsigned percent() const;
  unsigned reusedPercent() const;
};

/// Turns events into numbers.
class ProgressMeter {
 public:
  static constexpr std::chrono::seconds rateWindow{10};

  /// Takes an event. Returns the last state of the phase that it ends, if it ends one.
  std::optional<PhaseState> apply(const ModelInstallProgress& event, ProgressTime now);
  /// Ends the current phase and returns its last state; nothing without a phase.
  std::optional<PhaseState> endPhase(ProgressTime now);
  std::optional<PhaseState> current(ProgressTime now) const;

 private:
  struct Sample {
    ProgressTime time;
    std::uint64_t received;
  };

  // One for every event.
  void take(const DownloadingMetadataProgress&, ProgressTime) {}
  void take(const PlanningProgress& event, ProgressTime);
  void take(const CheckingDiskProgress&, ProgressTime) {}
  void take(const ReservingOutputProgress& event, ProgressTime);
  void take(const CopyingPayloadProgress& event, ProgressTime now);
  void take(const HashingOutputProgress& event, ProgressTime);
  void take(const FinalizingProgress&, ProgressTime) {}
  std::optional<double> rate(ProgressTime now) const;

  std::optional<PhaseState> state_;
  ProgressTime start_;
  /// Bytes fetched in this phase; bytes that were fetched again count again.
  std::uint64_t received_ = 0;
  std::uint64_t downloaded_ = 0;
  /// The front one is the newest sample older than the window.
  std::deque<Sample> samples_;
};

}  // namespace vellicor
