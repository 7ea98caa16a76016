#include <semaphore>
#include <thread>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Tests/Support/Expect.h"
#include "Tests/Support/TinyHub.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Remote/CurlTransport.h"

namespace vellicor::testing {
namespace {

using namespace std::chrono_literals;
using Code = NetworkError::Code;

using Outcome = std::pair<std::optional<Code>, std::string>;

// "STATUS, N bytes", or what failed, with URL and HOST for the redacted URL and its host.
Outcome outcomeOf(CurlTransport& transport, const std::string& url, const HttpHopLimits& limits = {}) {
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
    mark(request.url.authority(), "HOST");
    return {error.code(), text};
  }
}

TEST(CurlTransportTests, turnsWhatTheServerDoesIntoAnswersAndErrors) {
  const TinyHub tiny;
  const std::string url = tiny.redirected(tiny.shard);
  const std::string interim = "HTTP/1.1 103 Early Hints\r\nlink: x\r\n\r\nHTTP/1.1 103 Early Hints\r\n\r\n";
  const std::string tooLarge = "the head of the answer of HOST is too large (URL)";
  const std::string reset = "the connection to HOST was lost: Connection reset by peer (URL)";
  const std::string silence = "no answer from 127.0.0.1 for 0.2 seconds (URL)", all = "206, 60000 bytes";
  const std::string closed = "HOST closed the connection without an answer (URL)";
  const std::string closedWithin = "HOST closed the connection within its answer's head (URL)";
  const std::vector<std::tuple<std::string, HubFault, Outcome>> rows = {
      {"chunked", {.chunked = true}, {std::nullopt, all}},
      {"interim answers", {.preamble = interim}, {std::nullopt, all}},
      {"HTTP/1.0", {.http10 = true}, {std::nullopt, all}},
      {"more than announced", {.extraBytes = 5}, {std::nullopt, all}},
      {"not found", {.status = 404, .body = "gone"}, {std::nullopt, "404, 4 bytes"}},
      {"closed early", {.closeAfter = 1000}, {std::nullopt, "206, 1000 bytes"}},
      {"closed before the body", {.closeAfter = 0}, {std::nullopt, "206, 0 bytes"}},
      {"dropped early", {.dropAfter = 1000}, {std::nullopt, "206, 1000 bytes"}},
      {"dropped within chunks", {.dropAfter = 1000, .chunked = true}, {std::nullopt, "206, 1000 bytes"}},
      {"reset before the head", {.resetBeforeHead = true}, {Code::connectionLost, reset}},
      {"reset within the body", {.resetAfter = 1000}, {Code::connectionLost, reset}},
      {"stalled before the head", {.stallBeforeHead = true}, {Code::timedOut, silence}},
      {"stalled within the body", {.stallAfter = 1000}, {Code::timedOut, silence}},
      {"closed without an answer", {.closeBeforeHead = true}, {Code::connectionLost, closed}},
      {"closed within the head",
       {.preamble = "HTTP/1.1 200 OK\r\nx: ", .closeBeforeHead = true},
       {Code::connectionLost, closedWithin}},
      {"headers without end", {.endlessHeaders = true}, {Code::other, tooLarge}},
      {"one endless header", {.headers = {{"x", std::string(200000, 'x')}}}, {Code::other, tooLarge}},
      {"not HTTP", {.preamble = "garbage"}, {Code::other, "HOST gave an answer that is not HTTP (URL)"}},
  };
  for (const auto& [name, fault, expected] : rows) {
    SCOPED_TRACE(name);
    tiny.hub->setFaults([answer = fault](const HubRequest&) { return answer; });
    CurlTransport transport(tiny.options());
    const auto idle = expected.second == silence ? 200ms : 60000ms;
    EXPECT_EQ(outcomeOf(transport, url, {.idleTimeout = idle}), expected);
  }
}

TEST(CurlTransportTests, slowAnswersMeetTheDeadlineOnly) {
  const TinyHub tiny;
  const std::string url = tiny.redirected(tiny.shard);
  tiny.hub->setFaults([](const HubRequest&) { return HubFault{.closeAfter = 12, .trickle = 200ms}; });
  CurlTransport transport(tiny.options());
  EXPECT_EQ(outcomeOf(transport, url, {.idleTimeout = 2s}), Outcome(std::nullopt, "206, 12 bytes"));
  EXPECT_EQ(outcomeOf(transport, url, {.deadline = std::chrono::steady_clock::now() + 100ms}),
            Outcome(Code::timedOut, "the exchange with HOST did not end within its time (URL)"));
}

TEST(CurlTransportTests, givesTheHeadAsItIs) {
  const TinyHub tiny;
  const std::string text =
      "HTTP/1.1 200 Fine\r\nA:  b  \r\na: c\r\nFolded: one\r\n\ttwo\r\nE: \r\nContent-Length: 2\r\n\r\nhi";
  tiny.hub->setFaults([&](const HubRequest&) { return HubFault{.preamble = text, .closeBeforeHead = true}; });
  CurlTransport transport(tiny.options());
  const Received received = TinyHub::get(transport, tiny.resolve("main/config.json"));
  EXPECT_EQ(received.head->status, 200);
  EXPECT_EQ(received.head->headers.fields(),
            parsedHeaders("A: b; a: c; Folded: one two; E: ; Content-Length: 2").fields());
  EXPECT_EQ(received.body, "hi");
}

TEST(CurlTransportTests, trustsOnlyTheGivenCertificates) {
  const TinyHub tiny;
  const TinyHub other([](LocalHub::Options& options) { options.certificateNames = {"other.example"}; });
  const std::string none = tiny.directory / "none", notTrusted = "the server's certificate is not trusted: ";
  const std::vector<std::tuple<std::string, std::optional<std::string>, std::string, std::string>> rows = {
      {"system", std::nullopt, tiny.hub->baseURL(), notTrusted + "self-signed certificate: URL"},
      {"another", other.hub->caFile(), tiny.hub->baseURL(), notTrusted + "self-signed certificate: URL"},
      {"another name", other.hub->caFile(), other.hub->baseURL(),
       notTrusted + "no alternative certificate subject name matches target host name 'localhost': URL"},
      {"no file", none, tiny.hub->baseURL(),
       "the certificates to trust could not be read from " + none + " (URL)"},
  };
  for (const auto& [name, caFile, url, expected] : rows) {
    SCOPED_TRACE(name);
    CurlTransport transport({.caFile = caFile});
    EXPECT_EQ(outcomeOf(transport, url + "/x?token=secret"), Outcome(Code::tls, expected));
  }
  EXPECT_TRUE(tiny.hub->requests().empty() && other.hub->requests().empty());
}

// A port of the loopback whose one client gets `answer` for its first bytes and is then reset or closed on.
struct PlainServer {
  explicit PlainServer(const std::optional<std::string>& answer = std::nullopt, bool resets = false)
      : listener(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(
        ::bind(listener, generic, size) | ::listen(listener, 1) | ::getsockname(listener, generic, &size), 0);
    port = ntohs(address.sin_port);
    if (!answer) return;
    thread = std::jthread(
        [descriptor = listener, text = *answer, hard = linger{.l_onoff = resets, .l_linger = 0}] {
          const int client = ::accept(descriptor, nullptr, nullptr);
          char hello[4096];
          EXPECT_GT(::read(client, hello, sizeof(hello)), 0);
          EXPECT_EQ(::write(client, text.data(), text.size()), static_cast<ssize_t>(text.size()));
          EXPECT_EQ(::setsockopt(client, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)), 0);
          ::close(client);
        });
  }
  ~PlainServer() {
    if (thread.joinable()) thread.join();
    ::close(listener);
  }
  std::string url(const std::string& host = "127.0.0.1") const {
    return fmt::format("https://{}:{}/x/y?token=secret", host, port);
  }

