#include "Tests/Remote/ScriptedTransport.h"

namespace vellicor::testing {
namespace {

TEST(HuggingFaceRemote, FileURLs) {
  ScriptedHub hub;
  const std::string bad = "configuration invalid: invalid ";
  for (const std::string name : {"", "/a", "a/../b", "a?b", "a#b"}) {
    EXPECT_EQ(errorText([&] { hub.source.fileURL(name); }), bad + "remote filename " + name);
  }
  for (const std::string id : {"", "o/", "o/n/m", "o/n..m"}) {
    hub.source.repoID = id;
    EXPECT_EQ(errorText([&] { hub.source.fileURL("a"); }), bad + "repo id " + id);
  }
  hub.source.repoID = "/o//n.m/";
  EXPECT_EQ(hub.source.fileURL("sub//a b").string(), "https://hub.test/o/n.m/resolve/main/sub/a%20b");
}

TEST(HuggingFaceRemote, TheTokenGoesToItsOwnHostOnlyAndIsNeverShown) {
  ScriptedHub hub;
  const std::string cannot = "contains characters that an Authorization header cannot carry";
  const std::string refusal = "configuration invalid: the access token " + cannot;
  const std::tuple<std::optional<std::string>, std::string, std::string> rows[] = {
      {"S", "hub.test", "Bearer S"}, {"S", "HUB.test", "none"},        {"S", "cdn.hub.test", "none"},
      {"", "hub.test", "none"},      {{}, "hub.test", "none"},         {"S\r\nX: y", "hub.test", refusal},
      {"S S", "hub.test", refusal},  {"S\u00E9", "hub.test", refusal}, {"S\x7F", "hub.test", refusal}};
  for (const auto& [token, host, outcome] : rows) {
    hub.source.token = token;
    HttpRequest request{.url = RemoteUrl::parse("https://" + host + "/x").value(), .headers = {}};
    const std::string error = errorText([&] { hub.source.applyHeaders(request); });
    const std::string sent = request.headers.get("authorization").value_or("none");
    EXPECT_EQ(error == "no error" ? sent : error, outcome) << host;
  }
}

TEST(HuggingFaceRemote, MetadataAnswers) {
  const auto at = [](int status, Headers headers) -> Answer {
    headers.emplace_back("x-repo-commit", commit);
    return {status, headers, {}};
  };
  const auto moved = [](const std::string& to) -> Answer { return {307, {{"location", to}}, {"moved"}}; };
  const Headers::value_type five{"content-length", "5"}, linked{"X-Linked-Size", "77"};
  const Headers::value_type away{"location", "https://cdn.test/f"}, on{"location", "/on"};
  const Headers::value_type bytes{"Accept-Ranges", "BYTES"};
  const std::string noSize = protocol + "missing remote size for f";
  const std::string noCommit = protocol + "missing full X-Repo-Commit for f";
  const std::string place = "https://hub.test/o/n/resolve/main/f";
  const std::string flooded = "remote body for " + place + " exceeded 1048576 bytes at 1048577 bytes";
  const Answer near = moved("/n?s=%2F"), flood{200, {}, {std::string(1048576, 'x'), "x"}};
  const std::tuple<std::string, std::vector<Answer>, std::string> rows[] = {
      {"linked size first", {at(200, {five, linked})}, "77"},
      {"unreadable linked size", {at(200, {five, {"X-Linked-Size", "7x"}})}, "5"},
      {"weak tag", {at(200, {five, {"ETag", "W/e"}, {"X-Xet-Hash", "Ab"}})}, "5W/eAb"},
      {"linked tag", {at(200, {five, {"etag", "e"}, {"X-Linked-ETag", "L"}, bytes})}, "5Lbytes"},
      {"first header counts", {at(200, {five, {"ACCEPT-RANGES", "none"}, bytes})}, "5"},
      {"to storage", {at(302, {linked, away})}, "77"},
      {"to storage without a size", {at(302, {five, away})}, noSize},
      {"39 characters", {{200, {five, {"x-repo-commit", std::string(39, 'c')}}, {}}}, noCommit},
      {"same host", {near, at(200, {five})}, "5"},
      {"six hops", {near, near, near, near, near, at(307, {linked, on})}, "77"},
      {"http", {moved("http://hub.test/g")}, noCommit},
      {"unreadable location", {moved("https://[bad")}, noCommit},
      {"missing", {near, at(404, {})}, "remote HTTP 404: https://hub.test/n"},
      {"busy", {at(503, {{"Retry-After", "5"}})}, "remote HTTP 503: " + place + ", Retry-After 5"},
      {"flood", {flood}, flooded},
      {"no answer", {{0, {}, {}}}, protocol + "missing HTTP response for f"}};
  for (const auto& [name, answers, outcome] : rows) {
    SCOPED_TRACE(name);
    ScriptedHub hub;
    hub.transport->answers = answers;
    RemoteFileInfo info;
    const std::string error = errorText([&] { info = hub.source.resolveFileInfo("f", nullptr); });
    const std::string validators = info.etag.value_or("") + info.xetHash.value_or("");
    const std::string fields = std::to_string(info.size) + validators + (info.acceptsRanges ? "bytes" : "");
    EXPECT_EQ(error == "no error" ? fields : error, outcome);
    EXPECT_EQ(hub.transport->wire.size(), answers.size());
    for (const std::string& line : hub.transport->wire) {
      EXPECT_TRUE(line.starts_with("HEAD https://hub.test/") && line.ends_with(" - Bearer T0KEN")) << line;
    }
  }
}

TEST(HuggingFaceRemote, RefusesBeforeAnyRequest) {
  ScriptedHub hub;
  EXPECT_EQ(hub.download(100, 0, -1), protocol + "negative range length");
  EXPECT_EQ(hub.download(100, 99, 2), protocol + "range 99-100 exceeds f");
  EXPECT_EQ(hub.download(100, ~0ULL, 2), protocol + "range of 2 bytes from 18446744073709551615 exceeds f");
  EXPECT_EQ(hub.content(), "absent");
  writeFile(hub.target, "mine");
  EXPECT_EQ(hub.download(100, 99, 1),
            RepackError(FileOpenFailed{.path = hub.target, .errnoValue = EEXIST}).what());
  EXPECT_EQ(hub.content(), "mine");
  EXPECT_TRUE(hub.transport->wire.empty());
}

TEST(HuggingFaceRemote, SmallFilesArriveWholeOrNotAtAll) {
  const Headers headers = {{"Content-Length", "4"}, {"Content-Range", "bytes 0-3/4"}};
  const Answer good{206, headers, {"body"}}, cut{206, headers, {"bo"}};
  const std::tuple<std::uint64_t, std::vector<Answer>, std::string, std::string> rows[] = {
      {4, {cut, good}, "no error", "body"},
      {5, {}, "remote file f size 5 exceeds cap 4", "old"},
      {0, {}, "no error", ""},
      {4, {cut, cut}, "remote body for f was truncated: expected 4, received 2", "old"}};
  const auto fetch = [](ScriptedHub& hub, std::uint64_t size) {
    hub.source.retryPolicy.attempts = 2;
    return errorText([&] {
      hub.source.fetchSmallFile("f", {"f", commit, size, {}, {}}, 4, hub.target, Posix::FileMode::ownerOnly,
                                nullptr);
    });
  };
  for (const auto& [size, answers, outcome, left] : rows) {
    SCOPED_TRACE(outcome);
    ScriptedHub hub;
    hub.transport->answers = answers;
    writeFile(hub.target, "old");
    EXPECT_EQ(fetch(hub, size), outcome);
    EXPECT_EQ(hub.content(), left);
    EXPECT_EQ(hub.leftovers(), 0);
    EXPECT_EQ(hub.transport->wire.size(), answers.size());
  }
  ScriptedHub hub;
  hub.transport->answers = {good};
  std::filesystem::create_directories(hub.target);
  const std::string wrongType = ": metadata destination has the wrong entry type";
  EXPECT_EQ(fetch(hub, 4), "unsafe installer path " + hub.target + wrongType);
  EXPECT_EQ(hub.leftovers(), 0);
}

}  // namespace
}  // namespace vellicor::testing
