#include <algorithm>
#include <filesystem>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "VellicorTrials/InstallHarness.h"

namespace vellicor {
namespace {

using namespace ::testing;
using namespace testing;

using Matcher = std::function<bool(const InstallHarness&, const HubRequest&)>;

/// Answers the first `times` matching requests with the fault.
void inject(InstallHarness& harness, HubFault fault, std::size_t times, Matcher matches) {
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

/// Each fault meets the third payload range. One without an error is tried again with success; what fails
/// leaves two ranges to resume from.
TEST(HubFaults, APayloadRangeIsTriedAgainOrRefused) {
  const std::string invalid = "remote protocol invalid: ", http = "remote HTTP ";
  const auto after = [](const char* value) {
    return HubFault{.status = 429, .body = "<html>not today</html>", .headers = {{"retry-after", value}}};
  };
  const auto with = [](const char* name, const char* value) { return HubFault{.headers = {{name, value}}}; };
  const std::vector<std::tuple<std::string, HubFault, std::string>> rows = {
      {"request time-out", {.status = 408}, ""},
      {"rate limit without Retry-After", {.status = 429, .headers = {{"ratelimit", "r=0;t=52"}}}, ""},
      {"rate limit, a date", after("Sun, 06 Nov 1994 08:49:37 GMT"), ""},
      {"rate limit, a word", after("soon"), invalid + "invalid Retry-After soon"},
      {"rate limit, too long", after("7200"), "remote Retry-After 7200 exceeds 3600-second cap"},
      {"server error", {.status = 500}, ""},
      {"expired signature", {.status = 403, .body = "<Error/>"}, http + "403: STORAGE"},
      {"range not satisfiable", {.status = 416}, http + "416: STORAGE"},
      {"another range", with("content-range", "bytes 0-9/99"), invalid + "wrong Content-Range bytes 0-9/99"},
      {"another content", with("etag", "\"0123\""), invalid + "final ranged validator differs for SHARD"},
      {"chunked", {.chunked = true}, invalid + "wrong Content-Length for SHARD"},
      {"an early end", {.closeAfter = 100}, ""},
      {"no byte, then the end", {.closeAfter = 0}, ""},
      {"a reset in the body", {.resetAfter = 100}, ""},
      {"a kept connection that was reset is opened anew", {.resetBeforeHead = true}, "no error"},
  };
  for (const auto& [name, fault, expected] : rows) {
    SCOPED_TRACE(name);
    InstallHarness harness;
    std::size_t payloads = 0;
    inject(harness, fault, 1, [&](const InstallHarness& h, const HubRequest& request) {
      return isPayload(*h.checkpoint, request) && payloads++ >= 2;
    });
    RemoteStreamingRepackOptions options = harness.options();
    options.rangeRetryAttempts = 2;
    const std::string error =
        replacingEach(withoutAddresses(harness.installError(options)), "model-0", " ", "SHARD");
    EXPECT_THAT(error, StartsWith(expected.empty() ? "no error" : expected));
    EXPECT_EQ(harness.audit.remoteRangeRetries, expected.empty() ? 1U : 0U);
    if (error != "no error") {
      EXPECT_EQ(RemoteInstallCheckpoint::load(harness.output + ".resume.json").completedRanges.size(), 2U);
      harness.hub->setFaults(nullptr);
      options.resume = true;
      EXPECT_EQ(harness.installError(options), "no error");
    }
    EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
  }
}

/// Each phase survives two passing faults and reports one that stays.
TEST(HubFaults, EveryPhaseIsTriedAgain) {
  const struct {
    const char *name, *method, *file, *range, *host;
  } phases[] = {
      {"index metadata", "HEAD", "index.json", "", "HUB/"},
      {"index", "GET", "index.json", "", "HUB/"},
      {"config metadata", "HEAD", "/config.json", "", "HUB/"},
      {"config", "GET", "/config.json", "", "HUB/"},
      {"header length", "GET", ".safetensors", "bytes=0-7", "STORAGE"},
      {"header", "GET", ".safetensors", "bytes=8-", "STORAGE"},
      {"payload", "GET", ".safetensors", "", "STORAGE"},
      {"sidecar metadata", "HEAD", "tokenizer_config.json", "", "HUB/"},
      {"sidecar", "GET", "tokenizer.json", "", "STORAGE"},
  };
  for (const auto& phase : phases) {
    const auto matches = [&](const InstallHarness& harness, const HubRequest& request) {
      return request.isFinalHop && request.method == phase.method &&
             ("/" + request.file).ends_with(phase.file) && request.range.starts_with(phase.range) &&
             isPayload(*harness.checkpoint, request) == (std::string_view(phase.name) == "payload");
    };
    for (const std::size_t times : {2U, 3U}) {
      SCOPED_TRACE(fmt::format("{}, {} times", phase.name, times));
      InstallHarness harness;
      RemoteStreamingRepackOptions options = harness.options();
      options.rangeRetryAttempts = 3;
      inject(harness, {.status = 503}, times, matches);
      const std::string error = withoutAddresses(harness.installError(options));
      EXPECT_THAT(error, StartsWith(times == 2 ? "no error" : std::string("remote HTTP 503: ") + phase.host));
      EXPECT_EQ(harness.audit.remoteRangeRetries, 2U);
      EXPECT_EQ(harness.audit.remoteRetries.back().attempt, 2);
      EXPECT_EQ(std::filesystem::exists(harness.output), times == 2);
    }
  }
}

/// What the hub answers for repositories, revisions and tokens that are not right, as a person sees it.
TEST(HubFaults, RefusalsOfTheHubAreNamed) {
  const std::string lab = labRepoID;
  const std::vector<std::tuple<std::string, std::string, std::string, std::string, int>> rows = {
      {"missing repository", "nobody/nothing", "main", "good", 404},
      {"unknown revision", lab, "v9", "good", 404},
      {"bad token", lab, "main", "bad", 401},
      {"an empty token is none", lab, "main", "", 401},
  };
  for (const auto& [name, repoID, revision, token, status] : rows) {
    SCOPED_TRACE(name);
    InstallHarness harness(SyntheticCheckpoint::custom({}, 1), [&](LocalHub::Options& options) {
      options.requiredToken = "good";
      options.repoID = lab;
    });
    RemoteStreamingRepackOptions options = harness.options();
    options.repoID = repoID;
    options.revision = revision;
    options.token = token;
    EXPECT_EQ(withoutAddresses(harness.installError(options)),
              fmt::format("remote HTTP {}: HUB/{}/resolve/{}/model.safetensors.index.json", status, repoID,
                          revision));
  }
}

}  // namespace
}  // namespace vellicor
