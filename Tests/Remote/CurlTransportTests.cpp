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
#include "VellicorRepackCore/Remote/CurlTransport.h"

namespace vellicor::testing {
namespace {

using namespace std::chrono_literals;
using Code = NetworkError::Code;

constexpr auto shortIdle = 200ms;

std::string replaced(std::string text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
    text.replace(at, what.size(), with);
  }
  return text;
}

// "STATUS, N bytes" of an answer, or "CODE: text" of a failure.
std::string outcome(CurlTransport& transport, const std::string& url,
                    std::chrono::duration<double> idle = 60s) {
  Received received;
  try {
    TinyHub::perform(transport, url, received, {{"Range", "bytes=0-99999"}}, "GET", idle);
    return fmt::format("{}, {} bytes", received.head->status, received.body.size());
  } catch (const NetworkError& error) {
    return fmt::format("{}: {}", static_cast<int>(error.code()), error.what());
  }
}

std::string failed(Code code, const std::string& text) {
  return fmt::format("{}: {}", static_cast<int>(code), text);
}

TEST(CurlTransportTests, keepsOneConnectionPerHost) {
  const TinyHub tiny;
  const std::string storage = tiny.storage(), content = TinyRepository::content("model/shard");
  tiny.hub->clearRequests();
  CurlTransport transport(tiny.options());
  for (int round = 0; round < 10; ++round) {
    EXPECT_EQ(TinyHub::perform(transport, tiny.resolve("main/config.json"), {}, "HEAD").head->status, 307);
    const Received small = TinyHub::perform(transport, tiny.cached(), {{"Range", "bytes=0-9"}});
    EXPECT_EQ(small.body, TinyRepository::content("config.json"));
    EXPECT_EQ(TinyHub::perform(transport, tiny.resolve("main/model/shard")).head->status, 302);
    const Received large = TinyHub::perform(transport, storage, {{"Range", "bytes=1-299999"}});
    EXPECT_EQ(large.header("content-range"), "bytes 1-299999/300000");
    EXPECT_EQ(large.head->url.string(), storage);
    EXPECT_TRUE(large.body == content.substr(1));
  }
  EXPECT_EQ(tiny.hub->requests().size(), 40U);
  // The first connection is that of the question for the storage address.
  EXPECT_EQ(tiny.hub->connectionCount(), 1U + 2U);
}

TEST(CurlTransportTests, turnsWhatTheServerDoesIntoAnswersAndErrors) {
  const TinyHub tiny;
  const std::string url = tiny.storage(), cleanUrl = url.substr(0, url.find('?'));
  const std::string interim = "HTTP/1.1 103 Early Hints\r\nlink: x\r\n\r\nHTTP/1.1 103 Early Hints\r\n\r\n";
  struct Row {
    std::string name;
    HubFault fault;
    std::string expected;
  };
  const std::vector<Row> rows = {
      {"normal", {}, "206, 100000 bytes"},
      {"chunked", {.chunked = true}, "206, 100000 bytes"},
      {"interim answers", {.preamble = interim}, "206, 100000 bytes"},
      {"HTTP/1.0", {.http10 = true}, "206, 100000 bytes"},
      {"more than announced", {.extraBytes = 5}, "206, 100000 bytes"},
      {"not found", {.status = 404, .body = "gone"}, "404, 4 bytes"},
      {"closed early", {.closeAfter = 1000}, "206, 1000 bytes"},
      {"closed before the body", {.closeAfter = 0}, "206, 0 bytes"},
      {"dropped early", {.dropAfter = 1000}, "206, 1000 bytes"},
      {"dropped within chunks", {.dropAfter = 1000, .chunked = true}, "206, 1000 bytes"},
      {"reset before the head",
       {.resetBeforeHead = true},
       failed(Code::connectionLost, "the connection to HOST was lost: Connection reset by peer (URL)")},
      {"reset within the body",
       {.resetAfter = 1000},
       failed(Code::connectionLost, "the connection to HOST was lost: Connection reset by peer (URL)")},
      {"closed without an answer",
       {.closeBeforeHead = true},
       failed(Code::connectionLost, "HOST closed the connection without an answer (URL)")},
      {"closed within the head",
       {.preamble = "HTTP/1.1 200 OK\r\nx: ", .closeBeforeHead = true},
       failed(Code::connectionLost, "HOST closed the connection within its answer's head (URL)")},
      {"stalled before the head",
       {.stallBeforeHead = true},
       failed(Code::timedOut, "no answer from 127.0.0.1 for 0.2 seconds (URL)")},
      {"stalled within the body",
       {.stallAfter = 1000},
       failed(Code::timedOut, "no answer from 127.0.0.1 for 0.2 seconds (URL)")},
      {"headers without end",
       {.endlessHeaders = true},
       failed(Code::other, "the head of the answer of HOST is too large (URL)")},
      {"one endless header",
       {.headers = {{"x", std::string(200000, 'x')}}},
       failed(Code::other, "the head of the answer of HOST is too large (URL)")},
      {"not HTTP",
       {.preamble = "garbage"},
       failed(Code::other, "HOST gave an answer that is not HTTP (URL)")},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    tiny.hub->setFaults([&](const HubRequest&) { return row.fault; });
    CurlTransport transport(tiny.options());
    const std::string got = outcome(transport, url, shortIdle);
    EXPECT_EQ(replaced(replaced(got, cleanUrl, "URL"), tiny.storageAuthority(), "HOST"), row.expected);
  }
}

TEST(CurlTransportTests, slowAnswersAreNotIdle) {
  const TinyHub tiny;
  tiny.hub->setFaults([](const HubRequest&) { return HubFault{.trickle = 50ms}; });
  CurlTransport transport(tiny.options());
  EXPECT_EQ(outcome(transport, tiny.cached(), 300ms), "206, 10 bytes");
  const auto pastDeadline = std::chrono::steady_clock::now() + 200ms;
  Received received;
  const HttpRequest request{.url = RemoteUrl::parse(tiny.cached()).value(), .headers = {}};
  EXPECT_EQ(errorText([&] { transport.perform(request, {.deadline = pastDeadline}, received, {}); }),
            fmt::format("the exchange with {} did not end within its time ({})", tiny.hubAuthority(),
                        request.url.withoutQueryAndFragment().value()));
  EXPECT_LT(received.body.size(), 10U);
}

TEST(CurlTransportTests, givesTheHeadAsItIs) {
  const TinyHub tiny;
  tiny.hub->setFaults([](const HubRequest&) {
    return HubFault{.preamble =
                        "HTTP/1.1 200 Fine\r\nA:  b  \r\na: c\r\nFolded: one\r\n\ttwo\r\nEmpty:\r\n"
                        "Content-Length: 2\r\n\r\nhi",
                    .closeBeforeHead = true};
  });
  CurlTransport transport(tiny.options());
  const Received received = TinyHub::perform(transport, tiny.cached());
  EXPECT_EQ(received.head->status, 200);
  const Headers expected = {
      {"A", "b"}, {"a", "c"}, {"Folded", "one two"}, {"Empty", ""}, {"Content-Length", "2"}};
  EXPECT_EQ(received.head->headers.fields(), expected);
  EXPECT_EQ(received.body, "hi");
}

TEST(CurlTransportTests, trustsOnlyTheGivenCertificates) {
  const TinyHub tiny;
  const TinyHub misnamed([](LocalHub::Options& options) { options.certificateNames = {"other.example"}; });
  const std::string url = tiny.hub->baseURL() + "/o/n", misnamedUrl = misnamed.hub->baseURL() + "/o/n";
  const std::string untrusted = "the server's certificate is not trusted: ";
  struct Row {
    std::string name;
    std::optional<std::string> caFile;
    std::string url;
    std::string expected;
  };
  const std::vector<Row> rows = {
      {"the system's authorities", std::nullopt, url,
       failed(Code::tls, untrusted + "self-signed certificate: " + url)},
      {"another hub's certificate", misnamed.hub->caFile(), url,
       failed(Code::tls, untrusted + "self-signed certificate: " + url)},
      {"a certificate for another name", misnamed.hub->caFile(), misnamedUrl,
       failed(Code::tls,
              untrusted + "no alternative certificate subject name matches target host name 'localhost': " +
                  misnamedUrl)},
      {"no certificate file", tiny.directory / "none", url,
       failed(Code::tls, fmt::format("the certificates to trust could not be read from {} ({})",
                                     tiny.directory / "none", url))},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CurlTransport transport({.caFile = row.caFile, .hasNetwork = nullptr});
    EXPECT_EQ(outcome(transport, row.url + "?token=secret"), row.expected);
  }
  EXPECT_TRUE(tiny.hub->requests().empty());
}

// A port of the loopback whose one client is treated as `reaction` says, or left without an answer.
struct PlainServer {
  explicit PlainServer(std::function<void(int)> reaction = nullptr)
      : listener(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener, generic, size) != 0 || ::listen(listener, 1) != 0 ||
        ::getsockname(listener, generic, &size) != 0) {
      throw std::runtime_error("no port to listen on");
    }
    authority = fmt::format("127.0.0.1:{}", ntohs(address.sin_port));
    if (!reaction) return;
    thread = std::jthread([descriptor = listener, reaction = std::move(reaction)] {
      const int client = ::accept(descriptor, nullptr, nullptr);
      reaction(client);
      ::close(client);
    });
  }
  ~PlainServer() {
    if (thread.joinable()) thread.join();
    ::close(listener);
  }

  int listener;
  std::string authority;
  std::jthread thread;
};

