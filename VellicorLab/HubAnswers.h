#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "VellicorLab/HubExchange.h"
#include "VellicorLab/HubRepository.h"

namespace vellicor {

/// The properties of the hub that its answers depend on.
struct HubSite {
  std::shared_ptr<const HubRepository> repository;
  /// The one owner/name that exists; empty for any.
  std::string repoID;
  std::uint16_t port = 0;
  std::optional<std::string> requiredToken;
  int storageRedirects = 0;
};

/// An answer's body, read piece by piece.
struct HubBody {
  std::uint64_t size = 0;
  /// Fills the span from that position of the body on.
  std::function<void(std::uint64_t, std::span<std::byte>)> read;

  static HubBody text(std::string content);
  static HubBody slice(std::shared_ptr<const HubFile> file, std::uint64_t first, std::uint64_t count);
};

struct HubAnswer {
  int status = 200;
  /// In the order sent.
  std::vector<std::pair<std::string, std::string>> headers;
  HubBody body;
  /// Sent in chunks, without Content-Length.
  bool chunked = false;
  /// See `HubRequest`, whose two members of these names are taken from here.
  std::string file{};
  bool isFinalHop = true;
};

/// The answer that the hub or its storage host gives, faults apart. HEAD gets the same answer as GET would,
/// less ranges; leaving out the body is the sender's business.
HubAnswer normalAnswer(const HubSite& site, const HubRequest& request);

/// `content` in the gzip format, stored rather than compressed.
std::string storedGzip(std::string_view content);

}  // namespace vellicor
