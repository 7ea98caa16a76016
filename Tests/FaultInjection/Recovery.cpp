#include "Tests/FaultInjection/Recovery.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"
#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"

namespace vellicor {

namespace fs = std::filesystem;

namespace {

constexpr const char* residentFile = "model_weights.bin";

}  // namespace

Recovery::Recovery(InstallHarness& harness, TrialReport& report)
    : harness_(harness),
      report_(report),
      predicted_(harness.predicted()),
      contents_(predicted_.contents()),
      planRoot_(harness.directory / "plan.morlen.partial") {}

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

const RangeCopyPlan& Recovery::plan() {
  if (plan_) return *plan_;
  RemoteStreamingRepackOptions options = harness_.options();
  options.outputDir = harness_.directory / "plan.morlen";
  options.dryRunSpaceCheck = true;
  RepackAudit audit;
  const RepackPlan plan = RemoteStreamingRepacker(options, audit).run([](const auto&) {}).plan;
  indexSize_ = plan.resident.indexSize;
  return plan_.emplace(RangeCopyPlanner::plan(plan, harness_.rangeChunkBytes, "identity", std::nullopt));
}

Recovery::Piece Recovery::pieceOf(const RangeCopy& copy) const {
  return {.file = RangeCopyPlanner::normalizedRelativePath(copy.destinationPath.text(), planRoot_),
          .offset = copy.destinationOffset,
          .size = copy.size};
}

std::optional<Recovery::Copies> Recovery::completedCopies() {
  Copies copies;
  try {
    const auto ranges = RemoteInstallCheckpoint::load(harness_.output + ".resume.json").completedRanges;
    for (const CoalescedRangeCopy& copy : plan().coalescedCopies) {
      const bool isNamed = std::ranges::find(ranges, copy.id, &RemoteCompletedRange::id) != ranges.end();
      if (isNamed) copies.push_back(&copy);
    }
  } catch (const RepackError&) {
    return std::nullopt;
  }
  return copies;
}

std::vector<Recovery::Piece> Recovery::finalPieces() {
  const auto completed = completedCopies();
  if (!completed) return {};
  std::vector<Piece> pieces;
  for (const CoalescedRangeCopy* copy : *completed) {
    for (const RangeCopy& destination : copy->destinations) pieces.push_back(pieceOf(destination));
  }
  std::map<std::string, std::map<std::uint64_t, std::uint64_t>> written;
  for (const CoalescedRangeCopy& copy : plan().coalescedCopies) {
    for (const RangeCopy& destination : copy.destinations) {
      const Piece piece = pieceOf(destination);
      written[piece.file][piece.offset] = piece.size;
    }
  }
  for (const RemoteExpectedOutput& output : plan().expectedOutputs) {
    std::uint64_t position = 0;
    written[output.relativePath][output.size] = 0;
    for (const auto& [offset, size] : written[output.relativePath]) {
      if (offset > position) pieces.push_back({output.relativePath, position, offset - position, true});
      position = offset + size;
    }
  }
  return pieces;
}

Recovery::Copies Recovery::finishedCopies(Saved saved) {
  Copies copies = completedCopies().value_or(Copies());
  if (saved == Saved::intact) return copies;
  const std::map<std::string, std::string> files = readTree(partialDirectory());
  const auto isRight = [&](const Piece& piece) {
    const auto file = files.find(piece.file);
    const std::string& right = contents_.at(piece.file);
    return file != files.end() && file->second.size() == right.size() &&
           file->second.compare(piece.offset, piece.size, right, piece.offset, piece.size) == 0;
  };
  // Without one of the files, or with another index, the copy starts over.
  const bool areThere = std::ranges::all_of(plan().expectedOutputs, [&](const RemoteExpectedOutput& output) {
    return isRight({output.relativePath, 0, output.relativePath == residentFile ? indexSize_ : 0});
  });
  if (!areThere) return {};
  std::erase_if(copies, [&](const CoalescedRangeCopy* copy) {
    return !std::ranges::all_of(copy->destinations,
                                [&](const RangeCopy& destination) { return isRight(pieceOf(destination)); });
  });
  return copies;
}

std::vector<std::string> Recovery::unfinished(Saved saved) {
  if (hasOutput() && predicted_.differences(harness_.output).empty()) return {};
  const Copies finished = finishedCopies(saved);
  std::vector<std::string> ranges;
  for (const CoalescedRangeCopy& copy : plan().coalescedCopies) {
    if (std::ranges::find(finished, &copy) != finished.end()) continue;
    ranges.push_back(fmt::format("{} bytes={}-{}", copy.shardID.text(), copy.sourceOffset,
                                 copy.sourceOffset + copy.size - 1));
  }
  std::ranges::sort(ranges);
  return ranges;
}

void Recovery::judgeCost(Saved saved, const std::function<void()>& run) {
  const std::vector<std::string> allowed = unfinished(saved);
  // A request of a process that was killed may be noted later, but it came on an earlier connection.
  const std::uint64_t firstConnection = harness_.hub->connectionCount();
  run();
  std::vector<std::string> fetched = harness_.payloadRanges(firstConnection);
  std::ranges::sort(fetched);
  report_.count("cost: payload ranges unfinished before recovery", allowed.size());
  report_.count("cost: payload ranges fetched in recovery", fetched.size());
  if (std::ranges::includes(allowed, fetched)) return;
  throw std::runtime_error(
      fmt::format("{} payload ranges were fetched where {} were unfinished", fetched.size(), allowed.size()));
}

std::vector<std::string> Recovery::recover(Overwrite overwrite, Saved saved) {
  std::vector<std::string> steps;
  judgeCost(saved, [&] { steps = takeSteps(overwrite); });
  return steps;
}

std::vector<std::string> Recovery::takeSteps(Overwrite overwrite) {
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
