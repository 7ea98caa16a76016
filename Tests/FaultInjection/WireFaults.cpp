#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <numeric>
#include <semaphore>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Tests/FaultInjection/OwnProcess.h"
#include "Tests/FaultInjection/Recovery.h"
#include "Tests/FaultInjection/Trials.h"
#include "Tests/FaultInjection/WireFaultTable.h"
#include "VellicorLab/Emulator.h"
#include "VellicorLab/Removals.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/JoiningThread.h"
#include "VellicorRepackCore/Remote/CurlTransport.h"

namespace vellicor {

namespace {

using namespace std::chrono_literals;

using Clock = std::chrono::steady_clock;
using Outcome = WireOutcome;

constexpr int attempts = 3;
constexpr const char* token = "lab-token";
// Far more than the times that slow faults are given, far less than the minute of all others.
constexpr auto longestInstall = 20s;
constexpr auto longestReturn = 1s;
constexpr std::uint64_t mostHeadMemory = 4 << 20;

void require(bool holds, const std::string& otherwise) {
  if (!holds) throw std::runtime_error(otherwise);
}

/// Whether the text is the pattern's, where a * stands for anything.
bool fits(std::string_view text, std::string_view pattern) {
  const std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) return text == pattern;
  const std::string_view begin = pattern.substr(0, star), end = pattern.substr(star + 1);
  return text.size() >= begin.size() + end.size() && text.starts_with(begin) && text.ends_with(end);
}

/// The places of a whole install, by the log of one without faults.
std::vector<WirePlace> placesOf(const SyntheticCheckpoint& checkpoint, const std::vector<HubRequest>& log) {
  const std::string shard = checkpoint.shardNames().back();
  const std::string index = "model.safetensors.index.json", config = "config.json";
  const std::string sidecar = "tokenizer.json", smallSidecar = "tokenizer_config.json";
  const struct {
    const char* name;
    const char* method;
    std::string file;
    const char* range;
    bool isSaved;
  } phases[] = {
      {"index metadata", "HEAD", index, "", false},
      {"index", "GET", index, "bytes=0-", false},
      {"config metadata", "HEAD", config, "", false},
      {"config", "GET", config, "bytes=0-", false},
      {"shard metadata", "HEAD", shard, "", false},
      {"header length", "GET", shard, "bytes=0-7", false},
      {"header", "GET", shard, "bytes=8-", false},
      {"payload", "GET", shard, "bytes=", true},
      {"sidecar metadata", "HEAD", smallSidecar, "", true},
      {"sidecar", "GET", sidecar, "bytes=0-", true},
  };
  std::vector<WirePlace> places;
  for (const auto& phase : phases) {
    const auto last = std::ranges::find_if(log, [&](const HubRequest& request) {
      return request.isFinalHop && request.method == phase.method && request.file == phase.file &&
             request.range.starts_with(phase.range) &&
             isPayload(checkpoint, request) == (std::string_view(phase.name) == "payload");
    });
    require(last != log.end(), fmt::format("an install makes no request for its {}", phase.name));
    WirePlace place{.phase = phase.name, .method = phase.method, .file = phase.file, .range = last->range};
    place.isSaved = phase.isSaved;
    place.hops =
        static_cast<int>(std::ranges::count_if(log, [&](const auto& r) { return place.isOperation(r); }));
    for (const HubRequest& request : log) {
      if (!place.isOperation(request)) continue;
      place.host = request.host;
      place.firstPiece = firstPieceOf(request);
      place.isFirst = request.number == 0;
      places.push_back(place);
      ++place.hop;
    }
  }
  return places;
}

/// A fault at a place, from which attempt on or up to which.
struct Cell {
  const WireFault* fault;
  const WirePlace* place;
  WireExpectation expected;
  int attempt;

  bool isTriedAgain() const { return expected.outcome == Outcome::triedAgain; }
  bool isRefused() const { return expected.outcome == Outcome::refused; }
  bool succeeds() const { return !isRefused() && !(isTriedAgain() && attempt == attempts); }
  /// Only a kept connection makes the transport send again: one that the attempt's first hop has opened, or
  /// one of earlier requests, unless an attempt has lost it or broken it off.
  int resends() const {
    if (!fault->isResent) return 0;
    const bool isOpenedByAttempt = place->hop == 2 && place->host == "localhost";
    if (isTriedAgain()) return isOpenedByAttempt ? attempt : place->isFirst ? 0 : 1;
    const bool isKept = attempt == 1 ? !place->isFirst : isOpenedByAttempt || place->isMetadata();
    return isKept ? 1 : 0;
  }
  /// Attempts that end in an error and are followed by another.
  int retries() const { return isTriedAgain() ? std::min(attempt, attempts - 1) : attempt - 1; }

