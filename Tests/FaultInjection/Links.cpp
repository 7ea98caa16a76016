#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Tests/FaultInjection/Recovery.h"
#include "Tests/FaultInjection/Trials.h"
#include "VellicorLab/ChildProcess.h"
#include "VellicorLab/Removals.h"
#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"

namespace vellicor {

namespace {

namespace fs = std::filesystem;

/// What takes an entry's place: a link to something empty, to a copy of the entry, to nothing, or to where
/// the entry was moved; or a copy without any link.
enum class Substitute { linkToEmpty, linkToCopy, linkToNothing, linkToMoved, copy };

struct Swap {
  /// Behind the output's path.
  std::string_view target;
  bool isDirectory;
  Substitute substitute;
  /// The request, by number, during which it happens.
  std::size_t request = 0;

  std::string text() const {
    constexpr std::array<const char*, 5> substitutes = {"a link to something empty", "a link to a copy",
                                                        "a link to nothing", "a link to where it was moved",
                                                        "a copy"};
    return fmt::format("m.morlen{} becomes {} at request {}", target,
                       substitutes[static_cast<std::size_t>(substitute)], request);
  }
};

/// Every entry of a tree with its content; a regular file or nothing is a tree too.
std::map<std::string, std::string> entriesOf(const std::string& root) {
  std::map<std::string, std::string> entries;
  const auto note = [&](const fs::path& path, const fs::file_status& status) {
    entries[path.string()] = fs::is_regular_file(status) ? readFile(path.string()) : "no file";
  };
  const fs::file_status status = fs::symlink_status(root);
  if (fs::exists(status)) note(root, status);
  if (!fs::is_directory(status)) return entries;
  for (const auto& entry : fs::recursive_directory_iterator(root)) note(entry.path(), entry.symlink_status());
  return entries;
}

/// Installs in whose middle an entry is swapped for a link.
class SwapBench {
 public:
  explicit SwapBench(TrialReport& report)
      : report_(report), harness_(SyntheticCheckpoint::custom(tinyShape(), 1)) {
    harness_.rangeChunkBytes = 512;
    place_ = harness_.directory / "place";
    victim_ = place_ + "/victim";
    moved_ = place_ + "/moved";
    harness_.output = place_ + "/m.morlen";
    recovery_.emplace(harness_, report_);
  }

  std::size_t requestsOfAll() {
    reset();
    harness_.install(harness_.options());
    return harness_.hub->requests().size();
  }

  void trySwap(const Swap& swap) {
    reset();
    bool happened = false;
    std::size_t seen = 0;
    harness_.hub->setFaults([&](const HubRequest&) -> std::optional<HubFault> {
      if (seen++ == swap.request) happened = perform(swap);
      return std::nullopt;
    });
    const std::string error = harness_.installError(harness_.options());
    harness_.hub->setFaults(nullptr);
    if (!happened) return report_.count("links: entries that were not yet there");
    try {
      judge(swap, error);
    } catch (const std::exception& failure) {
      report_.fail(fmt::format("{}: {} ({})", swap.text(), failure.what(), error));
    }
  }

 private:
  void reset() {
    removeSettled(place_);
    fs::create_directory(place_);
    harness_.hub->clearRequests();
  }

  bool perform(const Swap& swap) {
    const std::string path = harness_.output + std::string(swap.target);
    const bool isThere = fs::exists(fs::symlink_status(path));
    const bool needsEntry = swap.substitute == Substitute::linkToMoved || swap.substitute == Substitute::copy;
    if (!fs::exists(fs::path(path).parent_path()) || (!isThere && needsEntry)) return false;
    if (isThere) fs::rename(path, moved_);
    switch (swap.substitute) {
      case Substitute::linkToCopy:
        if (isThere) fs::copy(moved_, victim_, fs::copy_options::recursive);
        fs::create_symlink(victim_, path);
        break;
      case Substitute::linkToEmpty:
        swap.isDirectory ? (void)fs::create_directory(victim_) : writeFile(victim_, "");
        fs::create_symlink(victim_, path);
        break;
      case Substitute::linkToNothing:
        fs::create_symlink(victim_, path);
        break;
      case Substitute::linkToMoved:
        fs::create_symlink(moved_, path);
        break;
      case Substitute::copy:
        fs::copy(moved_, path, fs::copy_options::recursive);
        break;
    }
    victimBefore_ = entriesOf(victim_);
    return true;
  }

