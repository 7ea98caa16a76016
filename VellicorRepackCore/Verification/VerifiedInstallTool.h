#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vellicor {

struct VerifyInstallOptions {
  /// The artifact directory, as given.
  std::string inputMorlen;
  /// How many files are hashed side by side; as many as there are processors when not given,
  /// and never more than `OrderedWork::maximumWorkers`.
  std::optional<std::size_t> workers{};
};

struct VerifyInstallResult {
  std::string receiptPath;
  /// The manifest's entries and the manifest itself.
  std::int64_t fileCount = 0;
  std::uint64_t bytesVerified = 0;
  /// Entries that do not belong to the artifact, sorted ascending. They are no failure.
  std::vector<std::string> unexpectedEntries;
};

/// Checks an installed artifact against its own manifest and, when everything matches, writes its receipt.
struct VerifiedInstallTool {
  /// Throws `RepackError` at the first mismatch; an earlier receipt then stays as it was.
  static VerifyInstallResult run(const VerifyInstallOptions& options);

  /// The same without writing anything.
  static VerifyInstallResult check(const VerifyInstallOptions& options);
};

}  // namespace vellicor