  /// Of the operation at the place, on all its hops.
  int requests() const {
    const int failed = isTriedAgain() ? attempt : attempt - 1;
    const bool isComplete = succeeds() || expected.isLater;
    const int last = isComplete ? place->hops : isRefused() ? place->hop : 0;
    return failed * place->hop + last + resends() + expected.moreRequests;
  }
  std::string name() const {
    return fmt::format("{} at {}, hop {}, attempt {}", fault->name, place->phase, place->hop, attempt);
  }
};

/// Tries faults and cancellations, one after another.
class Bench {
 public:
  explicit Bench(TrialReport& report)
      : report_(report),
        harness_(SyntheticCheckpoint::custom(tinyShape(), 1),
                 [](LocalHub::Options& options) {
                   options.certificateNames = {"localhost", "127.0.0.1", thirdHost};
                 }),
        recovery_(harness_, report) {
    harness_.rangeChunkBytes = 1024;
    require(install({}) == "no error", "an install without faults failed");
    const std::vector<HubRequest> log = harness_.hub->requests();
    usualRequests_ = static_cast<int>(log.size());
    places_ = placesOf(*harness_.checkpoint, log);
  }

  const std::vector<WirePlace>& places() const { return places_; }

  void tryCell(const Cell& cell) {
    trying(cell.name(), [&] {
      inject(cell);
      const auto start = Clock::now();
      const std::string error = install(cell.fault->policy);
      const auto taken = Clock::now() - start;
      require(taken < longestInstall, "it took too long");
      require(taken >= cell.retries() * cell.fault->pause, "it did not wait as it was asked to");
      judgeError(cell, error);
      judgeRequests(cell);
      judgeState(cell);
    });
    constexpr std::array names = {"cells tried again", "cells refused", "cells without harm",
                                  "cells of a fault that nobody can see"};
    report_.count(names[static_cast<std::size_t>(cell.expected.outcome)]);
  }

  /// The hub goes for good while the request is under way.
  void tryHubGone(const WirePlace& place) {
    trying(fmt::format("the hub gone at {}, hop {}", place.phase, place.hop), [&] {
      const std::string error =
          fmt::format("could not connect to localhost:{}: Connection refused (*", harness_.hub->port());
      const auto isReached = awaitPlace(place, {.stallBeforeHead = true});
      JoiningThread goer([&] {
        static_cast<void>(isReached->try_acquire_for(longestInstall));
        harness_.hub.reset();
      });
      const std::string found = install({});
      goer.join();
      harness_.startHub();
      require(fits(found, error), found);
      require(harness_.audit.remoteRangeRetries == attempts - 1, "another number of retries");
      judgeSaved(place);
    });
    report_.count("hubs gone");
  }

  enum class Waiting { forHead, forBody, forRetry };

  void tryCancelling(const WirePlace& place, Waiting waiting) {
    const std::string name =
        fmt::format("cancelled at {}, hop {}, way {}", place.phase, place.hop, static_cast<int>(waiting));
    trying(name, [&] {
      HubFault fault{.stallBeforeHead = waiting == Waiting::forHead};
      if (waiting == Waiting::forBody) fault.stallAfter = 3;
      if (waiting == Waiting::forRetry) fault.status = 503;
      // Whether the moment was within the retry's wait shows by the retry's record.
      for (int tries = 0; tries < 20; ++tries) {
        clean();
        cancelOnce(place, fault);
        if (waiting != Waiting::forRetry || harness_.audit.remoteRangeRetries == 1) return judgeSaved(place);
      }
      throw std::runtime_error("the wait was never met");
    });
    report_.count("cancellations");
  }
  Clock::duration slowestReturn() const { return slowestReturn_; }

 private:
  template <typename Action>
  void trying(const std::string& what, Action action) {
    clean();
    const std::uint16_t port = harness_.hub->port();
    try {
      action();
      const std::vector<std::string> open = leftOpen(harness_.directory.path(), port);
      require(open.empty(), fmt::format("left open: {}", fmt::join(open, ", ")));
    } catch (const std::exception& error) {
      report_.fail(fmt::format("{}: {}", what, error.what()));
    }
  }

