#include <semaphore>
#include <thread>

#include <sys/resource.h>
#include <unistd.h>

#include "Tests/Remote/PlainServer.h"
#include "Tests/Support/HubClient.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/JoiningThread.h"
#include "VellicorRepackCore/Remote/RemoteDownloadSession.h"

namespace vellicor::testing {
namespace {

using namespace std::chrono_literals;

TEST(CurlTransport, SendsTheRequestAsItIsAndOnceMoreAfterALeftover) {
  const HubClient client;
  CurlTransport transport(client.clientOptions());
  const std::string path = "/lab-owner/lab-model/resolve/../main/./config.json?x=%2F";
  client.hub->setFaults([](const HubRequest& request) {
    return request.number == 0 ? HubFault{.extraBytes = 5} : HubFault{.status = 404, .body = "gone"};
  });
  get(transport, client.hub->baseURL() + path, "Authorization: a", "HEAD");
  EXPECT_EQ(get(transport, client.hub->baseURL() + path, "Range: bytes=1-").body, "gone");
  const auto requests = client.hub->requests();
  ASSERT_GE(requests.size(), 2u);
  EXPECT_EQ(requests[0].method + requests[0].target + requests[0].authorization, "HEAD" + path + "a");
  EXPECT_EQ(requests.back().method + requests.back().target + requests.back().range,
            "GET" + path + "bytes=1-");
}

TEST(CurlTransport, SlowAnswersMeetTheDeadlineOnly) {
  const HubClient client;
  const std::string url = client.redirected(client.shard);
  client.hub->setFaults([](const HubRequest&) { return HubFault{.closeAfter = 12, .trickle = 200ms}; });
  CurlTransport transport(client.clientOptions());
  EXPECT_EQ(outcomeOf(transport, url, {.idleTimeout = 2s}), "206, 12 bytes");
  EXPECT_EQ(outcomeOf(transport, url, {.deadline = std::chrono::steady_clock::now() + 100ms}),
            "timedOut: the exchange with HOST did not end within its time");
}

TEST(CurlTransport, GivesTheHeadAsItIs) {
  const HubClient client;
  const std::string text =
      "HTTP/1.1 200 Fine\r\nA:  b  \r\na: c\r\nFolded: one\r\n\ttwo\r\nE: \r\nContent-Length: 2\r\n\r\nhi";
  client.hub->setFaults(
      [&](const HubRequest&) { return HubFault{.preamble = text, .closeBeforeHead = true}; });
  CurlTransport transport(client.clientOptions());
  const Received received = get(transport, client.resolve("main/config.json"));
  EXPECT_EQ(received.head->status, 200);
  EXPECT_EQ(received.head->headers.fields(),
            parsedHeaders("A: b; a: c; Folded: one two; E: ; Content-Length: 2").fields());
  EXPECT_EQ(received.body, "hi");

  client.hub->setFaults(
      [](const HubRequest&) { return HubFault{.preamble = "HTTP/1.1 200 " + std::string(200000, 'x')}; });
  EXPECT_EQ(outcomeOf(transport, client.resolve("main/config.json")),
            "other: the head of the answer of HOST is too large");
}

TEST(CurlTransport, TrustsOnlyTheGivenCertificates) {
  const HubClient client;
  const HubClient other([](LocalHub::Options& options) { options.certificateNames = {"other.example"}; });
  const std::string none = client.directory / "none", notTrusted = "the certificate of HOST is not trusted: ";
  const std::vector<std::tuple<std::string, std::optional<std::string>, std::string, std::string>> rows = {
      {"system", std::nullopt, client.hub->baseURL(), notTrusted + "self-signed certificate"},
      {"another", other.hub->caFile(), client.hub->baseURL(), notTrusted + "self-signed certificate"},
      {"another name", other.hub->caFile(), other.hub->baseURL(),
       notTrusted + "it is made out to another name"},
      {"no file", none, client.hub->baseURL(), "the certificates to trust could not be read from " + none},
  };
  for (const auto& [name, caFile, url, expected] : rows) {
    SCOPED_TRACE(name);
    CurlTransport transport({.caFile = caFile});
    EXPECT_EQ(outcomeOf(transport, url + "/x?token=secret"), "tls: " + expected);
  }
  EXPECT_TRUE(client.hub->requests().empty() && other.hub->requests().empty());
}

std::string plainUrl(const PlainServer& server, const std::string& host = "127.0.0.1") {
  return "https://" + server.authority(host) + "/x/y?token=secret";
}

TEST(CurlTransport, NamesWhatFailedBeforeTheRequest) {
  CurlTransport transport({});
  const auto answers = [](const std::string& text, bool resets = false) {
    return [=](int client, const std::string&) {
      if (!text.empty()) PlainServer::send(client, text);
      if (resets) PlainServer::resetAtClose(client);
    };
  };
  const std::string lost = "connectionLost: the connection to HOST was lost",
                    alert("\x15\x03\x03\x00\x02\x02\x28", 7);
  const std::string noTls = "tls: no secure connection to HOST could be agreed on: ";
  const std::vector<std::tuple<std::string, PlainServer::Serve, std::string>> rows = {
      {"silence", nullptr, "timedOut: no answer from HOST for 0.2 seconds"},
      {"orderly close", answers(""), lost},
      {"close within a record", answers(alert.substr(0, 4)), lost},
      {"reset", answers("", true), lost + ": Connection reset by peer"},
      {"no TLS", answers("HTTP/1.0 200 OK\r\n\r\n"), noTls + "wrong version number"},
      {"refusal", answers(alert), noTls + "alert \"handshake failure\""},
  };
  for (const auto& [name, serve, expected] : rows) {
    SCOPED_TRACE(name);
    const PlainServer server(serve);
    EXPECT_EQ(outcomeOf(transport, plainUrl(server), {.idleTimeout = serve ? 60000ms : 200ms}), expected);
  }
  const std::string closed = plainUrl(PlainServer(), "localhost");
  EXPECT_EQ(outcomeOf(transport, closed), "cannotConnect: could not connect to HOST: Connection refused");
  EXPECT_EQ(outcomeOf(transport, "http://localhost/x?token=secret"),
            "other: only HTTPS addresses are fetched");
}

TEST(CurlTransport, TellsAShortageOfThisSide) {
  const PlainServer server;
  // The sanitizers need descriptors of their own when they meet a type for the first time.
  CurlTransport transport({});
  outcomeOf(transport, "http://localhost/");
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const std::string outcome = outcomeOf(transport, plainUrl(server));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(outcome, "resourceUnavailable: could not open a connection to HOST: Too many open files");
}

TEST(CurlTransport, RefusesASecondThreadAndServesTheFirst) {
  const HubClient client;
  RemoteDownloadSession session({.maximumConnectionsPerHost = 2},
                                std::make_shared<CurlTransport>(client.clientOptions()));
  const HttpRequest metadata{
      .url = *RemoteUrl::parse(client.resolve("main/config.json")), .method = "HEAD", .headers = {}};
  const HttpRequest range{.url = *RemoteUrl::parse(client.resolve("main/" + client.shard)),
                          .headers = parsedHeaders("Range: bytes=0-59999; Accept-Encoding: identity")};
  std::string second;
  const auto onProgress = [&](std::uint64_t) {
    std::thread([&] { second = errorText([&] { session.response(metadata, {}); }); }).join();
  };
  const std::string target = client.directory / "target";
  const RemoteRangeExpectation expected{"f", 0, 60000, client.checkpoint->file(client.shard)->size(),
                                        std::nullopt};
  EXPECT_EQ(errorText([&] { session.transfer(range, target, expected, onProgress, {}); }), "no error");
  EXPECT_EQ(second, "a transport performs one hop at a time, for one thread");
  EXPECT_TRUE(readFile(target) == client.bytes(client.shard, 0, 60000));
}

TEST(CurlTransport, WaitsOnlyWhileThereIsNoNetwork) {
  // By its name no loopback address, but one that reaches this machine's closed port.
  const std::string away = plainUrl(PlainServer(), "0.0.0.0"), here = plainUrl(PlainServer());
  const std::vector<std::tuple<std::string, std::string, bool, bool, std::string>> rows = {
      {"no network", away, true, false, "offline"},
      {"a network", away, true, true, "cannotConnect"},
      {"waiting not wanted", away, false, false, "cannotConnect"},
      {"loopback", here, true, false, "cannotConnect"},
  };
  for (const auto& [name, url, waits, hasNetwork, expected] : rows) {
    SCOPED_TRACE(name);
    CurlTransport transport({.hasNetwork = [result = hasNetwork] { return result; }});
    const HttpHopLimits limits{.deadline = std::chrono::steady_clock::now() + 100ms,
                               .waitsForConnectivity = waits};
    EXPECT_THAT(outcomeOf(transport, url, limits), StartsWith(expected + ":"));
  }
  // The network comes up during the wait, and with it a hub that is not trusted here.
  std::unique_ptr<HubClient> hub;
  const auto port = static_cast<std::uint16_t>(std::stoi(RemoteUrl::parse(away)->authority().substr(8)));
  CurlTransport transport({.hasNetwork = [&] {
    hub = std::make_unique<HubClient>([&](LocalHub::Options& options) { options.port = port; });
    return false;
  }});
  EXPECT_THAT(outcomeOf(transport, away), StartsWith("tls:"));
}

TEST(CurlTransport, BreaksOffAtOnceAndUsesNoBrokenConnectionAgain) {
  const HubClient client;
  CurlTransport transport(client.clientOptions());
  const std::string url = client.redirected(client.shard), content = client.bytes(client.shard, 0, 60000);
  EXPECT_TRUE(get(transport, url, "Range: bytes=0-59999").body == content);
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
    client.hub->setFaults([&](const HubRequest&) {
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
    const std::uint64_t connections = client.hub->connectionCount();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(errorText([&] { transport.perform(request, {}, received, source.token()); }), error);
    if (error != "cancelled") reached.release();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    client.hub->setFaults(nullptr);
    EXPECT_TRUE(get(transport, url, "Range: bytes=0-59999").body == content);
    EXPECT_EQ(client.hub->connectionCount(), connections + 1);
  }
}

}  // namespace
}  // namespace vellicor::testing
