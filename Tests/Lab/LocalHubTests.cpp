#include <semaphore>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/Support/Expect.h"
#include "Tests/Support/TinyHub.h"
#include "VellicorLab/HubAnswers.h"
#include "VellicorLab/LocalHub.h"

namespace vellicor::testing {
namespace {

using namespace std::string_literals;

struct Exchange {
  std::string name;
  std::string url;
  Headers headers;
  int status;
  /// "-" for a header that must be absent.
  Headers expected;
  std::string method = "GET";
  bool isFinalHop = true;
};

TEST(LocalHubTests, answersLikeTheHub) {
  const TinyHub tiny;
  const std::string small = tiny.resolve("main/config.json"), large = tiny.resolve("main/model/shard");
  const std::string cached = tiny.cached(), storage = tiny.storage();
  const std::string cachedTarget = cached.substr(tiny.hub->baseURL().size());
  const std::string linked = "\"" + tinyTag + "\"", xet = "\"" + tinyHash + "\"";
  const Headers metadata = {{"location", cachedTarget},
                            {"x-repo-commit", tinyCommit},
                            {"x-linked-etag", linked},
                            {"accept-ranges", "bytes"},
                            {"x-linked-size", "-"},
                            {"content-length", std::to_string(cachedTarget.size() + 35)},
                            {"ratelimit", "\"resolvers\";r=2999;t=300"}};
  const Headers signedAway = {{"location", storage},       {"x-repo-commit", tinyCommit},
                              {"x-linked-size", "300000"}, {"x-linked-etag", "\"" + tinySha + "\""},
                              {"x-xet-hash", tinyHash},    {"cache-control", "no-store"}};
  const std::vector<Exchange> rows = {
      {"small file", small, {{"Range", "bytes=0-4"}}, 307, metadata, "GET", false},
      {"metadata of a small file", small, {}, 307, metadata, "HEAD", false},
      {"cached metadata",
       cached,
       {},
       200,
       {{"content-length", "10"}, {"etag", linked}, {"x-repo-commit", tinyCommit}},
       "HEAD"},
      {"cached range",
       cached,
       {{"Range", "bytes=2-5"}},
       206,
       {{"content-range", "bytes 2-5/10"}, {"content-length", "4"}}},
      {"range past the end", cached, {{"Range", "bytes=8-99"}}, 206, {{"content-range", "bytes 8-9/10"}}},
      {"open range", cached, {{"Range", "bytes=7-"}}, 206, {{"content-range", "bytes 7-9/10"}}},
      {"last bytes", cached, {{"Range", "bytes=-3"}}, 206, {{"content-range", "bytes 7-9/10"}}},
      {"several ranges", cached, {{"Range", "bytes=0-1,3-4"}}, 200, {{"content-length", "10"}}},
      {"range beyond the end", cached, {{"Range", "bytes=10-12"}}, 416, {{"content-range", "bytes */10"}}},
      {"gzip offered",
       cached,
       {{"Range", "bytes=2-5"}, {"Accept-Encoding", "gzip, br"}},
       200,
       {{"content-encoding", "gzip"},
        {"transfer-encoding", "chunked"},
        {"content-length", "-"},
        {"etag", "W/" + linked}}},
      {"cached address with another query", cached + "x", {}, 404, {}},
      {"cached address without its query", cached.substr(0, cached.find('?')), {}, 404, {}},
      {"large file", large, {{"Range", "bytes=0-9"}}, 302, signedAway, "GET", false},
      {"metadata of a large file", large, {}, 302, signedAway, "HEAD"},
      {"storage range",
       storage,
       {{"Range", "bytes=299998-299999"}},
       206,
       {{"content-range", "bytes 299998-299999/300000"},
        {"etag", xet},
        {"x-repo-commit", "-"},
        {"x-linked-etag", "-"}}},
      {"storage range beyond the end",
       storage,
       {{"Range", "bytes=300000-"}},
       416,
       {{"content-range", "bytes */300000"}}},
      {"authorization at the storage host", storage, {{"Authorization", "Bearer t"}}, 400, {}},
      {"altered signature", storage + "0", {}, 403, {}},
      {"missing file",
       tiny.resolve("main/none"),
       {},
       404,
       {{"x-error-code", "EntryNotFound"}, {"x-repo-commit", tinyCommit}}},
      {"missing revision", tiny.resolve("dev/config.json"), {}, 404, {{"x-error-code", "RevisionNotFound"}}},
      {"missing repository", tiny.hub->baseURL() + "/o/x/resolve/main/config.json", {}, 401, {}},
      {"missing repository with a token",
       tiny.hub->baseURL() + "/o/x/resolve/main/config.json",
       {{"Authorization", "Bearer t"}},
       404,
       {{"x-error-code", "RepoNotFound"}}},
      {"another method", small, {}, 405, {}, "DELETE"},
      {"another host", small, {{"Host", "elsewhere:1"}}, 421, {}},
  };
  CurlTransport transport(tiny.options());
  for (const Exchange& row : rows) {
    SCOPED_TRACE(row.name);
    tiny.hub->clearRequests();
    const Received received = TinyHub::perform(transport, row.url, row.headers, row.method);
    EXPECT_EQ(received.head->status, row.status);
    for (const auto& [name, value] : row.expected) EXPECT_EQ(received.header(name), value) << name;
    ASSERT_EQ(tiny.hub->requests().size(), 1U);
    EXPECT_EQ(tiny.hub->requests()[0].isFinalHop, row.isFinalHop);
  }
  EXPECT_EQ(TinyHub::perform(transport, tiny.resolve("main/none")).body, "Entry not found");
  const std::string whole = TinyRepository::content("config.json");
  EXPECT_EQ(TinyHub::perform(transport, cached, {{"Accept-Encoding", "gzip"}}).body, storedGzip(whole));
}

TEST(LocalHubTests, storedGzipIsGzip) {
  EXPECT_EQ(storedGzip("123456789"),
            "\x1f\x8b\x08\0\0\0\0\0\0\xff\x01\x09\0\xf6\xff"s + "123456789" + "\x26\x39\xf4\xcb\x09\0\0\0"s);
  EXPECT_EQ(storedGzip(std::string(65536, 'x')).size(), 10U + 5 + 65535 + 5 + 1 + 8);
}

TEST(LocalHubTests, refusesOtherTokensThanTheRequiredOne) {
  const TinyHub tiny([](LocalHub::Options& options) { options.requiredToken = "right"; });
  CurlTransport transport(tiny.options());
  const std::vector<std::pair<Headers, int>> rows = {
      {{}, 401}, {{{"Authorization", "Bearer wrong"}}, 401}, {{{"Authorization", "Bearer right"}}, 307}};
  for (const auto& [headers, status] : rows) {
    EXPECT_EQ(TinyHub::perform(transport, tiny.resolve("main/config.json"), headers).head->status, status);
  }
}

TEST(LocalHubTests, redirectsWithinTheStorageHost) {
  const TinyHub tiny([](LocalHub::Options& options) { options.storageRedirects = 2; });
  CurlTransport transport(tiny.options());
  std::string url = tiny.resolve("main/model/shard"), statuses;
  for (int hop = 0; hop < 4; ++hop) {
    const Received received = TinyHub::perform(transport, url, {{"Range", "bytes=5-8"}});
    statuses += std::to_string(received.head->status) + " ";
    url = received.header("location");
    if (hop == 3) EXPECT_EQ(received.body, TinyRepository::content("model/shard").substr(5, 4));
  }
  EXPECT_EQ(statuses, "302 302 302 206 ");
}

TEST(LocalHubTests, logsEveryRequestInOrder) {
  const TinyHub tiny;
  const std::string storage = tiny.storage();
  tiny.hub->clearRequests();
  CurlTransport transport(tiny.options());
  TinyHub::perform(transport, storage, {{"Range", "bytes=0-9"}});
  TinyHub::perform(transport, tiny.resolve("main/config.json"),
                   {{"Authorization", "Bearer t"}, {"Accept-Encoding", "identity"}}, "HEAD");
  std::string log;
  for (const HubRequest& r : tiny.hub->requests()) {
    log += fmt::format("{} {} {} {} [{}] [{}] [{}] [{}]\n", r.number, r.connection, r.host, r.method, r.file,
                       r.range, r.authorization, r.acceptEncoding);
  }
  EXPECT_EQ(log,
            "0 1 127.0.0.1 GET [model/shard] [bytes=0-9] [] []\n"
            "1 2 localhost HEAD [config.json] [] [Bearer t] [identity]\n");
}

TEST(LocalHubTests, departsFromTheNormalAnswerAsTold) {
  const TinyHub tiny;
  const std::string normal = TinyRepository::content("config.json");
  std::string flipped = normal;
  flipped[3] ^= 1;
  const HubFault status{.status = 503, .body = "<html>", .headers = {{"retry-after", "7"}}};
  struct Row {
    std::string name;
    HubFault fault;
    int status;
    std::string body;
    Headers expected;
  };
  const std::vector<Row> rows = {
      {"another status",
       status,
       503,
       "<html>",
       {{"retry-after", "7"}, {"etag", "-"}, {"content-length", "6"}}},
      {"changed headers",
       {.headers = {{"ETag", "\"x\""}, {"accept-ranges", std::nullopt}}},
       200,
       normal,
       {{"etag", "\"x\""}, {"accept-ranges", "-"}, {"content-length", "10"}}},
      {"flipped bit", {.flipByte = 3}, 200, flipped, {}},
      {"extra bytes", {.extraBytes = 2, .chunked = true}, 200, normal + "\0\0"s, {{"content-length", "-"}}},
      {"trickle", {.trickle = std::chrono::milliseconds(1)}, 200, normal, {}},
      {"HTTP/1.0", {.http10 = true}, 200, normal, {{"connection", "close"}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    tiny.hub->setFaults([&](const HubRequest&) { return row.fault; });
    CurlTransport transport(tiny.options());
    const Received received = TinyHub::perform(transport, tiny.cached());
    EXPECT_EQ(received.head->status, row.status);
    EXPECT_EQ(received.body, row.body);
    for (const auto& [name, value] : row.expected) EXPECT_EQ(received.header(name), value) << name;
  }
}

TEST(LocalHubTests, stopsWithConnectionsStalled) {
  const std::vector<std::pair<HubFault, std::string>> rows = {
      {{.stallAfter = 4}, "no error, 4 bytes"},
      {{.stallBeforeHead = true}, "closed the connection without an answer"}};
  for (const auto& [fault, expected] : rows) {
    std::binary_semaphore reached(0);
    TinyHub tiny;
    tiny.hub->setFaults([&](const HubRequest&) {
      reached.release();
      return fault;
    });
    std::string outcome;
    std::jthread client(
        [&, url = tiny.cached(), transport = std::make_shared<CurlTransport>(tiny.options())] {
          Received received;
          outcome = errorText([&] { TinyHub::perform(*transport, url, received); });
          outcome += fmt::format(", {} bytes", received.body.size());
        });
    reached.acquire();
    tiny.hub.reset();
    client.join();
    EXPECT_THAT(outcome, ::testing::HasSubstr(expected));
  }
}

}  // namespace
}  // namespace vellicor::testing
