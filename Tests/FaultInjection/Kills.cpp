#include <algorithm>
#include <chrono>
#include <csignal>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>

#include "Tests/FaultInjection/Recovery.h"
#include "Tests/FaultInjection/Trials.h"
#include "VellicorLab/ChildProcess.h"
#include "VellicorLab/Removals.h"

namespace vellicor {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t shortKills = 50;
constexpr std::size_t fullKills = 4000;
constexpr int killed = 128 + SIGKILL;

/// One output after another, each installed under fire.
class KilledInstalls {
 public:
  KilledInstalls(std::uint64_t seed, TrialReport& report)
      : report_(report),
        random_(seed),
        harness_(SyntheticCheckpoint::custom({}, seed)),
        recovery_(harness_, report) {
    const auto start = Clock::now();
    startAndKill(false, true);
    wholeInstall_ = Clock::now() - start;
  }

  /// Kills `kills` processes in all, or a few fewer at the end of the last install.
  void run(std::size_t kills) {
    while (kills > 0) kills -= std::min(kills, installOnce(kills));
  }

 private:
  /// Starts and kills until a start ends by itself or has promoted; returns the kills that hit, at least 1.
  std::size_t installOnce(std::size_t most) {
    removeSettled(harness_.output);
    harness_.hub->clearRequests();
    std::size_t hits = 0;
    ProcessResult result;
    do {
      recovery_.judgeCost(Recovery::Saved::intact, [&] { result = startAndKill(hits > 0, hits >= most); });
      if (result.status == killed) ++hits;
    } while (result.status == killed && !recovery_.hasOutput());
    const auto says = [&](const char* text) { return result.errors.find(text) != std::string::npos; };
    const bool isEarly = says("no resumable install state exists for ") ||
                         says("partial directory and checkpoint must exist together");
    if (isEarly) report_.count("kills so early that nothing could be resumed");
    if (result.status != 0 && result.status != killed && !isEarly) {
      throw std::runtime_error(fmt::format("after a kill: status {}, {}", result.status, result.errors));
    }
    recovery_.recover(Recovery::Overwrite::no);
    report_.count("kills", hits);
    report_.count("installs that ended");
    return std::max<std::size_t>(hits, 1);
  }

  ProcessResult startAndKill(bool resumes, bool spared) {
    ChildProcess process(
        harness_.command(resumes ? std::vector<std::string>{"--resume"} : std::vector<std::string>{}));
    if (!spared) {
      // No moment to synchronise with is wanted: any is as good.
      std::uniform_real_distribution<double> share(0, 1);
      std::this_thread::sleep_for(wholeInstall_ * share(random_));
      process.kill(SIGKILL);
    }
    return process.wait();
  }

  TrialReport& report_;
  std::mt19937_64 random_;
  InstallHarness harness_;
  Recovery recovery_;
  /// How long an install takes that is left alone.
  std::chrono::duration<double> wholeInstall_{};
};

}  // namespace

void tryKills(const TrialOptions& options, TrialReport& report) {
  const std::size_t kills = (options.full ? fullKills : shortKills) / workerCount();
  forEachInParallel(workerCount(), report, [&](std::size_t worker, std::size_t) {
    KilledInstalls(options.seed * 1000 + worker, report).run(kills);
  });
}

}  // namespace vellicor
