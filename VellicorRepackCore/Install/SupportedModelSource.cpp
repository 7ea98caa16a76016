#include "VellicorRepackCore/Install/SupportedModelSource.h"

#include <utility>

#include "VellicorRepackCore/Base/Environment.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Remote/CurlTransport.h"
#include "VellicorRepackCore/Remote/TrustedCertificates.h"

namespace vellicor {

namespace {

constexpr const char* endpointVariable = "HF_ENDPOINT";
constexpr const char* caFileVariable = "SSL_CERT_FILE";

}  // namespace

RemoteUrl SupportedModelSource::hubURL() {
  std::string text = nonEmptyEnvironmentVariable(endpointVariable).value_or(defaultHubURL);
  if (text.ends_with('/')) text.pop_back();
  // A user part, query or fragment would travel into every request; the value itself may hold a secret and is
  // not shown.
  const bool isPlain = text.find_first_of("?#@") == std::string::npos;
  const std::optional<RemoteUrl> url = isPlain ? RemoteUrl::parse(text) : std::nullopt;
  if (!url || url->scheme() != "https" || url->host().empty()) {
    throw RepackError(ConfigurationInvalid{std::string(ConfigurationInvalid::invalidEndpoint)});
  }
  return *url;
}

std::shared_ptr<RemoteDownloadSession> SupportedModelSource::downloadSession(
    std::optional<std::string> caFile) {
  CurlTransport::Options options;
  options.caFile = TrustedCertificates::file(std::move(caFile));
  return std::make_shared<RemoteDownloadSession>(RemoteDownloadSessionPolicy{},
                                                 std::make_shared<CurlTransport>(std::move(options)));
}

RemoteStreamingRepackOptions SupportedModelSource::installOptions(const std::string& outputDirectory,
                                                                  bool overwrite,
                                                                  std::optional<std::string> token,
                                                                  bool resume) {
  return {
      .repoID = repoID,
      .revision = revision,
      .outputDir = outputDirectory,
      .token = std::move(token),
      .minFreeReserveBytes = reserveBytes,
      .overwrite = overwrite,
      .resume = resume,
      .downloadSession = downloadSession(nonEmptyEnvironmentVariable(caFileVariable)),
      .baseURL = hubURL(),
  };
}

}  // namespace vellicor
