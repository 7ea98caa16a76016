#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "VellicorLab/ByteSource.h"
#include "VellicorLab/SyntheticCheckpoint.h"

namespace vellicor {

/// The artifact that an install of a checkpoint must leave, every file but the time-stamped receipt: worked
/// out from the checkpoint's bytes and the rules of the format alone, with an order and a JSON text of its
/// own. Shares no code with the planner or the encoders, so that it can judge them. Payload stays where it
/// is, and a full-size artifact costs no memory.
class PredictedArtifact {
 public:
  /// The checkpoint is one that can be installed. Reads all of its kept payload, for the digests in the
  /// manifest.
  explicit PredictedArtifact(const SyntheticCheckpoint& checkpoint);

  /// By relative path.
  const std::map<std::string, JoinedBytes>& files() const { return files_; }
  std::uint64_t byteCount() const;
  /// Path and content, of an artifact that fits in memory.
  std::map<std::string, std::string> contents() const;

  /// The differences between a directory and this artifact, one line for each entry that is missing, unexpected or
  /// different; empty if the directory is the artifact. Reads every byte and follows no link inside. Throws
  /// what opening and reading throw.
  std::vector<std::string> differences(const std::string& directory) const;

 private:
  std::map<std::string, JoinedBytes> files_;
};

}  // namespace vellicor