  void clean() {
    harness_.hub->setFaults(nullptr);
    harness_.hub->clearRequests();
    removeSettled(harness_.output);
    for (const std::string& name : recovery_.leftovers()) removeSettled(harness_.directory / name);
  }

  /// The error's text, or "no error".
  std::string install(const RemoteDownloadSessionPolicy& policy, CancellationToken stop = {},
                      std::uint64_t retryDelayNs = 0) {
    report_.count("installs");
    RemoteStreamingRepackOptions options = harness_.options();
    options.token = token;
    options.rangeRetryAttempts = attempts;
    options.retryBaseDelayNs = retryDelayNs;
    options.downloadSession = std::make_shared<RemoteDownloadSession>(
        policy, std::make_shared<CurlTransport>(CurlTransport::Options{.caFile = harness_.hub->caFile()}));
    return harness_.installError(options, std::move(stop));
  }

  /// The attempts before the fault's end in an ordinary error; a fault that is tried again meets all of them.
  void inject(const Cell& cell) {
    const int before = cell.isTriedAgain() ? 0 : cell.attempt - 1;
    int after = std::numeric_limits<int>::max();
    if (cell.isTriedAgain()) after = cell.attempt + cell.resends();
    if (cell.fault->isOnce) after = before + 1;
    const WireSite site{.port = harness_.hub->port(), .closedPort = closedPort_.number()};
    harness_.hub->setFaults([=, fault = cell.fault, place = *cell.place, met = std::make_shared<int>(0)](
                                const HubRequest& request) -> std::optional<HubFault> {
      if (request.host == thirdHost) return backTo(place.host, site.port, request.target);
      if (!place.isMetBy(request) || *met >= after) return std::nullopt;
      if (++*met <= before) return HubFault{.status = 503};
      return fault->make(request, site);
    });
  }

  static HubFault backTo(const std::string& host, std::uint16_t port, const std::string& target) {
    return {.status = 302, .headers = {{"location", fmt::format("https://{}:{}{}", host, port, target)}}};
  }

  void judgeError(const Cell& cell, const std::string& error) const {
    const WireExpectation& expected = cell.expected;
    const WirePlace& place = *cell.place;
    const bool isLast = cell.attempt == attempts && !expected.lastText.empty();
    const std::string& text = isLast ? expected.lastText : expected.text;
    const std::string pattern =
        cell.succeeds()
            ? "no error"
            : fmt::format(fmt::runtime(text),
                          fmt::arg("server", fmt::format("{}:{}", place.host, harness_.hub->port())),
                          fmt::arg("host", place.host), fmt::arg("closed", closedPort_.number()),
                          fmt::arg("file", place.file));
    const bool isAsExpected = fits(error, pattern) && cell.succeeds() == (error == "no error");
    require(isAsExpected, fmt::format("\"{}\" instead of \"{}\"", error, pattern));
  }

  void judgeRequests(const Cell& cell) const {
    const std::vector<HubRequest> log = harness_.hub->requests();
    const auto count = [&](auto matches) { return static_cast<int>(std::ranges::count_if(log, matches)); };
    const auto isThird = [](const HubRequest& request) { return request.host == thirdHost; };
    const auto requireCount = [&](int found, int usual) {
      const int most = usual + (cell.fault->mayBeMetLater ? 1 : 0);
      require(found >= usual && found <= most, fmt::format("{} requests instead of {}", found, usual));
    };
    requireCount(count([&](const auto& request) { return cell.place->isOperation(request); }),
                 cell.requests());
    const auto retries = static_cast<std::uint64_t>(cell.retries());
    require(harness_.audit.remoteRangeRetries == retries && harness_.audit.remoteRetries.size() == retries,
            fmt::format("{} retries instead of {}", harness_.audit.remoteRangeRetries, retries));
    const int others = usualRequests_ - cell.place->hops + count(isThird);
    if (cell.succeeds()) requireCount(static_cast<int>(log.size()), others + cell.requests());
    require(cell.succeeds() || cell.expected.isLater || cell.place->isOperation(log.back()),
            "more was asked for after the error");

    bool hasLeft = false;
    for (const HubRequest& request : log) {
      hasLeft = isThird(request) || (hasLeft && cell.place->isOperation(request));
      const bool isTrusted = request.host == "localhost" && !hasLeft;
      require(request.authorization == (isTrusted ? fmt::format("Bearer {}", token) : ""),
              fmt::format("the token was sent wrongly to {}", request.host));
    }
  }

