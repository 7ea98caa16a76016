#include "VellicorRepackCore/Source/SourceFingerprint.h"

namespace vellicor {

const std::map<std::string, std::string>& SourceFingerprint::knownFingerprints() {
  static const std::map<std::string, std::string> fingerprints = {
      {"mlx-community/gemma-4-26b-a4b-it-4bit",
       "bf198c9f5ea6462addca1966e5dd669c407537a876e82cf06db9084c5c850b13"},
  };
  return fingerprints;
}

std::optional<std::string> SourceFingerprint::modelID(std::string_view indexSha256) {
  for (const auto& [id, fingerprint] : knownFingerprints()) {
    if (fingerprint == indexSha256) return id;
  }
  return std::nullopt;
}

}  // namespace vellicor
