#pragma once

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Tests/Support/TemporaryDirectory.h"
#include "VellicorLab/LocalHub.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Remote/CurlTransport.h"

namespace vellicor::testing {

using Headers = std::vector<std::pair<std::string, std::string>>;

inline const std::string tinyCommit(40, 'c'), tinyTag(40, 'a'), tinySha(64, 'd'), tinyHash(64, 'b');

/// One small file, "config.json", and one large one, "model/shard".
class TinyRepository final : public HubRepository {
 public:
  static std::string content(const std::string& name) {
    std::string bytes(name == "config.json" ? 10 : 300000, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 31 + i / 256);
    return bytes;
  }
  std::string commit() const override { return tinyCommit; }
  std::shared_ptr<const HubFile> file(const std::string& name) const override {
    if (name != "config.json" && name != "model/shard") return nullptr;
    return std::make_shared<File>(content(name));
  }

 private:
  struct File final : HubFile {
    explicit File(std::string text) : bytes(std::move(text)) {}
    bool isSmall() const { return bytes.size() < 100; }
    std::uint64_t size() const override { return bytes.size(); }
    void read(std::uint64_t offset, std::span<std::byte> out) const override {
      std::memcpy(out.data(), bytes.data() + offset, out.size());
    }
    std::string contentTag() const override { return isSmall() ? tinyTag : tinySha; }
    std::optional<std::string> xetHash() const override {
      return isSmall() ? std::nullopt : std::optional(tinyHash);
    }
    std::string bytes;
  };
};

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

/// A hub that serves the tiny repository as "o/n", and the addresses in it.
struct TinyHub {
  explicit TinyHub(const std::function<void(LocalHub::Options&)>& configure = [](LocalHub::Options&) {}) {
    LocalHub::Options options;
    options.repository = std::make_shared<TinyRepository>();
    options.repoID = "o/n";
    options.caFilePath = directory / "ca.pem";
    configure(options);
    hub = std::make_unique<LocalHub>(options);
  }

  std::string hubAuthority() const { return fmt::format("localhost:{}", hub->port()); }
  std::string storageAuthority() const { return fmt::format("127.0.0.1:{}", hub->port()); }
  std::string resolve(const std::string& rest) const { return hub->baseURL() + "/o/n/resolve/" + rest; }
  std::string cached() const {
    return fmt::format(
        "{}/api/resolve-cache/models/o/n/{}/"
        "config.json?%2Fo%2Fn%2Fresolve%2Fmain%2Fconfig.json=&etag=%22{}%22",
        hub->baseURL(), tinyCommit, tinyTag);
  }
  /// Where the hub sends for the large file, asked for on a connection of its own.
  std::string storage() const {
    CurlTransport transport(options());
    return perform(transport, resolve("main/model/shard")).header("location");
  }

  CurlTransport::Options options() const {
    return {.caFile = hub->caFile(), .maximumHeaderBytes = 8192, .hasNetwork = nullptr};
  }

  static void perform(CurlTransport& transport, const std::string& url, Received& received,
                      const Headers& headers = {}, const std::string& method = "GET",
                      std::chrono::duration<double> idle = std::chrono::seconds(60),
                      const std::stop_token& stop = {}) {
    HttpRequest request{.url = RemoteUrl::parse(url).value(), .method = method, .headers = {}};
    for (const auto& [name, value] : headers) request.headers.set(name, value);
    transport.perform(request, {.idleTimeout = idle}, received, stop);
  }
  static Received perform(CurlTransport& transport, const std::string& url, const Headers& headers = {},
                          const std::string& method = "GET") {
    Received received;
    perform(transport, url, received, headers, method);
    return received;
  }

  TemporaryDirectory directory;
  std::unique_ptr<LocalHub> hub;
};

}  // namespace vellicor::testing