  int listener;
  std::uint16_t port = 0;
  std::jthread thread;
};

TEST(CurlTransportTests, namesWhatFailedBeforeTheRequest) {
  CurlTransport transport({});
  const std::string silence = "no answer from 127.0.0.1 for 0.2 seconds (URL)";
  const std::string lost = "the connection to HOST was lost", plain = "HTTP/1.0 200 OK\r\n\r\n";
  const std::string noTls = "no secure connection to HOST could be agreed on: wrong version number (URL)";
  const std::vector<std::tuple<std::string, std::optional<std::string>, bool, Outcome>> rows = {
      {"silence", std::nullopt, false, {Code::timedOut, silence}},
      {"orderly close", "", false, {Code::connectionLost, lost + " (URL)"}},
      {"reset", "", true, {Code::connectionLost, lost + ": Connection reset by peer (URL)"}},
      {"no TLS", plain, false, {Code::tls, noTls}},
  };
  for (const auto& [name, answer, resets, expected] : rows) {
    SCOPED_TRACE(name);
    const PlainServer server(answer, resets);
    EXPECT_EQ(outcomeOf(transport, server.url(), {.idleTimeout = answer ? 60000ms : 200ms}), expected);
  }
  const std::string closed = PlainServer().url("localhost");
  EXPECT_EQ(outcomeOf(transport, closed),
            Outcome(Code::cannotConnect, "could not connect to HOST: Connection refused (URL)"));
  EXPECT_EQ(outcomeOf(transport, "http://localhost/x?token=secret"),
            Outcome(Code::other, "only HTTPS addresses are fetched (URL)"));
}

