#pragma once

#include <memory>
#include <string>

#include "VellicorArtifact/MorlenDirectoryAccess.h"
#include "VellicorLab/HubRepository.h"

namespace vellicor {

/// A folder of real files, served under any repository name as the supported checkpoint's commit. Only
/// regular files inside it exist; links are not followed. Shards, tokenizer.json and everything above 10 MB
/// count as large.
class FolderRepository final : public HubRepository {
 public:
  /// Throws `RepackError` when the folder cannot be opened.
  explicit FolderRepository(const std::string& root) : root_(root) {}

  std::string commit() const override { return supportedCommit; }
  std::shared_ptr<const HubFile> file(const std::string& name) const override;

 private:
  MorlenDirectoryAccess root_;
};

}  // namespace vellicor
