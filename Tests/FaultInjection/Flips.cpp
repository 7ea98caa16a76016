#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

#include <fmt/format.h>

#include "Tests/FaultInjection/Scenarios.h"
#include "Tests/FaultInjection/Trials.h"

namespace vellicor {

namespace {

namespace fs = std::filesystem;

using Saved = Recovery::Saved;

/// Whether a change shows by the file's time, as another program's does, or not, as the disk's does.
enum class Trace { shown, hidden };

void flipBit(const std::string& path, std::uint64_t offset, unsigned bit, Trace trace) {
  const auto time = fs::last_write_time(path);
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekg(static_cast<std::streamoff>(offset));
  const auto byte = static_cast<char>(file.get() ^ (1 << bit));
  file.seekp(static_cast<std::streamoff>(offset));
  file.put(byte);
  file.close();
  if (!file) throw std::runtime_error("cannot flip a bit of " + path);
  fs::last_write_time(path, trace == Trace::hidden ? time : fs::file_time_type::clock::now());
}

void flipFirst(const std::string& path) { flipBit(path, 0, 0, Trace::hidden); }

void touch(const std::string& path) { fs::last_write_time(path, fs::file_time_type::clock::now()); }

void becomeDirectory(const std::string& path) {
  fs::remove(path);
  fs::create_directory(path);
}

void becomeOther(const std::string& path) {
  const std::string other = path + ".other";
  fs::copy(path, other);
  flipBit(other, 0, 0, Trace::hidden);
  fs::rename(other, path);
}

/// What happens to a file between its last digest and the promotion.
struct Swap {
  const char* name;
  const char* file;
  void (*perform)(const std::string& path);
  /// Whether it shows only to who reads the file's bytes.
  bool isInside = false;
};

constexpr std::array<Swap, 9> swaps = {{
    {"a byte changes", "tokenizer/tokenizer.json", flipFirst, true},
    {"a directory in its place", "tokenizer/tokenizer_config.json", becomeDirectory},
    {"another file in its place", "tokenizer/tokenizer_config.json", becomeOther},
    {"a byte changes", "packed_experts/layout.json", flipFirst, true},
    {"a byte changes", "manifest.json", flipFirst, true},
    {"a copy with another byte in its place", "packed_experts/layer_00.bin", becomeOther},
    {"a directory in its place", "packed_experts/layer_00.bin", becomeDirectory},
    {"touched", "model_weights.bin", touch},
    {"a byte changes up to the last look", "model_weights.bin", flipFirst},
}};

/// The file calls of a run that nothing disturbs: when in it what is looked at for the last time.
class Timeline {
 public:
  explicit Timeline(ScenarioBench& bench) : output_(bench.output()) {
    bench.reset();
    FileCallRun run = bench.run({});
    if (run.result.status != 0) throw std::runtime_error("untouched: " + run.result.errors);
    const auto promotes = [&](const FileCall& call) {
      return call.path == pathOf("") && call.otherPath == output_;
    };
    const auto promotion = std::ranges::find_if(run.calls, promotes);
    if (promotion == run.calls.end()) throw std::runtime_error("nothing was promoted");
    run.calls.erase(promotion + 1, run.calls.end());
    calls_ = std::move(run.calls);
  }

  /// The number of the call that promotes.
  std::uint64_t promotion() const { return calls_.back().number; }
  /// The first call of the writing of the manifest: by then everything else has its digest.
  std::uint64_t finish() const {
    const auto writes = [&](const FileCall& call) { return call.path.starts_with(pathOf("/manifest.json")); };
    return std::ranges::find_if(calls_, writes)->number;
  }
  /// The last call that finds the file by its name, or has it at hand and reads the byte; 0 for none.
  std::uint64_t lastLook(const std::string& file) const {
    return last([&](const FileCall& call) { return call.path == pathOf("/" + file); });
  }
  std::uint64_t lastRead(const std::string& file, std::uint64_t offset) const {
    return last([&](const FileCall& call) {
      const auto from = static_cast<std::uint64_t>(call.offset);
      return call.name == "pread" && call.path == pathOf("/" + file) && offset >= from &&
             offset - from < call.length;
    });
  }
  /// When the file got its name.
  std::uint64_t birth(const std::string& file) const {
    return last([&](const FileCall& call) { return call.otherPath == pathOf("/" + file); });
  }

 private:
  std::string pathOf(const std::string& inside) const { return output_ + ".partial" + inside; }
  template <typename Matches>
  std::uint64_t last(Matches matches) const {
    const auto call = std::ranges::find_if(calls_.rbegin(), calls_.rend(), matches);
    return call == calls_.rend() ? 0 : call->number;
  }