  void judge(const Swap& swap, const std::string& error) {
    requireUntouchedVictim();
    if (error == "no error") {
      report_.count("links: installs that went on without following one");
    } else {
      if (recovery_->hasOutput()) throw std::runtime_error("failed with an artifact");
      // What is inside the partial directory is the installer's own to put right.
      const bool isInside = swap.target.find('/') != std::string_view::npos;
      if (!isInside || swap.request % 2 == 0) putBack(harness_.output + std::string(swap.target));
      report_.count("links: installs that refused one, recovered");
    }
    const std::vector<std::string> steps =
        recovery_->recover(Recovery::Overwrite::no, Recovery::Saved::changed);
    requireUntouchedVictim();
    if (!fs::is_directory(fs::symlink_status(harness_.output))) throw std::runtime_error("a linked artifact");
  }

  void requireUntouchedVictim() const {
    const auto now = entriesOf(victim_);
    if (now == victimBefore_) return;
    throw std::runtime_error(fmt::format("the link's target was touched: {} entries instead of {}",
                                         now.size(), victimBefore_.size()));
  }

  void putBack(const std::string& path) const {
    if (!fs::is_symlink(fs::symlink_status(path))) return;
    fs::remove(path);
    if (fs::exists(moved_)) fs::rename(moved_, path);
  }

  TrialReport& report_;
  InstallHarness harness_;
  std::string place_, victim_, moved_;
  std::map<std::string, std::string> victimBefore_;
  std::optional<Recovery> recovery_;
};

void trySwaps(const TrialOptions& options, TrialReport& report) {
  constexpr std::array<std::pair<std::string_view, bool>, 7> targets = {
      {{".partial", true},
       {".partial/packed_experts", true},
       {".partial/tokenizer", true},
       {".partial/packed_experts/layer_00.bin", false},
       {".partial/model_weights.bin", false},
       {".partial/.range.tmp", false},
       {".resume.json", false}}};
  std::vector<std::unique_ptr<SwapBench>> benches;
  for (std::size_t i = 0; i < workerCount(); ++i) benches.push_back(std::make_unique<SwapBench>(report));
  const std::size_t requests = benches.front()->requestsOfAll();
  std::vector<Swap> swaps;
  for (const auto& [target, isDirectory] : targets) {
    for (const Substitute substitute :
         {Substitute::linkToEmpty, Substitute::linkToCopy, Substitute::linkToNothing, Substitute::linkToMoved,
          Substitute::copy}) {
      // The short form takes other requests for each kind, so that all of them have their turn.
      const std::size_t step = options.full ? 1 : 7 * options.thinning;
      for (std::size_t i = (options.seed + swaps.size()) % step; i < requests; i += step) {
        swaps.push_back({target, isDirectory, substitute, i});
      }
    }
  }
  forEachInParallel(swaps.size(), report,
                    [&](std::size_t worker, std::size_t item) { benches[worker]->trySwap(swaps[item]); });
  report.count("links: entries swapped in all", swaps.size());
}

/// Something that has no place in an artifact. `plant` answers false where this process may not make it.
struct Planted {
  const char* name;
  std::function<bool(const std::string& path)> plant;
};

bool bindSocket(const std::string& path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  if (path.size() >= sizeof address.sun_path) return false;
  path.copy(address.sun_path, path.size());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  const bool bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return bound;
}

std::vector<Planted> plantedIn(const std::string& artifact, const std::string& outside) {
  const auto linkTo = [](const std::string& to) {
    return [to](const std::string& path) {
      fs::create_symlink(to, path);
      return true;
    };
  };
  return {{"a link inside", linkTo(artifact + "/model_weights.bin")},
          {"a link outside", linkTo(outside)},
          {"a link to itself", linkTo("layer_00.bin")},
          {"a dangling link", linkTo(artifact + "/nowhere")},
          {"a named pipe", [](const std::string& path) { return ::mkfifo(path.c_str(), 0600) == 0; }},
          {"a socket", bindSocket},
          {"a device",
           [](const std::string& path) {
             struct stat null {};
             return ::stat("/dev/null", &null) == 0 &&
                    ::mknod(path.c_str(), S_IFCHR | 0600, null.st_rdev) == 0;
           }},
          {"a directory", [](const std::string& path) { return fs::create_directory(path); }}};
}

/// An artifact with something planted in it, verified by the program.
class PlantBench {
 public:
  explicit PlantBench(TrialReport& report)
      : report_(report), harness_(SyntheticCheckpoint::custom(tinyShape(), 1)) {
    harness_.install(harness_.options());
    outside_ = harness_.directory / "outside";
    writeFile(outside_, "outside");
  }

