#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/EndToEnd/InstallHarness.h"

namespace vellicor {
namespace {

using testing::InstallHarness;
using ::testing::IsEmpty;
using testing::isPayload;
using ::testing::StartsWith;

using Matcher = std::function<bool(const InstallHarness&, const HubRequest&)>;

/// Answers the first `times` matching requests with the fault.
void inject(InstallHarness& harness, HubFault fault, Matcher matches, std::size_t times) {
  auto left = std::make_shared<std::size_t>(times);
  harness.hub->setFaults(
      [&harness, fault, matches, left](const HubRequest& request) -> std::optional<HubFault> {
        if (*left == 0 || !matches(harness, request)) return std::nullopt;
        --*left;
        return fault;
      });
}

/// Every run of characters behind `begin` that are none of `ends`, and `begin` itself, becomes `name`.
std::string replacingEach(std::string text, std::string_view begin, std::string_view ends,
                          std::string_view name) {
  for (std::size_t at = 0; (at = text.find(begin, at)) != std::string::npos; at += name.size()) {
    const std::size_t end = std::min(text.find_first_of(ends, at + begin.size()), text.size());
    text.replace(at, end - at, name);
  }
  return text;
}

/// Errors name hosts with ports and hashes that differ from run to run.
std::string withoutAddresses(std::string text) {
  text = replacingEach(std::move(text), "https://127.0.0.1:", " ,):", "STORAGE");
  return replacingEach(std::move(text), "https://localhost:", " ,):/", "HUB");
}

bool isPayloadAnswer(const InstallHarness& harness, const HubRequest& request) {
  return request.isFinalHop && isPayload(*harness.checkpoint, request);
}

HubFault withStatus(int status,
                    std::vector<std::pair<std::string, std::optional<std::string>>> headers = {}) {
  HubFault fault;
  fault.status = status;
  fault.body = "<html>not today</html>";
  fault.headers = std::move(headers);
  return fault;
}

HubFault withHeader(std::string name, std::optional<std::string> value) {
  HubFault fault;
  fault.headers = {{std::move(name), std::move(value)}};
  return fault;
}

template <typename Member, typename Value>
HubFault with(Member member, Value value) {
  HubFault fault;
  fault.*member = value;
  return fault;
}

struct Row {
  const char* name;
  HubFault fault;
  /// Empty when the fault is tried again and the install succeeds.
  std::string error;
};

/// Each fault meets the third payload range; what fails leaves two ranges to resume from.
TEST(HubFaults, APayloadRangeIsTriedAgainOrRefused) {
  const std::string shard = "model-00001-of-00002.safetensors";
  const std::string invalid = "remote protocol invalid: ";
  const std::vector<Row> rows = {
      {"request time-out", withStatus(408), ""},
      {"rate limit without Retry-After", withStatus(429, {{"ratelimit", "\"resolvers\";r=0;t=52"}}), ""},
      {"rate limit, preferred date", withStatus(429, {{"retry-after", "Sun, 06 Nov 1994 08:49:37 GMT"}}), ""},
      {"rate limit, obsolete date", withStatus(429, {{"retry-after", "Sunday, 06-Nov-94 08:49:37 GMT"}}), ""},
      {"rate limit, asctime date", withStatus(429, {{"retry-after", "Sun Nov  6 08:49:37 1994"}}), ""},
      {"rate limit, a word", withStatus(429, {{"retry-after", "soon"}}),
       invalid + "invalid Retry-After soon"},
      {"rate limit, too long", withStatus(503, {{"retry-after", "7200"}}),
       "remote Retry-After 7200 exceeds 3600-second cap"},
      {"server error", withStatus(500), ""},
      {"not implemented", withStatus(501), "remote HTTP 501: STORAGE"},
      {"unauthorized", withStatus(401), "remote HTTP 401: STORAGE"},
      {"expired signature", withStatus(403), "remote HTTP 403: STORAGE"},
      {"range not satisfiable", withStatus(416, {{"content-range", "bytes */10"}}),
       "remote HTTP 416: STORAGE"},
      {"the whole file", withStatus(200), "remote HTTP 200: STORAGE"},
      {"another range", withHeader("content-range", "bytes 0-4095/9999"),
       invalid + "wrong Content-Range bytes 0-4095/9999"},
      {"another content", withHeader("etag", "\"0123\""),
       invalid + "final ranged validator differs for SHARD"},
      {"compressed", withHeader("content-encoding", "gzip"), invalid + "compressed range response for SHARD"},
      {"chunked", with(&HubFault::chunked, true), invalid + "wrong Content-Length for SHARD"},
      {"an early end", with(&HubFault::closeAfter, 100U), ""},
      {"no byte, then the end", with(&HubFault::closeAfter, 0U), ""},
      {"a reset in the body", with(&HubFault::resetAfter, 100U), ""},
      {"a kept connection that was reset is opened anew", with(&HubFault::resetBeforeHead, true), "no error"},
      {"HTTP/1.0", with(&HubFault::http10, true), "no error"},
      {"an oversized head", with(&HubFault::endlessHeaders, true), "the head of the answer of 127.0.0.1:"},
      {"a redirect to http", withStatus(302, {{"location", "http://127.0.0.1/x?secret"}}),
       "remote redirect rejected for http://127.0.0.1/x: only HTTPS redirects are allowed"},
      {"a redirect without end", withStatus(302, {{"location", "?again"}}),
       "remote redirect rejected for STORAGE: more than 5 redirects"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    InstallHarness harness;
    const bool isEndless = std::string(row.name) == "a redirect without end";
    std::size_t payloads = 0;
    inject(
        harness, row.fault,
        [&payloads, isEndless](const InstallHarness& h, const HubRequest& request) {
          if (isEndless && request.target.ends_with("?again")) return true;
          return isPayloadAnswer(h, request) && payloads++ >= 2;
        },
        isEndless ? 100 : 1);
    RemoteStreamingRepackOptions options = harness.options();
    options.rangeRetryAttempts = 2;
    std::string error = withoutAddresses(harness.installError(options));
    error = replacingEach(std::move(error), "model-0", " ", "SHARD");
    if (row.error.empty()) {
      EXPECT_EQ(error, "no error");
      EXPECT_EQ(harness.audit.remoteRangeRetries, 1U);
    } else {
      EXPECT_THAT(error, StartsWith(row.error));
    }
    if (error != "no error") {
      EXPECT_EQ(RemoteInstallCheckpoint::load(harness.output + ".resume.json").completedRanges.size(), 2U);
      harness.hub->setFaults(nullptr);
      options.resume = true;
      EXPECT_EQ(harness.installError(options), "no error");
    }
    EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
  }
}

/// Each phase survives one passing fault and reports one that stays.
TEST(HubFaults, EveryPhaseIsTriedAgain) {
  struct Phase {
    const char* name;
    Matcher matches;
    std::string error;
  };
  const auto file = [](const char* method, const char* name) {
    return [method, name](const InstallHarness&, const HubRequest& request) {
      return request.isFinalHop && request.method == method && request.file == name;
    };
  };
  const auto header = [](const char* range) {
    return [range](const InstallHarness& h, const HubRequest& request) {
      return request.isFinalHop && request.file.ends_with(".safetensors") && request.method == "GET" &&
             request.range.starts_with(range) && !isPayload(*h.checkpoint, request);
    };
  };
  const std::vector<Phase> phases = {
      {"index metadata", file("HEAD", "model.safetensors.index.json"), "remote HTTP 503: HUB/"},
      {"index", file("GET", "model.safetensors.index.json"), "remote HTTP 503: HUB/"},
      {"config metadata", file("HEAD", "config.json"), "remote HTTP 503: HUB/"},
      {"config", file("GET", "config.json"), "remote HTTP 503: HUB/"},
      {"header length", header("bytes=0-7"), "remote HTTP 503: STORAGE"},
      {"header", header("bytes=8-"), "remote HTTP 503: STORAGE"},
      {"payload", isPayloadAnswer, "remote HTTP 503: STORAGE"},
      {"sidecar metadata", file("HEAD", "tokenizer_config.json"), "remote HTTP 503: HUB/"},
      {"sidecar", file("GET", "tokenizer.json"), "remote HTTP 503: STORAGE"},
  };
  for (const Phase& phase : phases) {
    SCOPED_TRACE(phase.name);
    InstallHarness harness;
    RemoteStreamingRepackOptions options = harness.options();
    options.rangeRetryAttempts = 3;
    inject(harness, withStatus(503), phase.matches, 2);
    EXPECT_EQ(harness.installError(options), "no error");
    EXPECT_EQ(harness.audit.remoteRangeRetries, 2U);
    EXPECT_EQ(harness.audit.remoteRetries.back().attempt, 2);

    InstallHarness failing;
    inject(failing, withStatus(503), phase.matches, 3);
    options = failing.options();
    options.rangeRetryAttempts = 3;
    EXPECT_THAT(withoutAddresses(failing.installError(options)), StartsWith(phase.error));
    EXPECT_EQ(failing.audit.remoteRangeRetries, 2U);
    EXPECT_FALSE(std::filesystem::exists(failing.output));
  }
}

/// What the hub answers for repositories, revisions and tokens that are not right, as a person sees it.
TEST(HubFaults, RefusalsOfTheHubAreNamed) {
  struct Case {
    const char* name;
    std::string repoID;
    std::string revision;
    std::optional<std::string> token;
    std::string error;
  };
  const std::string owner = "remote HTTP ";
  const std::vector<Case> cases = {
      {"missing repository", "nobody/nothing", "main", "good",
       "remote HTTP 404: HUB/nobody/nothing/resolve/main/model.safetensors.index.json"},
      {"unknown revision", testing::labRepoID, "v9", "good",
       "remote HTTP 404: HUB/lab-owner/lab-model/resolve/v9/model.safetensors.index.json"},
      {"bad token", testing::labRepoID, "main", "bad",
       "remote HTTP 401: HUB/lab-owner/lab-model/resolve/main/model.safetensors.index.json"},
      {"an empty token is none", testing::labRepoID, "main", "",
       "remote HTTP 401: HUB/lab-owner/lab-model/resolve/main/model.safetensors.index.json"},
      {"no repository id", "nothing", "main", "good", "configuration invalid: invalid repo id nothing"},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.name);
    InstallHarness harness(SyntheticCheckpoint::custom({}, 1), [](LocalHub::Options& options) {
      options.requiredToken = "good";
      options.repoID = testing::labRepoID;
    });
    RemoteStreamingRepackOptions options = harness.options();
    options.repoID = row.repoID;
    options.revision = row.revision;
    options.token = row.token;
    EXPECT_EQ(withoutAddresses(harness.installError(options)), row.error);
  }
}

/// The source must stay one and the same while it is read.
TEST(HubFaults, ASourceThatChangesIsRefused) {
  const auto head = [](const char* suffix) {
    return [suffix](const InstallHarness&, const HubRequest& request) {
      return request.method == "HEAD" && request.file.ends_with(suffix);
    };
  };
  const std::string otherCommit(40, 'c');
  struct Case {
    const char* name;
    HubFault fault;
    Matcher matches;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"the config's commit", withHeader("x-repo-commit", otherCommit), head("config.json"),
       "remote protocol invalid: config commit differs from index commit"},
      {"a shard's commit", withHeader("x-repo-commit", otherCommit), head("00001-of-00002.safetensors"),
       "remote protocol invalid: shard model-00001-of-00002.safetensors commit differs from index commit"},
      {"a shard without ranges", withHeader("accept-ranges", "none"), head("00001-of-00002.safetensors"),
       "remote protocol invalid: shard model-00001-of-00002.safetensors does not advertise byte ranges"},
      {"a short commit", withHeader("x-repo-commit", "abc"), head("index.json"),
       "remote protocol invalid: missing full X-Repo-Commit for model.safetensors.index.json"},
      {"a shard without a size", withHeader("x-linked-size", std::nullopt),
       head("00001-of-00002.safetensors"),
       "remote protocol invalid: missing remote size for model-00001-of-00002.safetensors"},
      {"an index beyond its cap", withHeader("content-length", "4194305"), head("index.json"),
       "remote file model.safetensors.index.json size 4194305 exceeds cap 4194304"},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.name);
    InstallHarness harness;
    inject(harness, row.fault, row.matches, 100);
    EXPECT_EQ(harness.installError(harness.options()), row.error);
    EXPECT_TRUE(harness.payloadRanges().empty());
  }
}

}  // namespace
}  // namespace vellicor
