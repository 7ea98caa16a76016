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

enum class InstallPhase { metadata, planning, checkingDisk, reserving, copying, hashing, finalizing };

/// What there is to say about one phase at one moment. Members that a phase does not have stay at zero.
struct PhaseState {
  InstallPhase phase = InstallPhase::metadata;
  std::chrono::nanoseconds elapsed{0};
  /// planning: bytes of source; copying: all bytes to copy.
  std::uint64_t totalBytes = 0;
  /// planning, reserving: bytes of the artifact.
  std::uint64_t outputBytes = 0;
  /// copying: bytes that need no more work, reused ones included, and the reused ones; never beyond the
  /// total.
  std::uint64_t doneBytes = 0;
  std::uint64_t reusedBytes = 0;
  /// copying: bytes fetched per second over the last seconds, reused ones left out. Nothing in the first one
  /// and once all are done.
  std::optional<double> rate;
  /// copying: at that rate. Nothing without a rate or when nothing arrives.
  std::optional<std::chrono::seconds> left;
  /// hashing: the current file and how many there were, this one included.
  std::string file;
  std::uint64_t files = 0;
  /// metadata, copying: nothing comes, because there is no network.
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
  /// Ends the current phase and returns its last state; nothing when there is none.
  std::optional<PhaseState> endPhase(ProgressTime now);
  std::optional<PhaseState> current(ProgressTime now) const;

 private:
  struct Sample {
    ProgressTime time;
    std::uint64_t received;
  };

  void copy(const CopyingPayloadProgress& event, ProgressTime now);
  std::optional<double> rate(ProgressTime now) const;

  std::optional<PhaseState> state_;
  ProgressTime start_;
  /// Bytes fetched by now, those that had to be fetched again counted again.
  std::uint64_t received_ = 0;
  std::uint64_t downloaded_ = 0;
  /// The oldest one is the youngest that is not within the window.
  std::deque<Sample> samples_;
};

}  // namespace vellicor
