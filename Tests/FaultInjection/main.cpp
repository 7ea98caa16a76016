#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

#include "Tests/FaultInjection/TrialReport.h"
#include "Tests/FaultInjection/Trials.h"

namespace vellicor {

namespace {

constexpr std::size_t shownFailures = 20;

/// Runs one trial and prints its figures, and what failed first. Returns whether nothing did.
bool runTrial(const NamedTrial& trial, const TrialOptions& options) {
  TrialReport report;
  const auto start = std::chrono::steady_clock::now();
  try {
    trial.run(options, report);
  } catch (const std::exception& error) {
    report.fail(error.what());
  }
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  const std::vector<std::string> failures = report.failures();
  fmt::print("{}: {} in {:.0f} s\n", trial.name, failures.empty() ? "held" : "BROKEN", taken.count());
  for (const auto& [figure, number] : report.figures()) fmt::print("  {:>8}  {}\n", number, figure);
  for (std::size_t i = 0; i < std::min(failures.size(), shownFailures); ++i) {
    fmt::print("  failure: {}\n", failures[i]);
  }
  if (failures.size() > shownFailures) fmt::print("  and {} more\n", failures.size() - shownFailures);
  return failures.empty();
}

/// Syncing to a disk takes most of the time, and a trial learns nothing from it.
void useMemoryForScratch() {
  constexpr const char* memory = "/dev/shm";
  if (::access(memory, W_OK) == 0) ::setenv("TMPDIR", memory, 0);
}

int runTrials(int argumentCount, char** arguments) {
  CLI::App app(
      "Injects faults into installs and checks that at any moment the output is absent, resumable or right",
      "FaultInjection");
  TrialOptions options;
  std::vector<std::string> names;
  app.add_flag("--full", options.full, "All of it, minutes instead of seconds");
  app.add_option("--thinning", options.thinning,
                 "Fewer points by this factor in the short form, for slow builds")
      ->check(CLI::PositiveNumber);
  app.add_option("--seed", options.seed, "Another choice of what is chosen at random");
  CLI::Option* chosen = app.add_option("trial", names, "Which trials; all when none is named");
  std::vector<std::string> known;
  for (const NamedTrial& trial : allTrials()) known.push_back(trial.name);
  chosen->check(CLI::IsMember(known));
  CLI11_PARSE(app, argumentCount, arguments);
  useMemoryForScratch();
  bool held = true;
  for (const NamedTrial& trial : allTrials()) {
    const bool isChosen = names.empty() || std::ranges::find(names, trial.name) != names.end();
    if (isChosen) held = runTrial(trial, options) && held;
  }
  return held ? 0 : 1;
}

}  // namespace

std::vector<NamedTrial> allTrials() {
  return {
    {"kills", tryKills}, {"wire", tryWireFaults}, {"links", tryLinks}, {"races", tryRaces},
#if defined(VELLICOR_FILE_CALLS)
        {"calls", tryFailingCalls}, {"flips", tryFlips}, {"power", tryPowerCuts}, {"disks", tryDisks},
#endif
  };
}

}  // namespace vellicor

int main(int argumentCount, char** arguments) try {
  return vellicor::runTrials(argumentCount, arguments);
} catch (const std::exception& error) {
  fmt::print(stderr, "FaultInjection: {}\n", error.what());
  return 1;
}