  std::string output_;
  std::vector<FileCall> calls_;
};

/// Either the change did no harm, or the install ended in a sentence that names the file; in both cases
/// nothing wrong is there, and what differs is all that is fetched again.
void judge(ScenarioBench& bench, const ProcessResult& result, const std::string& kind,
           const std::string& file) {
  const bool namesFile = result.errors.find(bench.partial() + "/" + file + " ") != std::string::npos;
  if (result.status == 0) {
    bench.judgeSuccess();
  } else if (result.status != 1 || !result.errors.starts_with("install failed: ") || !namesFile) {
    throw std::runtime_error("not its own text");
  }
  bench.judgeOutput();
  bench.recover(Saved::changed);
  bench.count(kind + (result.status == 0 ? " that did no harm" : " that ended the install"));
}

/// A bit of what was final when it flipped.
struct Flip {
  std::uint64_t moment;
  Trace trace;
  Recovery::Piece piece{};
  std::uint64_t offset = 0;

  std::string kind() const {
    return fmt::format("flips {} {}", piece.isOutside ? "of index and padding" : "of committed ranges",
                       trace == Trace::shown ? "with a new time" : "without a trace");
  }
};

/// Flips one bit at one moment. Returns false where the moment was not one: nothing was final yet, or nobody
/// looks at the bit any more.
bool flipOnce(ScenarioBench& bench, const Timeline& timeline, std::mt19937_64& random, TrialReport& report) {
  Flip flip{.moment = 1 + random() % timeline.promotion(),
            .trace = random() % 2 == 0 ? Trace::shown : Trace::hidden};
  bool happened = false;
  const auto perform = [&] {
    const std::vector<Recovery::Piece> pieces = bench.recovery().finalPieces();
    if (pieces.empty()) return;
    flip.piece = pieces[random() % pieces.size()];
    flip.offset = flip.piece.offset + random() % flip.piece.size;
    const std::uint64_t last = flip.trace == Trace::shown ? timeline.lastLook(flip.piece.file)
                                                          : timeline.lastRead(flip.piece.file, flip.offset);
    happened = flip.moment <= last;
    if (!happened) return;
    flipBit(fmt::format("{}/{}", bench.partial(), flip.piece.file), flip.offset, random() % 8, flip.trace);
  };
  bench.reset();
  const FileCallRun run = bench.run({.point = flip.moment, .action = "stop", .whileStopped = perform});
  if (!happened) return false;
  try {
    judge(bench, run.result, flip.kind(), flip.piece.file);
  } catch (const std::exception& error) {
    report.fail(fmt::format("{}, {}, byte {} of {} at call {}: {} (status {}, {})", bench.scenario().name,
                            flip.kind(), flip.offset, flip.piece.file, flip.moment, error.what(),
                            run.result.status, run.result.errors));
  }
  return true;
}

void swapOnce(ScenarioBench& bench, const Swap& swap, std::uint64_t moment, TrialReport& report) {
  const std::string path = fmt::format("{}/{}", bench.partial(), swap.file);
  bench.reset();
  const FileCallRun run =
      bench.run({.point = moment, .action = "stop", .whileStopped = [&] { swap.perform(path); }});
  try {
    judge(bench, run.result, "swaps", swap.file);
  } catch (const std::exception& error) {
    report.fail(fmt::format("{}, {}, {}, at call {}: {} (status {}, {})", bench.scenario().name, swap.file,
                            swap.name, moment, error.what(), run.result.status, run.result.errors));
  }
}

/// From the manifest's writing to the last look at the file.
std::vector<std::uint64_t> momentsOf(const Swap& swap, const Timeline& timeline,
                                     const TrialOptions& options) {
  const std::uint64_t first = std::max(timeline.finish(), timeline.birth(swap.file) + 1);
  const std::uint64_t last =
      std::max(first, swap.isInside ? timeline.lastRead(swap.file, 0) : timeline.lastLook(swap.file));
  std::vector<std::uint64_t> moments = {first};
  const std::uint64_t step = options.full ? 1 : std::max<std::uint64_t>(1, last - first);
  for (std::uint64_t moment = first + step; moment <= last; moment += step) moments.push_back(moment);
  return moments;
}

void tryScenario(const Scenario& scenario, const TrialOptions& options, TrialReport& report) {
  const std::size_t flips = options.full ? 200 : std::max<std::size_t>(1, 8 / options.thinning);
  const auto benches = benchesFor(scenario, report);
  const Timeline timeline(*benches.front());
  forEachInParallel(flips, report, [&](std::size_t worker, std::size_t item) {
    std::mt19937_64 random(options.seed * 100003 + item);
    while (!flipOnce(*benches[worker], timeline, random, report)) {
    }
  });
  std::vector<std::pair<const Swap*, std::uint64_t>> points;
  for (const Swap& swap : swaps) {
    for (const std::uint64_t moment : momentsOf(swap, timeline, options)) points.emplace_back(&swap, moment);
  }
  forEachInParallel(points.size(), report, [&](std::size_t worker, std::size_t item) {
    swapOnce(*benches[worker], *points[item].first, points[item].second, report);
  });
  report.count("flips in all", flips);
  report.count("swaps in all", points.size());
}

}  // namespace

void tryFlips(const TrialOptions& options, TrialReport& report) {
  for (const Scenario& scenario : possibleScenarios(report)) {
    const bool isWhole = scenario.saved == Saved::intact;
    if (isWhole && scenario.operation == Scenario::Operation::install) tryScenario(scenario, options, report);
  }
}

}  // namespace vellicor
