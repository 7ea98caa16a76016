#include "VellicorRepackCore/Source/SourceFingerprint.h"

#include "VellicorRepackCore/Source/SupportedModel.h"

namespace vellicor {

const std::map<std::string, std::string>& SourceFingerprint::knownFingerprints() {
  static const std::map<std::string, std::string> fingerprints = {
      {supportedModel.repoID, supportedModel.indexSHA256},
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
