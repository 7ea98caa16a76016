#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Tests/FaultInjection/FileCallRecord.h"
#include "Tests/FaultInjection/Recovery.h"
#include "Tests/FaultInjection/TrialReport.h"
#include "VellicorLab/InstallHarness.h"

namespace vellicor {

/// An operation that is to be disturbed, and the state of the disk that it starts from.
struct Scenario {
  enum class Operation { install, discard, verify };

  std::string name;
  Operation operation;
  /// Brings the harness's output into the state that the operation starts from.
  void (*prepare)(InstallHarness&);
  std::vector<std::string> (*command)(const InstallHarness&);
  Recovery::Overwrite overwrite = Recovery::Overwrite::no;
  /// Of the saved download that it starts from or leaves.
  Recovery::Saved saved = Recovery::Saved::intact;

  /// The first word of what it prints when it fails.
  std::string spokenName() const;
};

/// An install, resumes of a good and of a damaged saved download, an overwriting install, a discard and a
/// verification.
std::span<const Scenario> allScenarios();
/// Of them those that this file system can run; the report names the others.
std::vector<Scenario> possibleScenarios(TrialReport& report);

/// One place in which a scenario is run over and over, from the same state each time.
class ScenarioBench {
 public:
  ScenarioBench(const Scenario& scenario, TrialReport& report);

  /// Puts the place back into the state that the operation starts from.
  void reset();
  /// Starts from an empty place instead.
  void clear();
  /// Runs the operation; `plan.root` is filled in.
  FileCallRun run(FileCallPlan plan) const;

  /// Throws `std::runtime_error` unless the operation's success shows on the disk.
  void judgeSuccess();
  /// Throws `std::runtime_error` unless what stands at the output, if anything does, is the old artifact
  /// untouched or the right one. Removes, and counts, unlisted entries that may stay inside.
  void judgeOutput();
  /// Throws `std::runtime_error` unless what is printed leads from here to the right artifact, at no more
  /// than its cost.
  void recover(Recovery::Saved saved);
  void recover() { recover(scenario_.saved); }

  const Scenario& scenario() const { return scenario_; }
  /// The directory that holds the output and all that belongs to it.
  const std::string& place() const { return place_; }
  /// The output, which a scenario may choose below that directory, and its partial directory.
  const std::string& output() const { return harness_.output; }
  std::string partial() const { return harness_.output + ".partial"; }
  Recovery& recovery() { return *recovery_; }
  /// Counts in the report under the scenario's name.
  void count(const std::string& figure) { report_.count(scenario_.name + ": " + figure); }

 private:
  bool isOldInPlace() const;

  const Scenario& scenario_;
  TrialReport& report_;
  InstallHarness harness_;
  std::string saved_;
  std::string place_;
  std::unique_ptr<Recovery> recovery_;
};

/// One bench for each thread of `forEachInParallel`.
std::vector<std::unique_ptr<ScenarioBench>> benchesFor(const Scenario& scenario, TrialReport& report);

}  // namespace vellicor
