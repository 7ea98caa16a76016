#include "Tests/FaultInjection/WireFaultTable.h"

#include <utility>

#include <fmt/format.h>

namespace vellicor {

namespace {

using namespace std::chrono_literals;

using Make = std::function<HubFault(const HubRequest&, const WireSite&)>;
using Rule = std::function<WireExpectation(const WirePlace&)>;

const std::string invalid = "remote protocol invalid: ";

WireExpectation again(std::string text) {
  return {.outcome = WireOutcome::triedAgain, .text = std::move(text)};
}
WireExpectation refused(std::string text) {
  return {.outcome = WireOutcome::refused, .text = std::move(text)};
}
WireExpectation later(std::string text) {
  return {.outcome = WireOutcome::refused, .text = std::move(text), .isLater = true};
}
const WireExpectation harmless{.outcome = WireOutcome::harmless};
const WireExpectation leftOut{.outcome = WireOutcome::leftOut};

Make always(HubFault fault) {
  return [fault = std::move(fault)](const HubRequest&, const WireSite&) { return fault; };
}

Make header(const char* name, std::optional<std::string> value) {
  return always({.headers = {{name, std::move(value)}}});
}

Make statusWith(int status, const char* retryAfter = nullptr) {
  HubFault fault{.status = status, .body = "<html>not today</html>"};
  if (retryAfter != nullptr) fault.headers = {{"retry-after", retryAfter}};
  return always(std::move(fault));
}

/// A redirect to an address made of {host}, {port}, {closed} and {target}.
Make redirectTo(std::string address) {
  return [address = std::move(address)](const HubRequest& request, const WireSite& site) {
    std::string location =
        fmt::format(fmt::runtime(address), fmt::arg("host", request.host), fmt::arg("port", site.port),
                    fmt::arg("closed", site.closedPort), fmt::arg("target", request.target),
                    fmt::arg("third", thirdHost), fmt::arg("unnamed", unnamedHost));
    return HubFault{.status = 302, .headers = {{"location", std::move(location)}}};
  };
}

Rule everywhere(const WireExpectation& expectation) {
  return [=](const WirePlace&) { return expectation; };
}

/// By what is asked for, metadata or bytes, and whether the answer sends the client on or is the last.
Rule byKind(const WireExpectation& metadataOnTheWay, const WireExpectation& metadata,
            const WireExpectation& bytesOnTheWay, const WireExpectation& bytes) {
  return [=](const WirePlace& place) {
    if (place.isMetadata()) return place.isAnswer() ? metadata : metadataOnTheWay;
    return place.isAnswer() ? bytes : bytesOnTheWay;
  };
}

/// Faults of a body; metadata answers have none.
Rule inBodies(const WireExpectation& onTheWay, const WireExpectation& bytes) {
  return byKind(leftOut, leftOut, onTheWay, bytes);
}

/// Faults that only the last answer, the one with bytes, can show.
Rule inBytes(const WireExpectation& bytes) { return byKind(harmless, harmless, harmless, bytes); }

/// A redirect that metadata does not follow: it is the answer then, and lacks what metadata needs.
WireExpectation missing(const WirePlace& place) {
  const bool isPinned = place.phase != "index metadata";
  return refused(invalid +
                 (isPinned ? "missing remote size for {file}" : "missing full X-Repo-Commit for {file}"));
}

Rule unfollowed(const WireExpectation& bytes) {
  return [=](const WirePlace& place) { return place.isMetadata() ? missing(place) : bytes; };
}

/// Six requests are made before the sixth redirect is too many.
WireExpectation ofLoop(const WirePlace& place) {
  WireExpectation expectation =
      place.isMetadata() ? missing(place)
                         : refused("remote redirect rejected for https://{server}/*: more than 5 redirects");
  expectation.moreRequests = 6 - place.hop;
  return expectation;
}

WireExpectation ofAnotherCommit(const WirePlace& place) {
  if (!place.isMetadata() || !place.isAnswer()) return harmless;
  if (place.phase == "config metadata") return later(invalid + "config commit differs from index commit");
  if (place.phase == "shard metadata")
    return later(invalid + "shard {file} commit differs from index commit");
  // Everything else is then asked for at that commit, which the hub does not know.
  return later("remote HTTP 404: *");
}

WireExpectation ofAnotherSize(const WirePlace& place) {
  if (!place.isMetadata() || !place.isAnswer()) return harmless;
  const bool isShard = place.phase == "shard metadata";
  return later(invalid + (isShard ? "wrong Content-Range *" : "wrong Content-Length for {file}"));
}

WireExpectation ofChunks(const WirePlace& place) {
  if (!place.isAnswer() || place.phase == "shard metadata") return harmless;
  return refused(invalid +
                 (place.isMetadata() ? "missing remote size for {file}" : "wrong Content-Length for {file}"));
}

/// Only what the storage host keeps is known by its content.
WireExpectation ofAnotherContent(const WirePlace& place) {
  const bool isStored = !place.isMetadata() && place.isAnswer() && place.host == "127.0.0.1";
  return isStored ? refused(invalid + "final ranged validator differs for {file}") : harmless;
}

/// The sidecar's hundreds of kilobytes would take minutes.
WireExpectation ofTrickle(const WirePlace& place) {
  const bool isLong = place.phase == "sidecar" && place.isAnswer();
  return place.isMetadata() || isLong ? leftOut : harmless;
}

/// TLS lets nobody on the way flip one. What the hub itself sends is believed where nothing contradicts it:
/// the index, the configuration and the headers no longer parse, payload and sidecars are bytes like any.
WireExpectation ofFlippedByte(const WirePlace& place) {
  if (place.isMetadata()) return leftOut;
  if (!place.isAnswer()) return harmless;
  if (place.phase == "payload" || place.phase == "sidecar") return {.outcome = WireOutcome::undetected};
  return later("*");
}

class Table {
 public:
  /// The row, for what else there is to say of it; valid until the next.
  WireFault& add(std::string name, Make make, Rule expected) {
    return rows_.emplace_back(
        WireFault{.name = std::move(name), .make = std::move(make), .expected = std::move(expected)});
  }
  std::vector<WireFault> rows() && { return std::move(rows_); }

