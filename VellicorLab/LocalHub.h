#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VellicorLab/HubExchange.h"
#include "VellicorLab/HubRepository.h"

namespace vellicor {

/// An HTTPS server on the loopback that behaves as the model hub does: small files through a relative
/// redirect on the hub's host, large files through a redirect to the storage host, which refuses
/// authorization. One thread serves; the destructor stops it and closes every connection.
class LocalHub {
 public:
  struct Options {
    std::shared_ptr<const HubRepository> repository{};
    /// Serve this owner/name only; empty serves any.
    std::string repoID{};
    /// 0 takes a free port.
    std::uint16_t port = 0;
    /// Where the certificate that clients must trust is written (PEM).
    std::string caFilePath{};
    /// When set, the hub refuses requests without exactly this bearer token.
    std::optional<std::string> requiredToken{};
    /// Decides about each request; called on the serving thread.
    std::function<std::optional<HubFault>(const HubRequest&)> faults{};
    /// The names in the certificate; both hosts by default.
    std::vector<std::string> certificateNames = {"localhost", "127.0.0.1"};
    /// How many redirects lie between the storage host's first address and the bytes.
    int storageRedirects = 0;
    /// Added before every answer's head.
    std::chrono::milliseconds latency{0};
    /// Pace of every body; 0 sends as fast as the client takes it.
    std::uint64_t bytesPerSecond = 0;
  };

  explicit LocalHub(Options options);
  ~LocalHub();
  LocalHub(const LocalHub&) = delete;
  LocalHub& operator=(const LocalHub&) = delete;

  /// "https://localhost:PORT".
  std::string baseURL() const;
  const std::string& caFile() const;
  std::uint16_t port() const;

  /// The log so far; safe from any thread.
  std::vector<HubRequest> requests() const;
  void clearRequests();
  std::uint64_t connectionCount() const;

  /// Replaces the fault decision; safe from any thread.
  void setFaults(std::function<std::optional<HubFault>(const HubRequest&)> faults);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vellicor
