#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "VellicorRepackCore/Install/RemoteStreamingRepackOptions.h"
#include "VellicorRepackCore/Source/SupportedModel.h"

namespace vellicor {

/// Where the supported model is installed from, and how.
struct SupportedModelSource {
  static constexpr const char* displayName = supportedModel.displayName;
  static constexpr const char* repoID = supportedModel.repoID;
  static constexpr const char* revision = supportedModel.revision;
  static constexpr const char* sourceIndexSHA256 = supportedModel.indexSHA256;
  static constexpr std::uint64_t approximateDownloadBytes = supportedModel.approximateDownloadBytes;
  static constexpr std::uint64_t installedBytes = supportedModel.installedBytes;
  static constexpr std::uint64_t reserveBytes = 1073741824;

  /// The hub unless the environment variable HF_ENDPOINT names another.
  static constexpr const char* defaultHubURL = "https://huggingface.co";

  /// Throws `ConfigurationInvalid` naming HF_ENDPOINT when that is set to anything but an https URL with a
  /// host.
  static RemoteStreamingRepackOptions installOptions(const std::string& outputDirectory, bool overwrite,
                                                     std::optional<std::string> token, bool resume);

  /// The hub's base URL as the environment has it.
  static RemoteUrl hubURL();

  /// A session over the real transport with the install's policy. `caFile` replaces the system's trusted
  /// certificates.
  static std::shared_ptr<RemoteDownloadSession> downloadSession(std::optional<std::string> caFile);
};

}  // namespace vellicor