  /// What is there is the right artifact, or leads to it.
  void judgeState(const Cell& cell) {
    if (!cell.succeeds()) return judgeSaved(*cell.place);
    const std::vector<std::string> left = recovery_.leftovers();
    require(left.empty(), fmt::format("{} left", fmt::join(left, ", ")));
    const std::vector<std::string> wrongs = recovery_.wrongs();
    if (cell.expected.outcome == Outcome::undetected) return judgeFlipped(wrongs);
    require(wrongs.empty(), fmt::format("wrong artifact: {}", fmt::join(wrongs, "; ")));
  }

  /// One file is not what was meant to be sent, and the manifest has the digest of what was.
  static void judgeFlipped(const std::vector<std::string>& wrongs) {
    const bool areBytes = std::ranges::all_of(wrongs, [](const std::string& wrong) {
      return wrong.find(": differs at byte") != std::string::npos;
    });
    require(areBytes && wrongs.size() == 2 && wrongs[0].starts_with("manifest.json"),
            fmt::format("a flipped byte has led to: {}", fmt::join(wrongs, "; ")));
  }

  /// Nothing is promoted, nothing of an answer that was not accepted is kept, and what was saved serves.
  void judgeSaved(const WirePlace& place) {
    harness_.hub->setFaults(nullptr);
    require(!recovery_.hasOutput(), "an artifact in spite of the error");
    for (const auto& [path, content] : readTree(harness_.output + ".partial")) {
      const bool isTemporary = path.find("vellicor-range-") != std::string::npos || path == ".range.tmp";
      require(!isTemporary, path + " is left");
    }
    const std::vector<std::string> steps = recovery_.recover(Recovery::Overwrite::no);
    report_.count("installs", steps.size());
    const bool isResumed = steps == std::vector<std::string>{"resume: no error"};
    require(isResumed == place.isSaved, fmt::format("recovered by {}", fmt::join(steps, ", ")));
  }

  /// Every request at the place meets the fault and raises the semaphore.
  std::shared_ptr<std::counting_semaphore<>> awaitPlace(const WirePlace& place, const HubFault& fault) {
    auto isReached = std::make_shared<std::counting_semaphore<>>(0);
    harness_.hub->setFaults([=](const HubRequest& request) -> std::optional<HubFault> {
      if (!place.isMetBy(request)) return std::nullopt;
      isReached->release();
      return fault;
    });
    return isReached;
  }

  void cancelOnce(const WirePlace& place, const HubFault& fault) {
    const auto isReached = awaitPlace(place, fault);
    CancellationSource source;
    Clock::time_point asked;
    JoiningThread canceller([&] {
      static_cast<void>(isReached->try_acquire_for(longestInstall));
      // Any moment from here on is as good.
      std::this_thread::sleep_for(20ms);
      asked = Clock::now();
      source.cancel();
    });
    constexpr std::uint64_t longRetryDelay = 10'000'000'000;
    const std::string error = install({}, source.token(), longRetryDelay);
    const auto returned = Clock::now();
    canceller.join();
    require(error == "cancelled", error);
    require(returned - asked < longestReturn, "it took too long");
    slowestReturn_ = std::max(slowestReturn_, returned - asked);
  }

