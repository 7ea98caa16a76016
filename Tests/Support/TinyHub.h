#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <fmt/format.h>

#include "VellicorLab/LocalHub.h"
#include "VellicorLab/SyntheticCheckpoint.h"
#include "VellicorLab/TemporaryDirectory.h"
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

/// A hub that serves a small checkpoint as "o/n", and the addresses in it.
struct TinyHub {
  explicit TinyHub(const std::function<void(LocalHub::Options&)>& configure = [](LocalHub::Options&) {}) {
    LocalHub::Options options{.repository = checkpoint, .repoID = "o/n", .caFilePath = directory / "ca.pem"};
    checkpoint->setSmallFile("config.json", "0123456789");
    configure(options);
    hub = std::make_unique<LocalHub>(options);
  }

  std::string resolve(const std::string& rest) const { return hub->baseURL() + "/o/n/resolve/" + rest; }
  /// Where the hub sends for a file, asked for on a connection of its own.
  std::string redirected(const std::string& file) const {
    CurlTransport transport(options());
    const Received received = get(transport, resolve("main/" + file));
    return received.head->url.resolving(received.header("location"))->string();
  }
  CurlTransport::Options options() const { return {.caFile = hub->caFile(), .maximumHeaderBytes = 8192}; }
  std::string bytes(const std::string& file, std::uint64_t offset, std::uint64_t count) const {
    const auto read = checkpoint->bytes(file, offset, count);
    return {reinterpret_cast<const char*>(read.data()), read.size()};
  }

  static Received get(CurlTransport& transport, const std::string& url, const std::string& headers = "",
                      const std::string& method = "GET") {
    Received received;
    transport.perform({.url = *RemoteUrl::parse(url), .method = method, .headers = parsedHeaders(headers)},
                      {}, received, {});
    return received;
  }

  TemporaryDirectory directory;
  std::shared_ptr<SyntheticCheckpoint> checkpoint = SyntheticCheckpoint::custom({}, 1);
  std::string shard = checkpoint->shardNames()[0];
  std::unique_ptr<LocalHub> hub;
};

}  // namespace vellicor::testing
