#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Remote/HttpTransport.h"

namespace vellicor {

/// The real transport, over libcurl: HTTPS only, certificates always verified, HTTP/1.1, no decoding of
/// bodies; proxies as `EnvironmentProxy` says, which are logged in to with what they offer of Negotiate,
/// Digest, NTLM and Basic. One handle serves every hop, so connections, DNS and TLS sessions to each host are
/// kept. Every failure of libcurl becomes a `NetworkError` whose text a person understands. A hop that is
/// begun while another is under way throws `std::logic_error` and leaves the other alone.
class CurlTransport final : public HttpTransport {
 public:
  struct Options {
    /// Certificates (PEM) to trust instead of the system's.
    std::optional<std::string> caFile{};
    /// The largest header block accepted, in bytes.
    std::size_t maximumHeaderBytes = 262144;
    /// Whether a network is there at all; when empty, whether it has a default route.
    std::function<bool()> hasNetwork{};
  };

  explicit CurlTransport(Options options);
  ~CurlTransport() override;

  void perform(const HttpRequest& request, const HttpHopLimits& limits, HttpObserver& observer,
               const CancellationToken& stop) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vellicor
