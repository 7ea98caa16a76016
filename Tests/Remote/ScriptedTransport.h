#pragma once

#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Remote/HuggingFaceRemote.h"

namespace vellicor::testing {

using Headers = std::vector<std::pair<std::string, std::string>>;

/// One hop's answer; status 0 delivers the body without any response, `failure` is thrown after the body.
struct Answer {
  int status = 206;
  Headers headers;
  std::vector<std::string> body;
  std::exception_ptr failure = nullptr;
};

/// Answers each request with the next of a list, or by rule where there is one, and records what was asked.
class ScriptedTransport final : public HttpTransport {
 public:
  std::vector<Answer> answers;
  std::function<Answer(const HttpRequest&)> rule;
  std::vector<HttpHopLimits> limits;
  /// "METHOD url Range Authorization" of every request.
  std::vector<std::string> wire;

  void perform(const HttpRequest& request, const HttpHopLimits& hopLimits, HttpObserver& observer,
               const CancellationToken& stop) override {
    const auto header = [&](const char* name) { return " " + request.headers.get(name).value_or("-"); };
    if (header("Accept-Encoding") != " identity") throw std::logic_error("the request allows compression");
    wire.push_back(request.method + " " + request.url.string() + header("Range") + header("Authorization"));
    limits.push_back(hopLimits);
    const Answer answer = rule ? rule(request) : answers.at(wire.size() - 1);
    HttpResponseHead head{.url = request.url, .status = answer.status, .headers = {}};
    for (const auto& [name, value] : answer.headers) head.headers.add(name, value);
    if (answer.status != 0) observer.onResponse(head);
    for (const std::string& piece : answer.body) {
      throwIfCancelled(stop);
      observer.onData(std::as_bytes(std::span(piece)));
    }
    if (answer.failure) std::rethrow_exception(answer.failure);
  }
};

inline const std::string commit(40, 'c'), protocol = "remote protocol invalid: ";
inline const auto testNow = std::chrono::system_clock::from_time_t(784111747);

/// A source over a scripted transport whose waits are recorded instead of waited for.
struct ScriptedHub {
  TemporaryDirectory directory;
  std::string scratch = directory / "scratch", target = directory / "sub/target";
  std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
  CancellationSource stop;
  std::vector<std::uint64_t> waits;
  RepackAudit audit;
  RetryEnvironment environment{[] { return testNow; }, [] { return std::uint64_t{7}; },
                               [this](std::uint64_t delay, const auto&) { waits.push_back(delay); }};
  std::shared_ptr<RemoteDownloadSession> session = std::make_shared<RemoteDownloadSession>(
      RemoteDownloadSessionPolicy{.maximumConnectionsPerHost = 3}, transport);
  RemoteUrl base = RemoteUrl::parse("https://hub.test").value();
  RemoteRetryPolicy policy{.attempts = 1};
  HuggingFaceRemoteSource source{"o/n", "main",  {},     "T0KEN",     session,
                                 base,  scratch, policy, environment, stop.token()};

  /// What downloading those bytes of "f" to the target comes to.
  std::string download(std::uint64_t size, std::uint64_t offset, std::int64_t length,
                       const RemoteProgressCallback& progress = nullptr) {
    const RemoteFileInfo info{"f", commit, size, {}, "aBc", true};
    return errorText(
        [&] { source.downloadRangeToTempFile("f", info, offset, length, target, progress, &audit); });
  }
  std::string content() { return std::filesystem::exists(target) ? readFile(target) : "absent"; }
  /// How many temporary files are left.
  std::ptrdiff_t leftovers() const {
    std::filesystem::create_directories(scratch);
    return std::distance(std::filesystem::directory_iterator(scratch), {});
  }
};

}  // namespace vellicor::testing
