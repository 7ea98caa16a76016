#include <array>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <span>
#include <stdexcept>

#include <fmt/format.h>
#include <unistd.h>

#include "Tests/FaultInjection/Recovery.h"
#include "Tests/FaultInjection/Trials.h"
#include "VellicorLab/ChildProcess.h"
#include "VellicorLab/Removals.h"

namespace vellicor {

namespace {

namespace fs = std::filesystem;

using Overwrite = Recovery::Overwrite;
using Command = std::vector<std::string>;

/// In the new artifact of an exchange, and not in the old one.
constexpr const char* differingFile = "special_tokens_map.json";

/// Messages that a process may print when another one was faster.
constexpr std::array<std::string_view, 6> refusals = {
    "another installer holds ", "output directory already exists: ",
    "saved download exists",    "no resumable install state exists for ",
    "must exist together",      "lock path was replaced during acquisition"};

/// Messages of a verification whose artifact is exchanged and removed meanwhile.
constexpr std::array<std::string_view, 3> verifyFailures = {"fstat(", "open(", "rename("};

/// The first of the phrases that the text holds; empty if it holds none.
std::string_view saidOf(std::span<const std::string_view> phrases, const std::string& text) {
  for (const std::string_view phrase : phrases) {
    if (text.find(phrase) != std::string::npos) return phrase;
  }
  return "";
}

/// What happens to the lock file of a running install, and who else wants its partial directory.
enum class Lock { removed, replaced };
enum class Second { resume, discard };

/// One output and the processes that want it.
class RaceTrack {
 public:
  RaceTrack(std::uint64_t seed, TrialReport& report)
      : report_(report), random_(seed), harness_(SyntheticCheckpoint::custom(tinyShape(), seed)) {
    harness_.rangeChunkBytes = 2048;
    place_ = harness_.directory / "place";
    harness_.output = place_ + "/m.morlen";
    harness_.checkpoint->setSmallFile(differingFile, "new");
    recovery_.emplace(harness_, report_);
  }

  void raceInstalls(std::size_t processes) {
    begin();
    race(fmt::format("{} installs", processes), std::vector<Command>(processes, harness_.command()));
  }

  void raceResumeAgainst(Second kind) {
    beginInterrupted();
    race("a resume against another start", {commandOf(Second::resume), commandOf(kind)});
  }

  /// Verifications of an artifact while another one replaces it, to the last moment of the install.
  void raceVerifications() {
    begin();
    harness_.checkpoint->setSmallFile(differingFile, std::nullopt);
    harness_.install(harness_.options());
    harness_.checkpoint->setSmallFile(differingFile, "new");
    const std::string before = verify().output;
    std::set<std::string> seen;
    ChildProcess install(harness_.command({"--overwrite"}));
    auto ended = std::async(std::launch::async, [&] { return install.wait(); });
    while (ended.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      judgeVerification(verify(), seen);
    }
    const ProcessResult result = ended.get();
    if (result.status != 0) throw std::runtime_error("the install: " + result.errors);
    recovery_->recover(Overwrite::no);
    seen.insert({before, verify().output});
    if (seen.size() != 2) report_.fail("a verification passed on neither the old nor the new artifact");
  }

  /// A second process while a first one is in the middle of a range and its lock file has gone.
  void loseLock(Lock lock, Second kind) {
    beginInterrupted();
    std::promise<void> lost;
    bool happened = false;
    harness_.hub->setFaults([&](const HubRequest& request) -> std::optional<HubFault> {
      if (happened || !isPayload(*harness_.checkpoint, request)) return std::nullopt;
      happened = true;
      fs::remove(harness_.output + ".install.lock");
      if (lock == Lock::replaced) writeFile(harness_.output + ".install.lock", "");
      lost.set_value();
      // Long enough for the second one to do all its work, if it were let in.
      return HubFault{.trickle = std::chrono::milliseconds(1)};
    });
    ChildProcess first(commandOf(Second::resume));
    lost.get_future().wait();
    const ProcessResult second = runProcess(commandOf(kind));
    const ProcessResult firstResult = first.wait();
    harness_.hub->setFaults(nullptr);
    if (firstResult.status != 0) throw std::runtime_error("lost its lock file: " + firstResult.errors);
    if (second.status != 1 || second.errors.find("another installer holds ") == std::string::npos) {
      throw std::runtime_error(fmt::format("the second was let in: {} {}", second.status, second.errors));
    }
    report_.count("races: seconds kept out without the lock file");
    recovery_->recover(Overwrite::no);
  }

