#pragma once

#include <string>
#include <vector>

#include "VellicorTrials/InstallHarness.h"

namespace vellicor {

/// A harness whose output is put into many states, each judged against the same predicted artifact.
class Recovery {
 public:
  enum class Overwrite { no, yes };

  /// Works out the artifact once.
  explicit Recovery(InstallHarness& harness);

  /// What the artifact that stands at the output has wrong, one text for each; empty for the right artifact.
  /// Reads every byte and has it verified.
  std::vector<std::string> wrongs() const;
  bool hasOutput() const;

  /// What stands beside the output and is neither it nor its lock, by name.
  std::vector<std::string> leftovers() const;

  /// Does what a person does who reads what is printed: resumes; where that is refused because nothing or
  /// half of a state was saved, discards and starts afresh; and discards what is left beside a finished
  /// artifact. Returns the steps taken, and throws `std::runtime_error` when they do not end in the right
  /// artifact with nothing beside it.
  std::vector<std::string> recover(Overwrite overwrite);

 private:
  std::string attempt(bool resume, Overwrite overwrite);

  InstallHarness& harness_;
  PredictedArtifact predicted_;
};

}  // namespace vellicor