TEST(CurlTransportTests, namesWhatFailedBeforeTheRequest) {
  const auto readHello = [](int client) {
    char hello[4096];
    return ::read(client, hello, sizeof(hello)) > 0;
  };
  struct Row {
    std::string name;
    std::function<void(int)> reaction;
    std::string expected;
  };
  const std::vector<Row> rows = {
      {"silence", nullptr, failed(Code::timedOut, "no answer from 127.0.0.1 for 0.2 seconds (URL)")},
      {"orderly close", [&](int client) { EXPECT_TRUE(readHello(client)); },
       failed(Code::connectionLost, "the connection to HOST was lost (URL)")},
      {"reset",
       [&](int client) {
         const linger hard{.l_onoff = 1, .l_linger = 0};
         EXPECT_TRUE(readHello(client));
         EXPECT_EQ(::setsockopt(client, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)), 0);
       },
       failed(Code::connectionLost, "the connection to HOST was lost: Connection reset by peer (URL)")},
      {"no TLS",
       [&](int client) {
         EXPECT_TRUE(readHello(client));
         EXPECT_EQ(::write(client, "HTTP/1.0 200 OK\r\n\r\n", 19), 19);
       },
       failed(Code::tls, "no secure connection to HOST could be agreed on: wrong version number (URL)")},
  };
  CurlTransport transport({.hasNetwork = nullptr});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const PlainServer server(row.reaction);
    const std::string got =
        outcome(transport, fmt::format("https://{}/x?token=secret", server.authority), shortIdle);
    EXPECT_EQ(replaced(replaced(got, fmt::format("https://{}/x", server.authority), "URL"), server.authority,
                       "HOST"),
              row.expected);
  }

  const std::string closed = PlainServer().authority;
  EXPECT_EQ(outcome(transport, fmt::format("https://{}/x/y?token=secret", closed)),
            failed(Code::cannotConnect,
                   fmt::format("could not connect to {0}: Connection refused (https://{0}/x/y)", closed)));
  EXPECT_EQ(outcome(transport, "http://localhost/x?token=secret"),
            failed(Code::other, "only HTTPS addresses are fetched (http://localhost/x)"));
}

