#include "VellicorTrials/Recovery.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"

namespace vellicor {

namespace fs = std::filesystem;

Recovery::Recovery(InstallHarness& harness) : harness_(harness), predicted_(harness.predicted()) {}

bool Recovery::hasOutput() const { return fs::exists(fs::symlink_status(harness_.output)); }

std::vector<std::string> Recovery::wrongs() const {
  std::vector<std::string> wrongs = predicted_.differences(harness_.output);
  try {
    VerifiedInstallTool::run({harness_.output});
  } catch (const std::exception& error) {
    wrongs.push_back(fmt::format("verification: {}", error.what()));
  }
  return wrongs;
}

std::vector<std::string> Recovery::leftovers() const {
  std::vector<std::string> names;
  const fs::path output = harness_.output;
  for (const auto& entry : fs::directory_iterator(output.parent_path())) {
    const std::string name = entry.path().filename().string();
    const bool isOfOutput = name.starts_with(output.filename().string());
    if (isOfOutput && entry.path() != output && !name.ends_with(".install.lock")) names.push_back(name);
  }
  std::ranges::sort(names);
  return names;
}

std::string Recovery::attempt(bool resume, Overwrite overwrite) {
  RemoteStreamingRepackOptions options = harness_.options();
  options.resume = resume;
  options.overwrite = overwrite == Overwrite::yes;
  return harness_.installError(options);
}

std::vector<std::string> Recovery::recover(Overwrite overwrite) {
  std::vector<std::string> steps;
  std::string error = attempt(true, overwrite);
  steps.push_back("resume: " + error);
  const auto says = [&](const char* text) { return error.find(text) != std::string::npos; };
  const bool isMissing = says("no resumable install state exists for ");
  const bool isHalf = says("partial directory and checkpoint must exist together");
  const bool isFinished = says("output directory already exists: ");
  if ((isHalf || isFinished) && !leftovers().empty()) {
    RemoteStreamingRepacker::discardPartial(harness_.output);
    steps.emplace_back("discard");
  }
  const bool isThere = hasOutput() && (isFinished || wrongs().empty());
  if ((isMissing || isHalf) && !isThere) {
    error = attempt(false, overwrite);
    steps.push_back("fresh: " + error);
  }

  std::vector<std::string> problems;
  if (error != "no error" && !isThere) problems.push_back(error);
  if (hasOutput()) {
    for (std::string& wrong : wrongs()) problems.push_back(std::move(wrong));
  } else {
    problems.emplace_back("no artifact");
  }
  for (const std::string& name : leftovers()) problems.push_back(name + " is left");
  if (problems.empty()) return steps;
  throw std::runtime_error(fmt::format("{} after {}", fmt::join(problems, "; "), fmt::join(steps, ", ")));
}

}  // namespace vellicor
