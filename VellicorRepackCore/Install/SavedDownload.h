#pragma once

#include <functional>
#include <string>
#include <vector>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Install/RangeCopyPlanner.h"
#include "VellicorRepackCore/Install/RangeProof.h"
#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"

namespace vellicor {

/// What the files of an interrupted install are worth. They stand where the plan puts them.
struct SavedDownload {
  /// Whether the files are those of the plan: every one in its place, in no linked directory, at its size,
  /// with the plan's own index at the head. An index that cannot be read is written anew. Throws what the
  /// file calls throw.
  static bool filesMatch(const RepackPlan& plan, const RangeCopyPlan& copies, const std::string& directory);

  /// The ranges whose bytes are still what they were, sorted by id; `keep` receives each one's proof. One
  /// that differs or cannot be read is left out, to be fetched again. Throws `installStateCorrupt` for a
  /// range that is not of the plan, what the file calls throw, and `CancellationError`.
  static std::vector<RemoteCompletedRange> provenRanges(
      const std::vector<RemoteCompletedRange>& ranges, const RangeCopyPlan& copies,
      const std::string& directory, const CancellationToken& stop,
      const std::function<void(const std::string& rangeID, RangeProof)>& keep);
};

}  // namespace vellicor