  void run() {
    const std::string listed = harness_.output + "/packed_experts/layer_00.bin";
    const std::string extra = harness_.output + "/packed_experts/extra";
    const std::string kept = harness_.directory / "kept";
    for (const Planted& planted : plantedIn(harness_.output, outside_)) {
      fs::rename(listed, kept);
      if (planted.plant(listed)) {
        expect(planted.name, fmt::format("({}) failed: errno ", listed));
      } else {
        report_.count(fmt::format("planted: NOT TRIED, {} cannot be made here", planted.name));
      }
      fs::remove(listed);
      fs::rename(kept, listed);
      if (planted.plant(extra)) expectListed(planted.name, "packed_experts/extra");
      fs::remove(extra);
    }
    fs::rename(harness_.output + "/packed_experts", kept);
    fs::create_directory_symlink(kept, harness_.output + "/packed_experts");
    expect("a linked directory",
           fmt::format("open({}/packed_experts/layout.json) failed: errno ", harness_.output));
    fs::remove(harness_.output + "/packed_experts");
    fs::rename(kept, harness_.output + "/packed_experts");
    // With the artifact's own entries, far beyond the bound.
    for (int i = 0; i < 100001; ++i) writeFile(fmt::format("{}/many/{}", harness_.output, i), "");
    expect("too many entries", "configuration invalid: artifact directory has too many entries\n");
    fs::remove_all(harness_.output + "/many");
    if (readFile(outside_) != "outside") report_.fail("a verification wrote through a link");
  }

 private:
  ProcessResult verify() const {
    return runProcess({programPath("VellicorRepack"), "--verify-install", "--input-morlen", harness_.output},
                      // A hanging process is ended.
                      {.beforeStart = [] { ::alarm(60); }});
  }

  void expect(const std::string& what, const std::string& text) {
    const ProcessResult result = verify();
    const bool isOwn =
        result.errors.starts_with("verification failed: ") && result.errors.find(text) != std::string::npos;
    report_.count("planted: verifications that refused");
    if (result.status != 1 || !isOwn) {
      report_.fail(fmt::format("planted {}: status {}, {}", what, result.status, result.errors));
    }
  }

  void expectListed(const std::string& what, const std::string& entry) {
    const ProcessResult result = verify();
    const std::vector<std::string> found = VerifiedInstallTool::run({harness_.output}).unexpectedEntries;
    report_.count("planted: entries listed as unexpected");
    if (result.status != 0 || found != std::vector<std::string>{entry}) {
      report_.fail(fmt::format("extra {}: status {}, {}, found {}", what, result.status, result.errors,
                               fmt::join(found, " ")));
    }
  }

  TrialReport& report_;
  InstallHarness harness_;
  std::string outside_;
};

}  // namespace

void tryLinks(const TrialOptions& options, TrialReport& report) {
  trySwaps(options, report);
  PlantBench(report).run();
}

}  // namespace vellicor
