#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace vellicor {

/// The shard indexes that the system was built for.
struct SourceFingerprint {
  /// Model id to the SHA-256 of its shard index, lower-case hexadecimal.
  static const std::map<std::string, std::string>& knownFingerprints();

  /// The model id whose fingerprint is exactly the given text, or nothing.
  static std::optional<std::string> modelID(std::string_view indexSha256);
};

}  // namespace vellicor
