#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "VellicorLab/LocalHub.h"
#include "VellicorRepackCore/Remote/RemoteDownloadSession.h"

namespace vellicor {

/// One hop of one request of an install: where a fault meets it.
struct WirePlace {
  std::string phase{};
  std::string method{};
  std::string file{};
  std::string range{};
  /// "localhost" is the hub, "127.0.0.1" the storage host.
  std::string host{};
  /// The path's first piece, which tells two hops on one host apart.
  std::string firstPiece{};
  /// From 1, of so many.
  int hop = 1;
  int hops = 1;
  /// The install's first request, which finds no kept connection.
  bool isFirst = false;
  /// Whether there is a saved download by then.
  bool isSaved = false;

  bool isMetadata() const { return method == "HEAD"; }
  bool isAnswer() const { return hop == hops; }
  /// Whether the request, on whichever hop, is this place's.
  bool isOperation(const HubRequest& request) const;
  bool isMetBy(const HubRequest& request) const;
};

std::string firstPieceOf(const HubRequest& request);

/// How an attempt that meets a fault must end.
enum class WireOutcome { triedAgain, refused, harmless, undetected, leftOut };

struct WireExpectation {
  WireOutcome outcome = WireOutcome::harmless;
  /// The error's text, where {server}, {host} and {file} stand for the place's own, {closed} for the closed
  /// port and a * for anything.
  std::string text{};
  /// The same where no further attempt would be made anyway.
  std::string lastText{};
  /// Refused only by what is made of the answer later on: the request itself runs to its end.
  bool isLater = false;
  /// Requests that the fault itself brings about.
  int moreRequests = 0;
};

/// Places that a fault may point to.
struct WireSite {
  std::uint16_t port = 0;
  /// A port of the loopback where nobody listens.
  std::uint16_t closedPort = 0;
};

struct WireFault {
  std::string name;
  std::function<HubFault(const HubRequest&, const WireSite&)> make;
  std::function<WireExpectation(const WirePlace&)> expected;
  RemoteDownloadSessionPolicy policy{};
  /// Costs seconds.
  bool isSlow = false;
  /// Sends without end, or close to it.
  bool isEndless = false;
  /// The transport itself sends a request again that met it on a kept connection.
  bool isResent = false;
  /// So does the transport, once, where what is left of the fault meets the connection's next request.
  bool mayBeMetLater = false;
  /// Meets one request only, however many an attempt makes.
  bool isOnce = false;
  /// The wait that the server asks for before each retry.
  std::chrono::seconds pause{0};
};

/// A host that the hub's certificate also names, and one that it does not.
inline constexpr const char* thirdHost = "third.localhost";
inline constexpr const char* unnamedHost = "unnamed.localhost";

/// Every fault there is.
std::vector<WireFault> allWireFaults();

}  // namespace vellicor