TEST(CurlTransportTests, reportsThatDescriptorsRanOut) {
  const PlainServer server;
  CurlTransport transport({.hasNetwork = nullptr});
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const int lowestFree = ::dup(0);
  ::close(lowestFree);
  rlimit low = before;
  low.rlim_cur = static_cast<rlim_t>(lowestFree);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  const std::string got = outcome(transport, fmt::format("https://{}/x", server.authority));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(got, failed(Code::resourceUnavailable,
                        fmt::format("could not open a connection to {0}: Too many open files (https://{0}/x)",
                                    server.authority)));
}

TEST(CurlTransportTests, waitsOnlyWhileThereIsNoNetwork) {
  const std::string port = replaced(PlainServer().authority, "127.0.0.1:", "");
  // Not a loopback address by its name, but one that reaches this machine's closed port.
  const std::string away = "https://0.0.0.0:" + port + "/x", here = "https://127.0.0.1:" + port + "/x";
  struct Row {
    std::string name;
    std::string url;
    bool waits;
    bool hasNetwork;
    Code expected;
  };
  const std::vector<Row> rows = {
      {"no network", away, true, false, Code::offline},
      {"a network", away, true, true, Code::cannotConnect},
      {"waiting not wanted", away, false, false, Code::cannotConnect},
      {"loopback", here, true, false, Code::cannotConnect},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    CurlTransport transport({.hasNetwork = [&] { return row.hasNetwork; }});
    const HttpRequest request{.url = RemoteUrl::parse(row.url).value(), .headers = {}};
    Received received;
    try {
      transport.perform(
          request, {.deadline = std::chrono::steady_clock::now() + 100ms, .waitsForConnectivity = row.waits},
          received, {});
      ADD_FAILURE() << "connected";
    } catch (const NetworkError& error) {
      EXPECT_EQ(error.code(), row.expected) << error.what();
    }
  }
  std::stop_source source;
  CurlTransport transport({.hasNetwork = [&] { return !source.request_stop(); }});
  Received received;
  EXPECT_THROW(TinyHub::perform(transport, away, received, {}, "GET", 60s, source.get_token()),
               CancellationError);
}

