#include "VellicorRepackCore/Remote/RemoteRedirect.h"

#include <fmt/format.h>

#include "VellicorRepackCore/Base/AsciiText.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Remote/RemoteHeaders.h"

namespace vellicor {
namespace {

std::string hostKey(const RemoteUrl& url) { return asciiLowercased(url.host()); }

bool isHTTPS(const std::optional<RemoteUrl>& url) { return url && url->scheme() == "https"; }

}  // namespace

RemoteRedirectPolicy::RemoteRedirectPolicy(const HttpRequest& originalRequest, int maximumRedirects)
    : original_(originalRequest),
      sourceHost_(hostKey(originalRequest.url)),
      maximumRedirects_(maximumRedirects) {}

HttpRequest RemoteRedirectPolicy::request(const HttpResponseHead& response,
                                          const std::optional<RemoteUrl>& proposedUrl) {
  redirectCount_ += 1;
  if (redirectCount_ > maximumRedirects_) {
    throw RepackError(
        RemoteRedirectRejected{.url = redactRemoteURL(response.url),
                               .detail = fmt::format("more than {} redirects", maximumRedirects_)});
  }
  if (!isHTTPS(proposedUrl)) {
    throw RepackError(RemoteRedirectRejected{.url = redactRemoteURL(proposedUrl),
                                             .detail = "only HTTPS redirects are allowed"});
  }
  if (hostKey(*proposedUrl) != sourceHost_) authorizationMayBeForwarded_ = false;

  HttpRequest next = original_;
  next.url = *proposedUrl;
  next.method = "GET";
  next.headers.set("Accept-Encoding", "identity");
  if (!authorizationMayBeForwarded_) next.headers.remove("Authorization");
  return next;
}

RemoteMetadataRedirectPolicy::RemoteMetadataRedirectPolicy(const HttpRequest& originalRequest,
                                                           int maximumRedirects)
    : original_(originalRequest),
      sourceHost_(hostKey(originalRequest.url)),
      maximumRedirects_(maximumRedirects) {}

std::optional<HttpRequest> RemoteMetadataRedirectPolicy::request(
    const std::optional<RemoteUrl>& proposedUrl) {
  redirectCount_ += 1;
  if (redirectCount_ > maximumRedirects_) return std::nullopt;
  if (!isHTTPS(proposedUrl)) return std::nullopt;
  if (hostKey(*proposedUrl) != sourceHost_) return std::nullopt;

  HttpRequest next = original_;
  next.url = *proposedUrl;
  next.headers.set("Accept-Encoding", "identity");
  return next;
}

bool isRedirect(const HttpResponseHead& response) {
  switch (response.status) {
    case 301:
    case 302:
    case 303:
    case 307:
    case 308:
      return remoteHeader(response, "Location").has_value();
    default:
      return false;
  }
}

std::optional<RemoteUrl> redirectTarget(const HttpResponseHead& response) {
  const auto location = remoteHeader(response, "Location");
  if (!location) return std::nullopt;
  return response.url.resolving(*location);
}

}  // namespace vellicor
