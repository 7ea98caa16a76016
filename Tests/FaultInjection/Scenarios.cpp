#include "Tests/FaultInjection/Scenarios.h"

#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "VellicorLab/Removals.h"

namespace vellicor {

namespace {

namespace fs = std::filesystem;

using Operation = Scenario::Operation;

/// Two directories on the way to the output are still to be made.
void chooseNewDirectory(InstallHarness& harness) {
  const fs::path output = harness.output;
  harness.output = (output.parent_path() / "new/within" / output.filename()).string();
}

void interruptHalfway(InstallHarness& harness) {
  harness.interruptAtRange(3);
  const std::string error = harness.installError(harness.options());
  harness.hub->setFaults(nullptr);
  if (error == "no error") throw std::runtime_error("the install was not interrupted");
}

void interruptAndCut(InstallHarness& harness) {
  interruptHalfway(harness);
  fs::resize_file(harness.output + ".partial/packed_experts/layer_00.bin", 1);
}

void placeOldArtifact(InstallHarness& harness) {
  writeFile(harness.output + "/manifest.json", "old");
  writeFile(harness.output + "/old", "old");
  writeFile(harness.output + "/more/old", "old too");
}

void installWhole(InstallHarness& harness) { harness.install(harness.options()); }

std::vector<std::string> install(const InstallHarness& harness) { return harness.command(); }

std::vector<std::string> resume(const InstallHarness& harness) { return harness.command({"--resume"}); }

std::vector<std::string> overwrite(const InstallHarness& harness) { return harness.command({"--overwrite"}); }

std::vector<std::string> discard(const InstallHarness& harness) {
  return {programPath("VellicorRepack"), "--discard-partial", "--output", harness.output};
}

std::vector<std::string> verify(const InstallHarness& harness) {
  return {programPath("VellicorRepack"), "--verify-install", "--input-morlen", harness.output};
}

const std::vector<Scenario>& table() {
  static const std::vector<Scenario> scenarios = {
      {"install", Operation::install, chooseNewDirectory, install},
      {"resume", Operation::install, interruptHalfway, resume},
      {"resume over damaged files", Operation::install, interruptAndCut, resume, Recovery::Overwrite::no,
       Recovery::Saved::changed},
      {"overwrite", Operation::install, placeOldArtifact, overwrite, Recovery::Overwrite::yes},
      {"discard", Operation::discard, interruptHalfway, discard, Recovery::Overwrite::no,
       Recovery::Saved::changed},
      {"verify", Operation::verify, installWhole, verify},
  };
  return scenarios;
}

}  // namespace

std::string Scenario::spokenName() const {
  switch (operation) {
    case Operation::install:
      return "install";
    case Operation::discard:
      return "discard";
    case Operation::verify:
      return "verification";
  }
  return "";
}

std::span<const Scenario> allScenarios() { return table(); }

std::vector<Scenario> possibleScenarios(TrialReport& report) {
  const bool canOverwrite = canExchangeNames();
  std::vector<Scenario> possible;
  for (const Scenario& scenario : allScenarios()) {
    if (canOverwrite || scenario.overwrite == Recovery::Overwrite::no) {
      possible.push_back(scenario);
    } else {
      report.count(fmt::format("{}: {}", scenario.name, noExchange));
    }
  }
  return possible;
}

ScenarioBench::ScenarioBench(const Scenario& scenario, TrialReport& report)
    : scenario_(scenario), report_(report), harness_(SyntheticCheckpoint::custom(tinyShape(), 1)) {
  harness_.rangeChunkBytes = 512;
  saved_ = harness_.directory / "saved";
  place_ = harness_.directory / "place";
  fs::create_directory(place_);
  harness_.output = place_ + "/m.morlen";
  scenario_.prepare(harness_);
  fs::rename(place_, saved_);
  recovery_ = std::make_unique<Recovery>(harness_, report_);
}

void ScenarioBench::reset() {
  removeSettled(place_);
  fs::copy(saved_, place_, fs::copy_options::recursive);
  harness_.hub->clearRequests();
}

void ScenarioBench::clear() {
  removeSettled(place_);
  fs::create_directory(place_);
  harness_.hub->clearRequests();
}

FileCallRun ScenarioBench::run(FileCallPlan plan) const {
  plan.root = place_;
  return runWithFileCalls(scenario_.command(harness_), plan, harness_.directory / "record");
}

bool ScenarioBench::isOldInPlace() const { return fs::exists(harness_.output + "/old"); }

void ScenarioBench::judgeSuccess() {
  if (scenario_.operation != Operation::discard && !recovery_->hasOutput()) {
    throw std::runtime_error("success without an artifact");
  }
  if (isOldInPlace()) throw std::runtime_error("success with the old artifact in place");
  const std::vector<std::string> left = recovery_->leftovers();
  if (scenario_.operation == Operation::discard && !left.empty()) {
    throw std::runtime_error(fmt::format("{} stayed", fmt::join(left, ", ")));
  }
}

void ScenarioBench::judgeOutput() {
  if (!recovery_->hasOutput()) return;
  if (isOldInPlace() && readTree(harness_.output) == readTree(saved_ + "/m.morlen")) return;
  std::vector<std::string> wrongs = recovery_->wrongs();
  // What could not be removed, or was not when the process ended: in no manifest, and in no reader's way.
  std::erase_if(wrongs, [&](const std::string& wrong) {
    const std::string entry = wrong.substr(0, wrong.find(": unexpected"));
    const bool isStray = entry.starts_with(".remote-metadata") || entry.starts_with(".morlen-");
    if (isStray) fs::remove_all(harness_.output + "/" + entry);
    if (entry == ".remote-metadata" || entry.starts_with(".morlen-")) count("unlisted entries left inside");
    return isStray;
  });
  if (!wrongs.empty()) throw std::runtime_error(fmt::format("{}", fmt::join(wrongs, "; ")));
}

void ScenarioBench::recover(Recovery::Saved saved) {
  if (scenario_.operation != Operation::verify) recovery_->recover(scenario_.overwrite, saved);
}

std::vector<std::unique_ptr<ScenarioBench>> benchesFor(const Scenario& scenario, TrialReport& report) {
  std::vector<std::unique_ptr<ScenarioBench>> benches;
  for (std::size_t i = 0; i < workerCount(); ++i) {
    benches.push_back(std::make_unique<ScenarioBench>(scenario, report));
  }
  return benches;
}

}  // namespace vellicor
