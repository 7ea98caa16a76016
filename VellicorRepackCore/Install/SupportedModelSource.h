#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "VellicorRepackCore/Install/RemoteStreamingRepackOptions.h"

namespace vellicor {

/// The one model that the installer supports.
struct SupportedModelSource {
  static constexpr const char* displayName = "Gemma 4 26B-A4B IT 4-bit";
  static constexpr const char* repoID = "mlx-community/gemma-4-26b-a4b-it-4bit";
  /// A full commit id, so the whole install is pinned.
  static constexpr const char* revision = "0d77464eeb233a2da68ebf9d7dc4edaac7db956d";
  static constexpr const char* sourceIndexSHA256 =
      "bf198c9f5ea6462addca1966e5dd669c407537a876e82cf06db9084c5c850b13";
  static constexpr std::uint64_t approximateDownloadBytes = 14620479420;
  static constexpr std::uint64_t installedBytes = 14291921884;
  static constexpr std::uint64_t reserveBytes = 1073741824;

  /// The hub unless the environment variable HF_ENDPOINT names another.
  static constexpr const char* defaultHubURL = "https://huggingface.co";

  /// Throws `configurationInvalid` naming HF_ENDPOINT when that is set to anything but an https URL with a
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
