#include <semaphore>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "Tests/Remote/HopOutcome.h"
#include "Tests/Remote/PlainServer.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/JoiningThread.h"
#include "VellicorRepackCore/Remote/RemoteDownloadSession.h"

namespace vellicor::testing {
namespace {

using namespace std::chrono_literals;

TEST(CurlTransportTests, turnsWhatTheServerDoesIntoAnswersAndErrors) {
  const TinyHub tiny;
  const std::string url = tiny.redirected(tiny.shard), many(200000, 'x');
  const std::string interim = "HTTP/1.1 103 Early Hints\r\nlink: x\r\n\r\nHTTP/1.1 103 Early Hints\r\n\r\n";
  const std::string tooLarge = "the head of the answer of HOST is too large (URL)";
  const std::string reset = "the connection to HOST was lost: Connection reset by peer (URL)";
  const std::string silence = "no answer from HOST for 0.2 seconds (URL)";
  const std::string closed = "HOST closed the connection without an answer (URL)";
  const std::string closedWithin = "HOST closed the connection within its answer's head (URL)";
  const std::vector<std::tuple<std::string, HubFault, Outcome>> rows = {
      {"interim answers", {.preamble = interim}, {std::nullopt, "206, 60000 bytes"}},
      {"dropped early", {.dropAfter = 1000}, {std::nullopt, "206, 1000 bytes"}},
      {"reset before the head", {.resetBeforeHead = true}, {Code::connectionLost, reset}},
      {"reset within the body", {.resetAfter = 1000}, {Code::connectionLost, reset}},
      {"stalled within the body", {.stallAfter = 1000}, {Code::timedOut, silence}},
      {"closed without an answer", {.closeBeforeHead = true}, {Code::connectionLost, closed}},
      {"closed within the head",
       {.preamble = "HTTP/1.1 200 OK\r\nx: ", .closeBeforeHead = true},
       {Code::connectionLost, closedWithin}},
      {"headers without end", {.endlessHeaders = true}, {Code::other, tooLarge}},
      {"one endless header", {.headers = {{"x", many}}}, {Code::other, tooLarge}},
      {"an endless status line", {.preamble = "HTTP/1.1 200 " + many}, {Code::other, tooLarge}},
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

TEST(CurlTransportTests, sendsTheRequestAsItIsAndOnceMoreAfterALeftover) {
  const TinyHub tiny;
  CurlTransport transport(tiny.options());
  const std::string path = "/o/n/resolve/../main/./config.json?x=%2F";
  tiny.hub->setFaults([](const HubRequest& request) {
    return request.number == 0 ? HubFault{.extraBytes = 5} : HubFault{.status = 404, .body = "gone"};
  });
  TinyHub::get(transport, tiny.hub->baseURL() + path, "Authorization: a", "HEAD");
  EXPECT_EQ(TinyHub::get(transport, tiny.hub->baseURL() + path, "Range: bytes=1-").body, "gone");
  const auto requests = tiny.hub->requests();
  ASSERT_GE(requests.size(), 2u);
  EXPECT_EQ(requests[0].method + requests[0].target + requests[0].authorization, "HEAD" + path + "a");
  EXPECT_EQ(requests.back().method + requests.back().target + requests.back().range,
            "GET" + path + "bytes=1-");
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
  const std::string none = tiny.directory / "none", notTrusted = "the certificate of HOST is not trusted: ";
  const std::vector<std::tuple<std::string, std::optional<std::string>, std::string, std::string>> rows = {
      {"system", std::nullopt, tiny.hub->baseURL(), notTrusted + "self-signed certificate (URL)"},
      {"another", other.hub->caFile(), tiny.hub->baseURL(), notTrusted + "self-signed certificate (URL)"},
      {"another name", other.hub->caFile(), other.hub->baseURL(),
       notTrusted + "it is made out to another name (URL)"},
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

std::string plainUrl(const PlainServer& server, const std::string& host = "127.0.0.1") {
  return "https://" + server.authority(host) + "/x/y?token=secret";
}

TEST(CurlTransportTests, namesWhatFailedBeforeTheRequest) {
  CurlTransport transport({});
  const auto answers = [](const std::string& text, bool resets = false) {
    return [=](int client, const std::string&) {
      if (!text.empty()) PlainServer::send(client, text);
      if (resets) PlainServer::resetAtClose(client);
    };
  };
  const std::string lost = "the connection to HOST was lost", alert("\x15\x03\x03\x00\x02\x02\x28", 7);
  const std::string noTls = "no secure connection to HOST could be agreed on: ";
  const std::vector<std::tuple<std::string, PlainServer::Serve, Outcome>> rows = {
      {"silence", nullptr, {Code::timedOut, "no answer from HOST for 0.2 seconds (URL)"}},
      {"orderly close", answers(""), {Code::connectionLost, lost + " (URL)"}},
      {"close within a record", answers(alert.substr(0, 4)), {Code::connectionLost, lost + " (URL)"}},
      {"reset", answers("", true), {Code::connectionLost, lost + ": Connection reset by peer (URL)"}},
      {"reset again", answers("", true), {Code::connectionLost, lost + ": Connection reset by peer (URL)"}},
      {"no TLS", answers("HTTP/1.0 200 OK\r\n\r\n"), {Code::tls, noTls + "wrong version number (URL)"}},
      {"refusal", answers(alert), {Code::tls, noTls + "alert \"handshake failure\" (URL)"}},
  };
  for (const auto& [name, serve, expected] : rows) {
    SCOPED_TRACE(name);
    const PlainServer server(serve);
    EXPECT_EQ(outcomeOf(transport, plainUrl(server), {.idleTimeout = serve ? 60000ms : 200ms}), expected);
  }
  const std::string closed = plainUrl(PlainServer(), "localhost");
  EXPECT_EQ(outcomeOf(transport, closed),
            Outcome(Code::cannotConnect, "could not connect to HOST: Connection refused (URL)"));
  EXPECT_EQ(outcomeOf(transport, "http://localhost/x?token=secret"),
            Outcome(Code::other, "only HTTPS addresses are fetched (URL)"));
}

TEST(CurlTransportTests, tellsAShortageOfThisSide) {
  const PlainServer server;
  // The sanitizers need descriptors of their own when they meet a type for the first time.
  CurlTransport transport({});
  outcomeOf(transport, "http://localhost/");
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const Outcome outcome = outcomeOf(transport, plainUrl(server));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(outcome, Outcome(Code::resourceUnavailable,
                             "could not open a connection to HOST: Too many open files (URL)"));
}

TEST(CurlTransportTests, refusesASecondThreadAndServesTheFirst) {
  const TinyHub tiny;
  RemoteDownloadSession session({.maximumConnectionsPerHost = 2},
                                std::make_shared<CurlTransport>(tiny.options()));
  const HttpRequest metadata{
      .url = *RemoteUrl::parse(tiny.resolve("main/config.json")), .method = "HEAD", .headers = {}};
  const HttpRequest range{.url = *RemoteUrl::parse(tiny.resolve("main/" + tiny.shard)),
                          .headers = parsedHeaders("Range: bytes=0-59999; Accept-Encoding: identity")};
  std::string second;
  const auto onProgress = [&](std::uint64_t) {
    std::thread([&] { second = errorText([&] { session.response(metadata, {}); }); }).join();
  };
  const std::string target = tiny.directory / "target";
  const RemoteRangeExpectation expected{"f", 0, 60000, tiny.checkpoint->file(tiny.shard)->size(),
                                        std::nullopt};
  EXPECT_EQ(errorText([&] { session.transfer(range, target, expected, onProgress, {}); }), "no error");
  EXPECT_EQ(second, "a transport performs one hop at a time, for one thread");
  EXPECT_TRUE(readFile(target) == tiny.bytes(tiny.shard, 0, 60000));
}

TEST(CurlTransportTests, waitsOnlyWhileThereIsNoNetwork) {
  // By its name no loopback address, but one that reaches this machine's closed port.
  const std::string away = plainUrl(PlainServer(), "0.0.0.0"), here = plainUrl(PlainServer());
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
    CancellationSource source;
    JoiningThread stopper([&] {
      reached.acquire();
      source.cancel();
    });
    const HttpRequest request{.url = *RemoteUrl::parse(url), .headers = {}};
    const std::uint64_t connections = tiny.hub->connectionCount();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(errorText([&] { transport.perform(request, {}, received, source.token()); }), error);
    if (error != "cancelled") reached.release();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    tiny.hub->setFaults(nullptr);
    EXPECT_TRUE(TinyHub::get(transport, url, "Range: bytes=0-59999").body == content);
    EXPECT_EQ(tiny.hub->connectionCount(), connections + 1);
  }
}

}  // namespace
}  // namespace vellicor::testing