 private:
  std::vector<WireFault> rows_;
};

void addConnectionFaults(Table& table) {
  const WireExpectation lost = again("the connection to {server} was lost*");
  const WireExpectation reset = again("the connection to {server} was lost: Connection reset by peer (*");
  const Rule noAnswer = everywhere(again("{server} closed the connection without an answer (*"));
  const Rule noHead = everywhere(again("{server} closed the connection within its answer's head (*"));
  const Rule nobody = everywhere(again("could not connect to {host}:{closed}: Connection refused (*"));
  const std::string truncated = "remote body for {file} was truncated: expected *, received ";
  const HubFault halfHead{.preamble = "HTTP/1.1 206 Partial Content\r\nx: ", .closeBeforeHead = true};
  table.add("reset before the head", always({.resetBeforeHead = true}), everywhere(reset)).isResent = true;
  table.add("closed before the head", always({.closeBeforeHead = true}), noAnswer).isResent = true;
  table.add("closed in the head", always(halfHead), noHead);
  for (const std::uint64_t after : {0U, 3U}) {
    const Rule cut = inBodies(harmless, again(truncated + std::to_string(after)));
    const auto named = [&](const char* how) { return fmt::format("{} after {} bytes", how, after); };
    table.add(named("reset"), always({.resetAfter = after}), inBodies(reset, reset));
    table.add(named("closed"), always({.closeAfter = after}), cut);
    table.add(named("dropped"), always({.dropAfter = after}), cut);
    table.add(named("bits changed on the way"), always({.corruptAfter = after}), inBodies(lost, lost));
  }
  table.add("nobody at a redirect's port", redirectTo("https://{host}:{closed}{target}"), nobody);
}

void addSlowness(Table& table) {
  constexpr RemoteDownloadSessionPolicy impatient{.requestTimeoutSeconds = 1.0};
  constexpr RemoteDownloadSessionPolicy brief{.requestTimeoutSeconds = 1.0, .resourceTimeoutSeconds = 1.5};
  const WireExpectation silence = again("no answer from {server} for 1 seconds (*");
  const WireExpectation tooLong = again("the exchange with {server} did not end within its time (*");
  const auto add = [&](const char* name, HubFault fault, Rule rule,
                       const RemoteDownloadSessionPolicy& policy) {
    WireFault& row = table.add(name, always(std::move(fault)), std::move(rule));
    row.policy = policy;
    row.isSlow = true;
  };
  add("a stall before the head", {.stallBeforeHead = true}, everywhere(silence), impatient);
  add("a stall in the body", {.stallAfter = 3}, inBodies(silence, silence), impatient);
  add("a trickle slower than the idle time", {.trickle = 10s}, inBodies(silence, silence), impatient);
  add("a trickle longer than the whole time", {.trickle = 400ms}, inBodies(tooLong, tooLong), brief);
  add("a trickle within the times", {.trickle = 1ms}, ofTrickle, impatient);
}

void addHeads(Table& table) {
  std::string interim;
  for (int i = 0; i < 10000; ++i) interim += "HTTP/1.1 103 Early Hints\r\nlink: </x>; rel=preload\r\n\r\n";
  const std::string fewer = interim.substr(0, interim.size() / 1000);
  const Rule tooLarge = everywhere(refused("the head of the answer of {server} is too large (*"));
  const Rule noHttp = everywhere(refused("{server} gave an answer that is not HTTP (*"));
  table.add("header lines without end", always({.endlessHeaders = true}), tooLarge).isEndless = true;
  table.add("a header line without end", always({.endlessHeaderLine = true}), tooLarge).isEndless = true;
  table.add("interim answers without end", always({.preamble = interim}), tooLarge).isEndless = true;
  table.add("interim answers", always({.preamble = fewer}), everywhere(harmless));
  table.add("no status line", always({.preamble = "garbage\r\n"}), noHttp).isResent = true;
  table.add("HTTP/1.0", always({.http10 = true}), everywhere(harmless));
}

void addRedirects(Table& table) {
  const std::string rejected = "remote redirect rejected for ",
                    onlyHttps = ": only HTTPS redirects are allowed";
  const Rule notHttps = unfollowed(refused(rejected + "http://{server}/*" + onlyHttps));
  const Rule noUrl = unfollowed(refused(rejected + "<unknown>" + onlyHttps));
  const Rule noTrust = unfollowed(refused("the certificate of unnamed.localhost:*"));
  const Rule noLocation = unfollowed(refused("remote HTTP 302: https://{server}/*"));
  const Rule wrongLength = inBodies(harmless, refused(invalid + "wrong Content-Length for {file}"));
  const HubFault vast{.headers = {{"content-length", "100000000"}}, .extraBytes = 100000000};
  WireExpectation back = harmless;
  back.moreRequests = 1;
  table.add("a redirect to itself", redirectTo("https://{host}:{port}{target}"), ofLoop);
  table.add("a redirect to http", redirectTo("http://{host}:{port}{target}"), notHttps);
  table.add("a redirect to nowhere", redirectTo("https://"), noUrl);
  table.add("a redirect without Location", statusWith(302), noLocation);
  table.add("a host of another certificate", redirectTo("https://{unnamed}:{port}{target}"), noTrust);
  table.add("a third host and back", redirectTo("https://{third}:{port}{target}"), unfollowed(back)).isOnce =
      true;
  table.add("a redirect with a vast body", always(vast), wrongLength).isEndless = true;
}

void addContents(Table& table) {
  const Make otherSize = [](const HubRequest& request, const WireSite&) {
    const std::string range = request.range.substr(request.range.find('=') + 1);
    return HubFault{.headers = {{"content-range", fmt::format("bytes {}/1", range)}}};
  };
  const auto wrong = [](const char* detail) { return inBytes(refused(invalid + detail)); };
  const WireExpectation otherFile = later(invalid + "final ranged validator differs for {file}");
  const Rule otherHash = byKind(harmless, otherFile, harmless, harmless);
  const WireExpectation whole = refused("remote HTTP 200: https://{server}/*");
  table.add("another commit", header("x-repo-commit", std::string(40, 'f')), ofAnotherCommit);
  table.add("another size in the metadata", header("x-linked-size", "1000000"), ofAnotherSize);
  table.add("another content in the metadata", header("x-xet-hash", std::string(64, '0')), otherHash);
  table.add("another size in the answer", otherSize, wrong("wrong Content-Range bytes *"));
  table.add("another content in the answer", header("etag", "\"0123\""), ofAnotherContent);
  table.add("another range", header("content-range", "bytes 0-9/99"),
            wrong("wrong Content-Range bytes 0-9/99"));
  table.add("no Content-Range", header("content-range", std::nullopt),
            wrong("missing Content-Range for {file}"));
  table.add("a Content-Range in pages", header("content-range", "0-9"), wrong("malformed Content-Range 0-9"));
  table.add("compressed", header("content-encoding", "gzip"), wrong("compressed range response for {file}"));
  table.add("chunked", always({.chunked = true}), ofChunks);
  table.add("a body longer than announced", always({.extraBytes = 5}), everywhere(harmless)).mayBeMetLater =
      true;
  table.add("a byte flipped before it was sent", always({.flipByte = 0}), ofFlippedByte);
  table.add("200 to a range", statusWith(200), inBodies(whole, whole));
}

void addStatuses(Table& table) {
  const auto text = [](int status) { return fmt::format("remote HTTP {}: https://{{server}}/*", status); };
  const auto add = [&](int status, const WireExpectation& expectation) {
    table.add(fmt::format("status {}", status), statusWith(status), everywhere(expectation));
  };
  for (const int status : {400, 401, 403, 404, 410, 416, 501, 505}) add(status, refused(text(status)));
  for (const int status : {408, 429, 500, 502, 503, 504}) add(status, again(text(status)));

  const Rule heeded = everywhere(again(text(429)));
  const auto unheeded = [&](const std::string& refusal) {
    WireExpectation expectation = refused(refusal);
    expectation.lastText = text(429);
    return everywhere(expectation);
  };
  const auto addWait = [&](const char* value, Rule rule) -> WireFault& {
    return table.add(fmt::format("Retry-After: {}", value), statusWith(429, value), std::move(rule));
  };
  addWait("0", heeded);
  addWait("Sun, 06 Nov 1994 08:49:37 GMT", heeded);
  addWait("soon", unheeded(invalid + "invalid Retry-After soon"));
  addWait("7200", unheeded("remote Retry-After 7200 exceeds 3600-second cap"));
  WireFault& second = addWait("1", heeded);
  second.pause = 1s;
  second.isSlow = true;
}

}  // namespace

std::string firstPieceOf(const HubRequest& request) {
  return request.target.substr(0, request.target.find('/', 1));
}

bool WirePlace::isOperation(const HubRequest& request) const {
  return request.method == method && request.file == file && request.range == range;
}

bool WirePlace::isMetBy(const HubRequest& request) const {
  return isOperation(request) && request.host == host && firstPieceOf(request) == firstPiece;
}

std::vector<WireFault> allWireFaults() {
  Table table;
  for (const auto add :
       {addConnectionFaults, addSlowness, addHeads, addRedirects, addContents, addStatuses}) {
    add(table);
  }
  return std::move(table).rows();
}

}  // namespace vellicor
