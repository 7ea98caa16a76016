#include <random>
#include <set>
#include <stdexcept>

#include <fmt/format.h>

#include "Tests/FaultInjection/DiskModel.h"
#include "Tests/FaultInjection/Scenarios.h"
#include "Tests/FaultInjection/Trials.h"

namespace vellicor {

namespace {

using Loss = DiskModel::Loss;

struct NamedLoss {
  Loss loss;
  const char* name;
};

constexpr NamedLoss losses[] = {{Loss::nothing, "nothing lost"},
                                {Loss::lastWriteTorn, "last write torn"},
                                {Loss::everything, "all that was not synced lost"},
                                {Loss::bytes, "bytes lost, sizes and names kept"},
                                {Loss::bytesAndSizes, "bytes and sizes lost, names kept"},
                                {Loss::atRandom, "lost at random"}};

constexpr int randomStates = 6;
/// The short form looks at one moment in so many.
constexpr std::size_t shortStep = 20;

/// A disk after a power cut.
struct CutState {
  DiskTree tree;
  std::string moment;
  const char* loss;
};

/// Anything reported as done survives the loss of all that was not synced.
void judgeReportedSuccess(ScenarioBench& bench, const DiskModel& disk, std::mt19937_64& random,
                          TrialReport& report) {
  bench.clear();
  materialize(disk.after(Loss::everything, random), bench.place());
  try {
    bench.judgeSuccess();
    bench.judgeOutput();
    report.count("reported successes that last");
  } catch (const std::exception& error) {
    report.fail(fmt::format("{}, power cut after the report: {}", bench.scenario().name, error.what()));
  }
}

/// The distinct states that power cuts after each call may leave.
std::vector<CutState> statesOf(ScenarioBench& bench, const TrialOptions& options, TrialReport& report) {
  bench.reset();
  DiskModel disk(bench.place());
  const FileCallRun recorded = bench.run({.keepsData = true});
  if (recorded.result.status != 0) throw std::runtime_error("untouched: " + recorded.result.errors);
  std::mt19937_64 random(options.seed);
  std::set<DiskTree> seen;
  std::vector<CutState> states;
  std::size_t moments = 0;
  for (const FileCall& call : recorded.calls) {
    if (!disk.apply(call)) continue;
    bench.count("moments");
    const std::size_t step = shortStep * options.thinning;
    if (!options.full && moments++ % step != options.seed % step) continue;
    for (const NamedLoss& loss : losses) {
      const int times = loss.loss == Loss::atRandom && options.full ? randomStates : 1;
      for (int i = 0; i < times; ++i) {
        DiskTree tree = disk.after(loss.loss, random);
        if (!seen.insert(tree).second) continue;
        states.push_back(
            {std::move(tree), fmt::format("call {} {} {}", call.number, call.name, call.path), loss.name});
      }
    }
  }
  judgeReportedSuccess(bench, disk, random, report);
  return states;
}

void tryState(ScenarioBench& bench, const CutState& state, TrialReport& report) {
  bench.clear();
  materialize(state.tree, bench.place());
  try {
    bench.judgeOutput();
    bench.recover();
    bench.judgeOutput();
    report.count(std::string("states, ") + state.loss);
  } catch (const std::exception& error) {
    report.fail(fmt::format("{}, power cut after {}, {}: {}", bench.scenario().name, state.moment, state.loss,
                            error.what()));
  }
}

}  // namespace

void tryPowerCuts(const TrialOptions& options, TrialReport& report) {
  for (const Scenario& scenario : possibleScenarios(report)) {
    const auto benches = benchesFor(scenario, report);
    const std::vector<CutState> states = statesOf(*benches.front(), options, report);
    forEachInParallel(states.size(), report, [&](std::size_t worker, std::size_t item) {
      tryState(*benches[worker], states[item], report);
    });
    report.count("states in all", states.size());
  }
}

}  // namespace vellicor