TEST(CurlTransportTests, waitsOnlyWhileThereIsNoNetwork) {
  // By its name no loopback address, but one that reaches this machine's closed port.
  const std::string away = PlainServer().url("0.0.0.0"), here = PlainServer().url();
  const std::vector<std::tuple<std::string, std::string, bool, bool, Code>> rows = {
      {"no network", away, true, false, Code::offline},
      {"a network", away, true, true, Code::cannotConnect},
      {"waiting not wanted", away, false, false, Code::cannotConnect},
      {"loopback", here, true, false, Code::cannotConnect},
  };
  for (const auto& [name, url, waits, hasNetwork, expected] : rows) {
    SCOPED_TRACE(name);
    CurlTransport transport({.hasNetwork = [result = hasNetwork] { return result; }});
    const HttpHopLimits limits{.deadline = std::chrono::steady_clock::now() + 100ms,
                               .waitsForConnectivity = waits};
    EXPECT_EQ(outcomeOf(transport, url, limits).first, expected);
  }
  // The network comes up during the wait, and with it a hub that is not trusted here.
  std::unique_ptr<TinyHub> hub;
  const auto port = static_cast<std::uint16_t>(std::stoi(RemoteUrl::parse(away)->authority().substr(8)));
  CurlTransport transport({.hasNetwork = [&] {
    hub = std::make_unique<TinyHub>([&](LocalHub::Options& options) { options.port = port; });
    return false;
  }});
  EXPECT_EQ(outcomeOf(transport, away).first, Code::tls);
}

TEST(CurlTransportTests, breaksOffAtOnceAndUsesNoBrokenConnectionAgain) {
  const TinyHub tiny;
  CurlTransport transport(tiny.options());
  const std::string url = tiny.redirected(tiny.shard), content = tiny.bytes(tiny.shard, 0, 60000);
  EXPECT_TRUE(TinyHub::get(transport, url, "Range: bytes=0-59999").body == content);
  const std::vector<std::tuple<std::string, HubFault, std::string>> rows = {
      {"stop while the head is awaited", {.stallBeforeHead = true}, "cancelled"},
      {"stop while the body is awaited", {.stallAfter = 4}, "cancelled"},
      {"refused head", {}, "head refused"},
      {"refused body", {}, "body refused"},
  };
  for (const auto& [name, rowFault, rowError] : rows) {
    SCOPED_TRACE(name);
    const HubFault fault = rowFault;
    const std::string error = rowError;
    std::binary_semaphore reached(0);
    tiny.hub->setFaults([&](const HubRequest&) {
      if (fault.stallBeforeHead) reached.release();
      return fault;
    });
    Received received;
    received.afterHead = [&] {
      if (error == "head refused") throw std::domain_error(error);
    };
    received.afterPiece = [&] {
      if (error == "body refused") throw std::domain_error(error);
      reached.release();
    };
    std::stop_source source;
    std::jthread stopper([&] {
      reached.acquire();
      source.request_stop();
    });
    const HttpRequest request{.url = *RemoteUrl::parse(url), .headers = {}};
    const std::uint64_t connections = tiny.hub->connectionCount();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(errorText([&] { transport.perform(request, {}, received, source.get_token()); }), error);
    if (error != "cancelled") reached.release();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    tiny.hub->setFaults(nullptr);
    EXPECT_TRUE(TinyHub::get(transport, url, "Range: bytes=0-59999").body == content);
    EXPECT_EQ(tiny.hub->connectionCount(), connections + 1);
  }
}

}  // namespace
}  // namespace vellicor::testing
