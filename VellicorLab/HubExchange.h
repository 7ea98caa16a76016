#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vellicor {

/// A request as the hub received it.
struct HubRequest {
  /// Position in the log, from 0.
  std::uint64_t number = 0;
  /// Which TCP connection it came on, from 0.
  std::uint64_t connection = 0;
  /// The Host header's name without its port: "localhost" is the hub, "127.0.0.1" the storage host.
  std::string host{};
  std::string method{};
  /// Path and query, as received.
  std::string target{};
  /// The repository file that it is about, "" when none.
  std::string file{};
  /// Absent headers are empty.
  std::string range{};
  std::string authorization{};
  std::string acceptEncoding{};
  /// Whether this is the request that gets the bytes (or the final metadata answer), not a redirect to it.
  bool isFinalHop = false;
};

/// A departure from the normal answer to one request. Fields left empty change nothing; of those that end the
/// body early, at most one is set.
struct HubFault {
  /// Answer with this status and body instead; the usual headers of the case are left out.
  std::optional<int> status{};
  std::string body{};
  /// Set, or with nothing removed, in whatever answer is sent.
  std::vector<std::pair<std::string, std::optional<std::string>>> headers{};
  /// Bytes sent as they are in front of the answer's head.
  std::string preamble{};
  /// Close in good order (TLS close_notify) after this many body bytes, or at the body's end if it is
  /// shorter.
  std::optional<std::uint64_t> closeAfter{};
  /// The same without a close_notify: the stream ends abruptly.
  std::optional<std::uint64_t> dropAfter{};
  /// Reset the TCP connection after this many body bytes; 0 resets before the body, `resetBeforeHead` before
  /// anything.
  std::optional<std::uint64_t> resetAfter{};
  bool resetBeforeHead = false;
  /// Close in good order instead of sending a head; `preamble` is sent.
  bool closeBeforeHead = false;
  /// Send a TLS record whose bits were changed on the way after this many body bytes, then close.
  std::optional<std::uint64_t> corruptAfter{};
  /// Send no more after this many body bytes, keeping the connection open until the hub is stopped.
  std::optional<std::uint64_t> stallAfter{};
  bool stallBeforeHead = false;
  /// Body bytes appended beyond what is announced, an answer to HEAD included.
  std::uint64_t extraBytes = 0;
  /// Flips the lowest bit of the body byte at this position.
  std::optional<std::uint64_t> flipByte{};
  /// Sends the body as chunks, without Content-Length.
  bool chunked = false;
  /// Sends header lines without end, until the client goes.
  bool endlessHeaders = false;
  /// The same within one header line.
  bool endlessHeaderLine = false;
  /// One body byte per this time.
  std::optional<std::chrono::milliseconds> trickle{};
  /// Announces HTTP/1.0 and closes after the body.
  bool http10 = false;
};

}  // namespace vellicor
