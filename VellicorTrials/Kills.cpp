#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>

#include "VellicorLab/ChildProcess.h"
#include "VellicorTrials/Recovery.h"
#include "VellicorTrials/Trials.h"

namespace vellicor {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t shortKills = 50;
constexpr std::size_t fullKills = 4000;

/// One output after another, each installed under fire.
class KilledInstalls {
 public:
  KilledInstalls(std::uint64_t seed, TrialReport& report)
      : report_(report), random_(seed), harness_(SyntheticCheckpoint::custom({}, seed)), recovery_(harness_) {
    const auto start = Clock::now();
    startAndKill(false, true);
    wholeInstall_ = Clock::now() - start;
  }

  /// Kills `kills` processes in all, or a few fewer at the end of the last install.
  void run(std::size_t kills) {
    while (kills > 0) kills -= std::min(kills, installOnce(kills));
  }

 private:
  /// Starts and kills until a start ends by itself; returns the kills that hit.
  std::size_t installOnce(std::size_t most) {
    std::filesystem::remove_all(harness_.output);
    std::size_t hits = 0;
    bool resumes = false;
    for (;;) {
      const bool spared = hits >= most;
      const ProcessResult result = startAndKill(resumes, spared);
      if (result.status == 128 + SIGKILL) {
        report_.count("kills");
        ++hits;
        if (recovery_.hasOutput()) break;
        resumes = true;
        continue;
      }
      if (result.status == 0) break;
      resumes = next(result.errors);
    }
    judgeOutput();
    const auto left = recovery_.leftovers();
    if (!left.empty()) RemoteStreamingRepacker::discardPartial(harness_.output);
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

  /// Does what a refusal says; returns whether the next start is a resume.
  bool next(const std::string& refusal) {
    const auto says = [&](const char* text) { return refusal.find(text) != std::string::npos; };
    if (says("no resumable install state exists for ")) return false;
    if (says("partial directory and checkpoint must exist together")) {
      RemoteStreamingRepacker::discardPartial(harness_.output);
      report_.count("states without a checkpoint, discarded");
      return false;
    }
    throw std::runtime_error("refused after a kill: " + refusal);
  }

  void judgeOutput() {
    if (!recovery_.hasOutput()) return;
    for (const std::string& wrong : recovery_.wrongs()) report_.fail("after a kill: " + wrong);
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
