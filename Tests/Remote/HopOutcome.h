#pragma once

#include <optional>
#include <string>
#include <utility>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Tests/Support/Expect.h"
#include "Tests/Support/TinyHub.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Remote/CurlTransport.h"

namespace vellicor::testing {

using Code = NetworkError::Code;
using Outcome = std::pair<std::optional<Code>, std::string>;

/// "STATUS, N bytes", or what failed, with URL, HOST and PROXY for the redacted URL, its host and port, and
/// those of the proxy.
inline Outcome outcomeOf(CurlTransport& transport, const std::string& url, const HttpHopLimits& limits = {},
                         const std::string& proxy = "no proxy") {
  const HttpRequest request{.url = *RemoteUrl::parse(url), .headers = parsedHeaders("Range: bytes=0-59999")};
  Received received;
  try {
    transport.perform(request, limits, received, {});
    return {std::nullopt, fmt::format("{}, {} bytes", received.head->status, received.body.size())};
  } catch (const NetworkError& error) {
    std::string text = error.what();
    const auto mark = [&](const std::string& what, const char* name) {
      if (text.find(what) != std::string::npos) text.replace(text.find(what), what.size(), name);
    };
    mark(request.url.withoutQueryAndFragment().value(), "URL");
    mark(proxy, "PROXY");
    mark(request.url.authority(), "HOST");
    return {error.code(), text};
  }
}

}  // namespace vellicor::testing
