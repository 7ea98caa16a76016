#include "Tests/Remote/ScriptedTransport.h"

namespace vellicor::testing {
namespace {

const Headers good = {{"content-length", "10"}, {"content-range", "bytes 20-29/100"}, {"etag", "\"ABC\""}};
const std::string bytes = "0123456789";

/// Bytes 20 to 29 of a file of 100; the target exists exactly when they arrived.
std::string transferred(ScriptedHub& hub, const RemoteProgressCallback& progress = nullptr) {
  const std::string outcome = hub.download(100, 20, 10, progress);
  EXPECT_EQ(hub.content(), outcome == "no error" ? bytes : "absent");
  return outcome;
}

std::string outcomeOf(const Answer& answer) {
  ScriptedHub hub;
  hub.transport->answers = {answer};
  return transferred(hub);
}

TEST(RemoteRangeTransfer, HeadersMustBeExact) {
  const std::string badTag = "final ranged validator differs for f", range = "content-range";
  const struct {
    std::string name;
    std::vector<std::string> values;
    /// Of the refusal, which ends with the value where that is quoted; empty for acceptance.
    std::string detail;
  } rows[] = {{"Content-Encoding", {"IDENTITY"}, ""},
              {"content-length", {"+10"}, ""},
              {"content-length", {"absent", "", "11", "10x"}, "wrong Content-Length for f"},
              {range, {"bytes /-20-29/100"}, ""},
              {range, {"bytes=20-29/100", "20-29/100"}, "malformed Content-Range "},
              {range, {"bytes 20-29/*", "bytes 20-29/101", "bytes 19-29/100"}, "wrong Content-Range "},
              {range, {"bytes 20-30/100", "bytes 20-19/100", "bytes -/"}, "wrong Content-Range "},
              {range, {"bytes 20-29/", "bytes 20-29/100/1", "bytes 20--29/100"}, "wrong Content-Range "},
              {"etag", {" aBC\t"}, ""},
              {"etag", {"absent", " ", "W/\"abc\"", "\"abd\"", "\"abc"}, badTag}};
  for (const auto& row : rows) {
    for (const std::string& value : row.values) {
      Headers headers = good;
      std::erase_if(headers, [&](const auto& field) { return field.first == row.name; });
      if (value != "absent") headers.emplace_back(row.name, value);
      const std::string text = protocol + row.detail + (row.detail.ends_with(' ') ? value : "");
      EXPECT_EQ(outcomeOf({206, headers, {bytes}}), row.detail.empty() ? "no error" : text) << value;
    }
  }
}

TEST(RemoteRangeTransfer, AnswersAndBodiesMustBeExact) {
  const auto lost = std::make_exception_ptr(NetworkError(NetworkError::Code::connectionLost, "lost"));
  const std::string at = ": https://hub.test/o/n/resolve/" + commit + "/f", body = "remote body for f ";
  EXPECT_EQ(outcomeOf({206, good, {"0", "1234", "56789"}}), "no error");
  EXPECT_EQ(outcomeOf({302, {{"Retry-After", "9"}}, {}}), "remote HTTP 302" + at + ", Retry-After 9");
  EXPECT_EQ(outcomeOf({206, good, {bytes, "x"}}), body + "exceeded 10 bytes at 11 bytes");
  EXPECT_EQ(outcomeOf({206, good, {"01234"}}), body + "was truncated: expected 10, received 5");
  EXPECT_EQ(outcomeOf({206, good, {"01234"}, lost}), "lost");
  EXPECT_EQ(outcomeOf({0, {}, {bytes}}), protocol + "range f completed without an accepted response");
}

TEST(RemoteRangeTransfer, FollowsRedirectsWithTheRangeAndGuardsTheToken) {
  const std::string refused = "remote redirect rejected for ",
                    onlyHTTPS = ": only HTTPS redirects are allowed";
  const std::string home = "https://hub.test/x", cdn = "https://cdn.hub.test/x?sig=1";
  // The Locations, one letter per request, T when it carries the token, and the outcome.
  const std::tuple<std::vector<std::string>, std::string, std::string> rows[] = {
      {{"/moved?sig=%2F"}, "TT", "no error"},
      {{"https://HUB.test/x"}, "TT", "no error"},
      {{cdn}, "T-", "no error"},
      {{cdn, home}, "T--", "no error"},
      {std::vector(5, home), "TTTTTT", "no error"},
      {std::vector(6, home), "TTTTTT", refused + home + ": more than 5 redirects"},
      {{"http://hub.test/x?sig=1"}, "T", refused + "http://hub.test/x" + onlyHTTPS},
      {{"https://[bad"}, "T", refused + "<unknown>" + onlyHTTPS}};
  for (const auto& [locations, tokens, outcome] : rows) {
    SCOPED_TRACE(tokens + " to " + locations.back());
    ScriptedHub hub;
    const std::string body(65536, 'x');
    for (const auto& to : locations) hub.transport->answers.push_back({302, {{"location", to}}, {body}});
    hub.transport->answers.push_back({206, good, {bytes}});
    EXPECT_EQ(transferred(hub), outcome);
    std::string sent;
    for (const std::string& line : hub.transport->wire) {
      sent += line.ends_with(" bytes=20-29 Bearer T0KEN") ? "T"
              : line.ends_with(" bytes=20-29 -")          ? "-"
                                                          : "?";
    }
    EXPECT_EQ(sent, tokens);
    EXPECT_EQ(hub.transport->limits.front().deadline, hub.transport->limits.back().deadline);
    EXPECT_EQ(hub.transport->limits.front().idleTimeout, std::chrono::seconds(60));
    EXPECT_EQ(hub.transport->limits.back().maximumConnectionsPerHost, 3);
  }
}

TEST(RemoteRangeTransfer, ProgressRestartsWithEveryAttemptAndIsThrottled) {
  ScriptedHub hub;
  hub.source.retryPolicy.attempts = 2;
  hub.transport->answers = {{206, good, {"01", "23"}}, {206, good, {"0", "1", "23456789"}}};
  std::vector<std::uint64_t> reports;
  EXPECT_EQ(transferred(hub, [&](std::uint64_t count) { reports.push_back(count); }), "no error");
  EXPECT_EQ(reports, (std::vector<std::uint64_t>{0, 2, 0, 1, 10}));
  EXPECT_EQ(hub.audit.remoteRetries.at(0).label, "downloadRangeToTempFile:f");
}

TEST(RemoteRangeTransfer, CancellationHalfWayRemovesTheTarget) {
  ScriptedHub hub;
  hub.transport->answers = {{206, good, {"01", "23456789"}}};
  const auto stopOnData = [&](std::uint64_t count) {
    if (count > 0) hub.stop.cancel();
  };
  EXPECT_EQ(transferred(hub, stopOnData), "cancelled");
  EXPECT_EQ(transferred(hub), "cancelled");
  EXPECT_EQ(hub.transport->wire.size(), 1u) << "a stopped transfer was begun";
}

}  // namespace
}  // namespace vellicor::testing
