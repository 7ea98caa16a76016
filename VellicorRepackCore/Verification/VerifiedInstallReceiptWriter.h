#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VellicorRepackCore/Reporting/RepackAudit.h"

namespace vellicor {

// verified-install.json: one JSON object, pretty-printed with sorted keys and plain slashes. schemaVersion 1;
// manifestSha256; modelDirectoryPath (absolute); verificationTimestamp (RFC 3339, UTC, whole seconds, "Z");
// toolVersion; files (path to size and sha256, manifest.json included); sourceRepoID and sourceRevision when
// known.
struct VerifiedInstallReceiptWriter {
  static constexpr const char* installToolVersion = "VellicorRepack";
  static constexpr const char* verifyToolVersion = "VellicorRepack verify-install";

  /// The receipt's bytes, time-stamped now.
  static std::string encode(const std::string& outputDir, const std::string& manifestSha256,
                            std::uint64_t manifestSize, const std::optional<std::string>& sourceRepoID,
                            const std::optional<std::string>& sourceRevision, const std::string& toolVersion,
                            const std::vector<RepackAudit::OutputFile>& files);
};

}  // namespace vellicor