  TrialReport& report_;
  InstallHarness harness_;
  Recovery recovery_;
  ClosedPort closedPort_;
  std::vector<WirePlace> places_;
  int usualRequests_ = 0;
  Clock::duration slowestReturn_{};
};

using Waiting = Bench::Waiting;
using Task = std::function<void(Bench&)>;

/// So many of the cells, well mixed, or all of them.
std::vector<Cell> chosen(const std::vector<Cell>& cells, std::size_t most, std::size_t first) {
  const std::size_t count = std::min(most, cells.size());
  std::vector<Cell> chosen;
  std::size_t step = cells.size() * 5 / 8 + 1;
  while (std::gcd(step, cells.size()) != 1) ++step;
  for (std::size_t i = 0; i < count; ++i) chosen.push_back(cells[(first + i * step) % cells.size()]);
  return chosen;
}

/// The cells of one fault that make sense.
std::vector<Cell> cellsOf(const WireFault& fault, const std::vector<WirePlace>& places, TrialReport& report) {
  std::vector<Cell> cells;
  for (const WirePlace& place : places) {
    const WireExpectation expected = fault.expected(place);
    if (expected.outcome == Outcome::leftOut) {
      report.count("cells left out: no such thing in such a request", attempts);
      continue;
    }
    for (int attempt = 1; attempt <= attempts; ++attempt)
      cells.push_back({&fault, &place, expected, attempt});
  }
  return cells;
}

std::vector<Cell> chosenCells(const std::vector<WireFault>& faults, const std::vector<WirePlace>& places,
                              const TrialOptions& options, TrialReport& report) {
  constexpr std::size_t shortCells = 6;
  std::vector<Cell> cells;
  std::set<std::pair<std::string, int>> met;
  for (const WireFault& fault : faults) {
    const std::vector<Cell> all = cellsOf(fault, places, report);
    const std::size_t few = std::max<std::size_t>(1, shortCells / options.thinning);
    const std::size_t most = options.full ? all.size() : fault.isSlow ? 1 : few;
    for (const Cell& cell : chosen(all, most, options.seed * 7 + cells.size() * 11)) {
      cells.push_back(cell);
      met.emplace(cell.place->phase, cell.place->hop);
    }
    report.count("cells left to the full form", all.size() - std::min(most, all.size()));
  }
  report.count("faults", faults.size());
  report.count("places", places.size());
  if (met.size() != places.size()) report.fail("not every place meets a fault");
  // Long tasks go first, so that nobody waits for them at the end.
  std::stable_partition(cells.begin(), cells.end(), [](const Cell& cell) { return cell.fault->isSlow; });
  return cells;
}

/// An endless answer must not fill the memory.
void tryEndless(const std::vector<Cell>& cells, TrialReport& report) {
  Bench bench(report);
  bench.tryCancelling(bench.places().front(), Waiting::forHead);
  const std::optional<std::uint64_t> before = peakMemory();
  for (const Cell& cell : cells) bench.tryCell(cell);
  if (!before) return;
  if (isProcessorEmulated()) return report.count("memory at the peak: NOT TRIED, the emulator's counts too");
  const std::uint64_t more = *peakMemory() - *before;
  report.count("KiB more at the peak while something is sent without end", more / 1024);
  if (more > mostHeadMemory) report.fail("what is sent without end fills the memory");
}

std::vector<Waiting> waysToWait(const WirePlace& place) {
  if (place.isMetadata()) return {Waiting::forHead, Waiting::forRetry};
  return {Waiting::forHead, Waiting::forRetry, Waiting::forBody};
}

std::vector<Task> tasksOf(const std::vector<Cell>& cells, const std::vector<WirePlace>& places,
                          const TrialOptions& options) {
  std::vector<Task> tasks;
  tasks.reserve(cells.size());
  for (const Cell& cell : cells) {
    tasks.emplace_back([cell](Bench& bench) { bench.tryCell(cell); });
  }
  for (std::size_t i = 0; i < places.size(); ++i) {
    const WirePlace& place = places[i];
    const bool isTurn = options.full || (i + options.seed) % 3 == 0;
    if (isTurn) tasks.emplace_back([&place](Bench& bench) { bench.tryHubGone(place); });
    const std::vector<Waiting> ways = waysToWait(place);
    for (std::size_t way = 0; way < ways.size(); ++way) {
      if (!options.full && way != (i + options.seed) % ways.size()) continue;
      tasks.emplace_back(
          [&place, waiting = ways[way]](Bench& bench) { bench.tryCancelling(place, waiting); });
    }
  }
  return tasks;
}

}  // namespace

void tryWireFaults(const TrialOptions& options, TrialReport& report) {
  const std::vector<WireFault> faults = allWireFaults();
  const std::vector<WirePlace> places = Bench(report).places();
  std::vector<Cell> cells = chosenCells(faults, places, options, report);
  const auto isEndless = [](const Cell& cell) { return cell.fault->isEndless; };
  const auto others = std::stable_partition(cells.begin(), cells.end(), isEndless);
  tryEndless({cells.begin(), others}, report);
  const std::vector<Task> tasks = tasksOf({others, cells.end()}, places, options);
  const std::size_t before = openDescriptors();
  {
    std::vector<std::unique_ptr<Bench>> benches;
    for (std::size_t i = 0; i < workerCount(); ++i) benches.push_back(std::make_unique<Bench>(report));
    forEachInParallel(tasks.size(), report,
                      [&](std::size_t worker, std::size_t item) { tasks[item](*benches[worker]); });
    Clock::duration slowest{};
    for (const auto& bench : benches) slowest = std::max(slowest, bench->slowestReturn());
    report.count("ms that the slowest cancelled install took to return",
                 static_cast<std::uint64_t>(std::chrono::ceil<std::chrono::milliseconds>(slowest).count()));
  }
  if (openDescriptors() != before) report.fail("descriptors stayed open");
}

}  // namespace vellicor
