#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Tests/FaultInjection/TrialReport.h"
#include "VellicorLab/InstallHarness.h"
#include "VellicorRepackCore/Install/RangeCopyPlanner.h"

namespace vellicor {

/// A harness whose output is put into many states, each judged against the same predicted artifact, and by
/// what it costs to get from there to the artifact.
class Recovery {
 public:
  enum class Overwrite { no, yes };
  /// Whether something else than installers may have changed the files of the saved download.
  enum class Saved { intact, changed };

  /// Some bytes of a file below the partial directory; outside of all ranges lie index and padding.
  struct Piece {
    std::string file;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    bool isOutside = false;
  };

  /// Works out the artifact once. What recoveries cost is counted in the report.
  Recovery(InstallHarness& harness, TrialReport& report);

  /// What the artifact that stands at the output has wrong, one text for each; empty for the right artifact.
  /// Reads every byte and has it verified.
  std::vector<std::string> wrongs() const;
  bool hasOutput() const;

  /// What stands beside the output and is neither it nor its lock, by name.
  std::vector<std::string> leftovers() const;

  /// What is final by the present checkpoint: the ranges that it names, and all that no range writes. Nothing
  /// without a checkpoint that loads.
  std::vector<Piece> finalPieces();

  /// Calls `run`, which goes on from the present state. Throws `std::runtime_error` if it makes the hub send
  /// payload twice or payload that was there: each unfinished range may be fetched once, and nothing at all
  /// when the right artifact is in place. A range is finished when the checkpoint names it; where the saved
  /// files may have been changed, its bytes must be right as well, and all files be there at their sizes.
  void judgeCost(Saved saved, const std::function<void()>& run);

  /// Does what a person does who reads what is printed: resumes; where that is refused because nothing or
  /// half of a state was saved, discards and starts afresh; and discards what is left beside a finished
  /// artifact. Returns the steps taken, and throws `std::runtime_error` when they do not end in the right
  /// artifact with nothing beside it, or cost more than they may.
  std::vector<std::string> recover(Overwrite overwrite, Saved saved = Saved::intact);

 private:
  using Copies = std::vector<const CoalescedRangeCopy*>;

  std::vector<std::string> takeSteps(Overwrite overwrite);
  std::string attempt(bool resume, Overwrite overwrite);
  /// As `InstallHarness::payloadRanges` names them, sorted.
  std::vector<std::string> unfinished(Saved saved);
  /// Those that the checkpoint names, or nothing without one that loads; and of them those that are finished.
  std::optional<Copies> completedCopies();
  Copies finishedCopies(Saved saved);
  const RangeCopyPlan& plan();
  std::string partialDirectory() const { return harness_.output + ".partial"; }
  Piece pieceOf(const RangeCopy& copy) const;

  InstallHarness& harness_;
  TrialReport& report_;
  PredictedArtifact predicted_;
  std::map<std::string, std::string> contents_;
  /// Of an install to another output, whose partial directory is `planRoot_`.
  std::optional<RangeCopyPlan> plan_;
  std::string planRoot_;
  std::uint64_t indexSize_ = 0;
};

}  // namespace vellicor