TEST(CurlTransportTests, stopsAtOnceAndUsesNoBrokenConnectionAgain) {
  const TinyHub tiny;
  CurlTransport transport(tiny.options());
  struct Row {
    std::string name;
    HubFault fault;
    bool throwsAtHead;
    bool throwsAtPiece;
  };
  const std::vector<Row> rows = {
      {"stop while the head is awaited", {.stallBeforeHead = true}, false, false},
      {"stop while the body is awaited", {.stallAfter = 4}, false, false},
      {"refused head", {}, true, false},
      {"refused body", {}, false, true},
  };
  const std::string storage = tiny.storage(), content = TinyRepository::content("model/shard");
  TinyHub::perform(transport, storage);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::binary_semaphore reached(0);
    std::stop_source source;
    std::jthread stopper([&] {
      reached.acquire();
      source.request_stop();
    });
    const bool stops = !row.throwsAtHead && !row.throwsAtPiece;
    tiny.hub->setFaults([&](const HubRequest&) {
      if (row.fault.stallBeforeHead) reached.release();
      return row.fault;
    });
    Received received;
    received.afterHead = [&] {
      if (row.throwsAtHead) throw std::domain_error("head refused");
    };
    received.afterPiece = [&] {
      if (row.throwsAtPiece) throw std::domain_error("piece refused");
      reached.release();
    };
    const std::uint64_t connections = tiny.hub->connectionCount();
    const auto start = std::chrono::steady_clock::now();
    const auto perform = [&] {
      TinyHub::perform(transport, storage, received, {}, "GET", 600s, source.get_token());
    };
    if (stops) {
      EXPECT_THROW(perform(), CancellationError);
    } else {
      EXPECT_THROW(perform(), std::domain_error);
      reached.release();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    tiny.hub->setFaults(nullptr);
    EXPECT_TRUE(TinyHub::perform(transport, storage).body == content);
    EXPECT_EQ(tiny.hub->connectionCount(), connections + 1);
  }
}

}  // namespace
}  // namespace vellicor::testing
