#include "Tests/Support/HubClient.h"
#include "VellicorLab/HubAnswers.h"
#include "VellicorLab/LocalHub.h"

namespace vellicor::testing {
namespace {

TEST(LocalHub, AnswersLikeTheHub) {
  const HubClient client;
  const auto config = client.checkpoint->file("config.json"), shard = client.checkpoint->file(client.shard);
  const std::string commit = client.checkpoint->commit(), size = std::to_string(shard->size());
  const auto filled = [&](const char* text) {
    return fmt::format(fmt::runtime(text), fmt::arg("commit", commit), fmt::arg("tag", config->contentTag()),
                       fmt::arg("hash", *shard->xetHash()), fmt::arg("size", size),
                       fmt::arg("sha", shard->contentTag()));
  };
  const std::string base = client.hub->baseURL(), small = client.resolve("main/config.json");
  const std::string large = client.resolve(commit + "/" + client.shard),
                    storage = client.redirected(client.shard);
  const std::string query =
      filled("?%2Flab-owner%2Flab-model%2Fresolve%2Fmain%2Fconfig.json=&etag=%22{tag}%22");
  const std::string target =
                        filled("/api/resolve-cache/models/lab-owner/lab-model/{commit}/config.json") + query,
                    cached = base + target;
  const std::string about = "x-repo-commit: {commit}; accept-ranges: bytes; x-linked-etag: ";
  const std::string linked = filled((about + "\"{tag}\"; x-linked-size: -; location: ").c_str()) + target;
  const std::string sized = about + "\"{sha}\"; x-linked-size: {size}; x-xet-hash: {hash}; location: ";
  const std::string signedAway = filled(sized.c_str()) + storage;
  const std::string stored = filled("content-range: bytes 3-9/{size}; etag: \"{hash}\"; x-repo-commit: -");
  const std::string whole = filled("content-length: 10; etag: \"{tag}\"; x-repo-commit: {commit}");
  const std::string zipped = filled("content-encoding: gzip; content-length: -; etag: W/\"{tag}\"");
  const std::string noEntry = filled("x-error-code: EntryNotFound; x-repo-commit: {commit}");
  const std::string otherRepo = base + "/o/x/resolve/main/f";
  // The last column is of headers; "-" stands for an absent one.
  const std::vector<std::tuple<std::string, std::string, std::string, std::string, int, std::string>> rows = {
      {"small file", "GET", small, "Range: bytes=0-4", 307, linked},
      {"its metadata", "HEAD", small, "", 307, linked},
      {"cached metadata", "HEAD", cached, "Range: bytes=2-5", 200, whole},
      {"cached range", "GET", cached, "Range: bytes=2-5", 206, "content-range: bytes 2-5/10"},
      {"clamped range", "GET", cached, "Range: bytes=8-99999", 206, "content-range: bytes 8-9/10"},
      {"open range", "GET", cached, "Range: bytes=7-", 206, "content-range: bytes 7-9/10"},
      {"last bytes", "GET", cached, "Range: bytes=-2", 206, "content-range: bytes 8-9/10"},
      {"several ranges", "GET", cached, "Range: bytes=0-1,3-4", 200, whole},
      {"range beyond", "GET", cached, "Range: bytes=10-11", 416, "content-range: bytes */10"},
      {"gzip offered", "GET", cached, "Range: bytes=2-5; Accept-Encoding: gzip", 200, zipped},
      {"another query", "GET", cached + "x", "", 404, ""},
      {"no query", "GET", cached.substr(0, cached.find('?')), "", 404, ""},
      {"metadata of a large file", "HEAD", large, "", 302, signedAway},
      {"large file", "GET", large, "Range: bytes=0-9", 302, signedAway},
      {"storage range", "GET", storage, "Range: bytes=3-9", 206, stored},
      {"storage range beyond", "GET", storage, "Range: bytes=999999999-", 416,
       "content-range: bytes */" + size},
      {"storage with a token", "GET", storage, "Authorization: Bearer t", 400, ""},
      {"altered signature", "GET", storage + "0", "", 403, ""},
      {"missing file", "GET", client.resolve("main/none"), "", 404, noEntry},
      {"missing revision", "GET", client.resolve("dev/config.json"), "", 404,
       "x-error-code: RevisionNotFound"},
      {"missing repository", "GET", otherRepo, "", 401, ""},
      {"with a token", "GET", otherRepo, "Authorization: Bearer t", 404, "x-error-code: RepoNotFound"},
      {"another method", "PUT", small, "", 405, ""},
      {"another host", "GET", small, "Host: elsewhere:1", 421, ""},
  };
  CurlTransport transport(client.clientOptions());
  for (const auto& [name, method, url, headers, status, expected] : rows) {
    SCOPED_TRACE(name);
    const Received received = get(transport, url, headers, method);
    EXPECT_EQ(received.head->status, status);
    const HttpHeaders expectedHeaders = parsedHeaders(expected);
    for (const auto& [header, value] : expectedHeaders.fields()) EXPECT_EQ(received.header(header), value);
    // Redirects are on the way, except that metadata of a large file is asked for no further.
    const bool isWay = status / 100 == 3 && (method != "HEAD" || status == 307);
    EXPECT_EQ(client.hub->requests().back().isFinalHop, !isWay);
  }
  EXPECT_EQ(client.hub->requests().size(), rows.size() + 1);
  EXPECT_EQ(get(transport, client.resolve("main/none")).body, "Entry not found");
  EXPECT_EQ(get(transport, cached, "Accept-Encoding: gzip").body, storedGzip("0123456789"));
}

}  // namespace
}  // namespace vellicor::testing
