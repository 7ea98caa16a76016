#pragma once

#include "Tests/Support/Expect.h"
#include "VellicorLab/InstallHarness.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Remote/CurlTransport.h"

namespace vellicor::testing {

/// "name: value" pairs separated by "; ".
inline HttpHeaders parsedHeaders(std::string text) {
  HttpHeaders headers;
  for (text += "; "; text.size() > 2; text.erase(0, text.find("; ") + 2)) {
    const std::size_t colon = text.find(": ");
    headers.add(text.substr(0, colon), text.substr(colon + 2, text.find("; ") - colon - 2));
  }
  return headers;
}

/// What one hop brought.
struct Received final : HttpObserver {
  std::optional<HttpResponseHead> head;
  std::string body;
  std::function<void()> afterHead = [] {};
  std::function<void()> afterPiece = [] {};

  void onResponse(const HttpResponseHead& response) override {
    if (head) throw std::logic_error("a second head");
    head = response;
    afterHead();
  }
  void onData(std::span<const std::byte> bytes) override {
    body.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    afterPiece();
  }
  std::string header(const std::string& name) const { return head->headers.get(name).value_or("-"); }
};

inline Received get(CurlTransport& transport, const std::string& url, const std::string& headers = "",
                    const std::string& method = "GET") {
  Received received;
  transport.perform({.url = *RemoteUrl::parse(url), .method = method, .headers = parsedHeaders(headers)}, {},
                    received, {});
  return received;
}

/// A harness whose hub is asked hop by hop, and the addresses in it. Its config.json has ten bytes.
struct HubClient : InstallHarness {
  explicit HubClient(const std::function<void(LocalHub::Options&)>& configure = nullptr)
      : InstallHarness(SyntheticCheckpoint::custom({}, 1), [=](LocalHub::Options& options) {
          options.repoID = labRepoID;
          if (configure) configure(options);
        }) {
    checkpoint->setSmallFile("config.json", "0123456789");
  }

  std::string resolve(const std::string& rest) const {
    return hub->baseURL() + "/" + labRepoID + "/resolve/" + rest;
  }
  /// Where the hub sends for a file, asked for on a connection of its own.
  std::string redirected(const std::string& file) const {
    CurlTransport transport(clientOptions());
    const Received received = get(transport, resolve("main/" + file));
    return received.head->url.resolving(received.header("location"))->string();
  }
  CurlTransport::Options clientOptions() const {
    return {.caFile = hub->caFile(), .maximumHeaderBytes = 8192};
  }
  std::string bytes(const std::string& file, std::uint64_t offset, std::uint64_t count) const {
    const auto read = checkpoint->bytes(file, offset, count);
    return {reinterpret_cast<const char*>(read.data()), read.size()};
  }

  std::string shard = checkpoint->shardNames()[0];
};

/// "STATUS, N bytes", or the kind of failure and its text, with HOST and PROXY for the host and port of the URL
/// and of the proxy. The text ends with the URL, without its query; here it does not.
inline std::string outcomeOf(CurlTransport& transport, const std::string& url,
                             const HttpHopLimits& limits = {}, const std::string& proxy = "no proxy") {
  static constexpr const char* kinds[] = {
      "timedOut", "connectionLost",      "cannotConnect", "nameResolution",
      "offline",  "resourceUnavailable", "tls",           "other"};
  const HttpRequest request{.url = *RemoteUrl::parse(url), .headers = parsedHeaders("Range: bytes=0-59999")};
  Received received;
  try {
    transport.perform(request, limits, received, {});
    return fmt::format("{}, {} bytes", received.head->status, received.body.size());
  } catch (const NetworkError& error) {
    std::string text = error.what();
    const auto mark = [&](const std::string& what, const char* name) {
      if (text.find(what) != std::string::npos) text.replace(text.find(what), what.size(), name);
    };
    const std::string end = " (" + request.url.withoutQueryAndFragment().value() + ")";
    EXPECT_THAT(text, EndsWith(end));
    mark(end, "");
    mark(proxy, "PROXY");
    mark(request.url.authority(), "HOST");
    return fmt::format("{}: {}", kinds[static_cast<std::size_t>(error.code())], text);
  }
}

}  // namespace vellicor::testing
