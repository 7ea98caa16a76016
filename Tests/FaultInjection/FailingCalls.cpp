#include <algorithm>
#include <cerrno>
#include <csignal>
#include <stdexcept>

#include <fmt/format.h>

#include "Tests/FaultInjection/FileCallRecord.h"
#include "Tests/FaultInjection/Scenarios.h"
#include "Tests/FaultInjection/Trials.h"
#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {

namespace {

constexpr int killed = 128 + SIGKILL;

using Processors = FileCallPlan::Processors;

struct Point {
  FileCall call;
  std::string action;
  /// On all of them, threads take turns differently in each run: the point is a number of that run's calls.
  Processors processors = Processors::one;

  bool endsProcess() const { return action == "die" || action == "tear"; }
  bool isFailure() const { return !endsProcess() && action != "short"; }
};

/// The installer's message when this call fails with this code.
std::string textOf(const FileCall& call, std::int32_t code) {
  const auto length = static_cast<std::int64_t>(call.length);
  const std::string& name = call.name;
  if (name == "open" || name == "flock" || name == "unlink" || name == "remove") {
    return RepackError(FileOpenFailed{.path = call.path, .errnoValue = code}).description();
  }
  if (name == "stat" || name == "statvfs")
    return RepackError(FileStatFailed{.path = call.path, .errnoValue = code}).description();
  if (name == "pread")
    return RepackError(PreadShort{.path = call.path, .expected = length, .got = 0, .errnoValue = code})
        .description();
  if (name == "pwrite")
    return RepackError(PwriteShort{.path = call.path, .expected = length, .wrote = 0, .errnoValue = code})
        .description();
  if (name == "ftruncate")
    return RepackError(FtruncateFailed{.path = call.path, .errnoValue = code}).description();
  if (name == "fsync") return RepackError(FsyncFailed{.path = call.path, .errnoValue = code}).description();
  if (name == "rename")
    return RepackError(RenameFailed{.from = call.path, .to = call.otherPath, .errnoValue = code})
        .description();
  if (name == "exchange") {
    // The one that is tried at the start is reported for the output.
    const std::string path = call.path.substr(0, call.path.rfind(".exchange-"));
    return RepackError(PromotionUnsupported{.path = path, .errnoValue = code}).description();
  }
  return "";
}

/// Whether the printed line ends in the installer's text for the call; in that of the operation on an entry
/// whose directory could not be opened; or in the standard library's where a directory could not be made,
/// made durable, listed or removed.
bool isTextOf(const std::string& line, const std::string& operation, const FileCall& call,
              std::int32_t code) {
  if (!line.starts_with(operation + " failed: ")) return false;
  const std::string own = textOf(call, code);
  if (!own.empty() && line.ends_with(own + "\n")) return true;
  const bool opens = call.name == "open";
  if (opens && line.find(call.path + "/") != std::string::npos &&
      line.ends_with(fmt::format(": errno {}\n", code))) {
    return true;
  }
  const bool isStandard =
      opens || call.name == "mkdir" || call.name == "remove" || call.name == "stat" || call.name == "fsync";
  return isStandard && line.find("filesystem error: ") != std::string::npos;
}

void judge(ScenarioBench& bench, const ProcessResult& result, const Point& point, const FileCall& met) {
  if (result.status == killed && point.endsProcess()) {
    bench.count("ends of the process");
  } else if (result.status == 0 && !point.endsProcess()) {
    bench.judgeSuccess();
    bench.count("failures that cost nothing");
  } else if (result.status == 1 && point.isFailure()) {
    const int code = std::stoi(point.action);
    if (!isTextOf(result.errors, bench.scenario().spokenName(), met, code)) {
      throw std::runtime_error("another text than " + textOf(met, code));
    }
    bench.count("failures reported in their own text");
  } else {
    throw std::runtime_error("unexpected end");
  }
  bench.judgeOutput();
  bench.recover();
}

void tryPoint(ScenarioBench& bench, const Point& point, TrialReport& report) {
  bench.reset();
  const FileCallRun run =
      bench.run({.point = point.call.number, .action = point.action, .processors = point.processors});
  const auto met = std::ranges::find(run.calls, point.call.number, &FileCall::number);
  const auto leak = std::ranges::find(run.calls, std::string("leak"), &FileCall::name);
  try {
    if (leak != run.calls.end()) throw std::runtime_error("left open: " + leak->path);
    if (met == run.calls.end()) throw std::runtime_error("the call was not reached");
    // A FUSE file system keeps a removed file that is open under a hidden name for a while, which adds calls.
    const bool isMoved = std::ranges::any_of(
        run.calls, [](const FileCall& call) { return call.path.find("/.fuse_hidden") != std::string::npos; });
    if (isMoved) report.count("runs that met a removed file that was still open");
    if (point.processors == Processors::one && met->name != point.call.name && !isMoved) {
      throw std::runtime_error(
          fmt::format("not the call of the untouched run but {} {}", met->name, met->path));
    }
    judge(bench, run.result, point, *met);
    if (!point.endsProcess()) report.count("processes that ended with every descriptor closed");
    if (point.processors == Processors::all) bench.count("on all processors");
  } catch (const std::exception& error) {
    report.fail(fmt::format("{}, {} at call {} {} {}: {} (status {}, {})", bench.scenario().name,
                            point.action, point.call.number, point.call.name, point.call.path, error.what(),
                            run.result.status, run.result.errors));
  }
}

std::vector<std::string> actionsAt(const FileCall& call, const TrialOptions& options) {
  std::vector<std::string> actions = {"die"};
  for (const int code : {ENOSPC, EIO, EINTR, EDQUOT, EROFS}) actions.push_back(fmt::to_string(code));
  const bool isTransfer = call.name == "pread" || call.name == "pwrite";
  if (isTransfer) actions.emplace_back("short");
  if (call.name == "pwrite") actions.emplace_back("tear");
  if (options.full) return actions;
  // The short form does one thing to one call in twelve: it ends the process or fails the call, by turns.
  const std::uint64_t step = 12 * options.thinning;
  const std::uint64_t place = call.number + options.seed;
  if (place % step != 0) return {};
  const std::uint64_t turn = place / step;
  return {turn % 2 == 0 ? actions.front() : actions[1 + turn / 2 % (actions.size() - 1)]};
}

void tryScenario(const Scenario& scenario, const TrialOptions& options, TrialReport& report) {
  const auto benches = benchesFor(scenario, report);
  benches.front()->reset();
  const FileCallRun untouched = benches.front()->run({});
  if (untouched.result.status != 0) throw std::runtime_error("untouched: " + untouched.result.errors);
  // A verification is all hashing; of an install it is a small part.
  const bool triesThreads = scenario.operation == Scenario::Operation::verify || options.full;
  std::vector<Point> points;
  const auto exchange = std::ranges::find(untouched.calls.rbegin(), untouched.calls.rend(),
                                          std::string("exchange"), &FileCall::name);
  for (const FileCall& call : untouched.calls) {
    std::vector<std::string> actions = actionsAt(call, options);
    // The few calls after an exchange decide whether anything is fetched again: each is a process's last one.
    const bool isAfterExchange = exchange != untouched.calls.rend() && call.number > exchange->number;
    if (isAfterExchange && !options.full) actions = {"die"};
    for (const std::string& action : actions) points.push_back({call, action});
    if (triesThreads) points.push_back({call, fmt::to_string(EIO), Processors::all});
    benches.front()->count("calls");
  }
  forEachInParallel(points.size(), report, [&](std::size_t worker, std::size_t item) {
    tryPoint(*benches[worker], points[item], report);
  });
  report.count("points in all", points.size());
}

}  // namespace

void tryFailingCalls(const TrialOptions& options, TrialReport& report) {
  for (const Scenario& scenario : possibleScenarios(report)) tryScenario(scenario, options, report);
}

}  // namespace vellicor