 private:
  Command commandOf(Second kind) const {
    if (kind == Second::resume) return harness_.command({"--resume"});
    return {programPath("VellicorRepack"), "--discard-partial", "--output", harness_.output};
  }

  void begin() {
    removeSettled(place_);
    fs::create_directory(place_);
    report_.count("races: rounds");
  }

  void beginInterrupted() {
    begin();
    harness_.interruptAtRange(1);
    const std::string error = harness_.installError(harness_.options());
    harness_.hub->setFaults(nullptr);
    if (error == "no error") throw std::runtime_error("the install was not interrupted");
  }

  /// Starts every command at one instant, or a few moments after it: one of them does what it came for.
  void race(const std::string& what, const std::vector<Command>& commands) {
    // Any moment is as good: what is wanted is that they meet.
    std::uniform_int_distribution<useconds_t> delays(0, random_() % 2 == 0 ? 1 : 60000);
    std::vector<std::unique_ptr<ChildProcess>> processes;
    for (const Command& command : commands) {
      const auto start = [delay = delays(random_)] {
        ::usleep(delay);
        ::alarm(120);  // Ends what hangs.
      };
      processes.push_back(std::make_unique<ChildProcess>(command, ProcessSurroundings{.beforeStart = start}));
    }
    report_.count("races: processes", commands.size());
    std::size_t winners = 0;
    for (const auto& process : processes) {
      const ProcessResult result = process->wait();
      const std::string_view refusal = saidOf(refusals, result.errors);
      if (result.status == 0) {
        ++winners;
      } else if (result.status == 1 && !refusal.empty()) {
        report_.count(fmt::format("races: refused, \"{}\"", refusal));
      } else {
        report_.fail(fmt::format("{}: status {}, {}", what, result.status, result.errors));
      }
    }
    if (winners != 1) report_.fail(fmt::format("{}: {} succeeded", what, winners));
    recovery_->recover(Overwrite::no);
  }

  ProcessResult verify() const {
    return runProcess({programPath("VellicorRepack"), "--verify-install", "--input-morlen", harness_.output},
                      {.beforeStart = [] { ::alarm(60); }});
  }

  /// Adds what a verification that passed printed to `seen`.
  void judgeVerification(const ProcessResult& result, std::set<std::string>& seen) {
    const bool isOwn = result.errors.starts_with("verification failed: ");
    if (result.status == 0) {
      seen.insert(result.output);
      report_.count("races: verifications that passed");
    } else if (result.status == 1 && isOwn && !saidOf(verifyFailures, result.errors).empty()) {
      report_.count("races: verifications of an artifact that went away");
    } else {
      report_.fail(fmt::format("a verification: status {}, {}", result.status, result.errors));
    }
  }

  TrialReport& report_;
  std::mt19937_64 random_;
  InstallHarness harness_;
  std::string place_;
  std::optional<Recovery> recovery_;
};

}  // namespace

void tryRaces(const TrialOptions& options, TrialReport& report) {
  const std::size_t rounds = options.full ? 60 : 2;
  std::vector<std::unique_ptr<RaceTrack>> tracks;
  for (std::size_t i = 0; i < workerCount(); ++i) {
    tracks.push_back(std::make_unique<RaceTrack>(options.seed * 1000 + i, report));
  }
  std::vector<std::function<void(RaceTrack&)>> races = {
      [](RaceTrack& track) { track.raceInstalls(8); },
      [](RaceTrack& track) { track.raceInstalls(2); },
      [](RaceTrack& track) { track.raceResumeAgainst(Second::resume); },
      [](RaceTrack& track) { track.raceResumeAgainst(Second::discard); },
      [](RaceTrack& track) { track.loseLock(Lock::removed, Second::resume); },
      [](RaceTrack& track) { track.loseLock(Lock::replaced, Second::resume); },
      [](RaceTrack& track) { track.loseLock(Lock::removed, Second::discard); },
      [](RaceTrack& track) { track.loseLock(Lock::replaced, Second::discard); },
  };
  if (canExchangeNames()) {
    races.emplace_back([](RaceTrack& track) { track.raceVerifications(); });
  } else {
    report.count(fmt::format("races: verifications of an artifact that is replaced: {}", noExchange));
  }
  forEachInParallel(rounds * races.size(), report, [&](std::size_t worker, std::size_t item) {
    races[item % races.size()](*tracks[worker]);
  });
}

}  // namespace vellicor
