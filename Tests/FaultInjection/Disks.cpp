#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>

#include <fmt/format.h>
#include <sys/resource.h>

#include "Tests/FaultInjection/Recovery.h"
#include "Tests/FaultInjection/SmallVolume.h"
#include "Tests/FaultInjection/Trials.h"
#include "VellicorLab/ChildProcess.h"
#include "VellicorLab/Emulator.h"
#include "VellicorLab/Removals.h"
#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {

namespace {

namespace fs = std::filesystem;

using Overwrite = Recovery::Overwrite;
using Resource = decltype(RLIMIT_FSIZE);

constexpr const char* ample = "size=4m,nr_inodes=4000";
constexpr const char* refusals = "volumes: refusals before any payload";

/// At most `most` of the numbers below `count`, evenly spread; all of them in the full form.
std::vector<std::size_t> spread(std::size_t count, std::size_t most, const TrialOptions& options) {
  const std::size_t step = options.full || count <= most ? 1 : count / most;
  std::vector<std::size_t> chosen;
  for (std::size_t i = options.seed % step; i < count; i += step) chosen.push_back(i);
  return chosen;
}

/// Installs onto a volume of their own, which is full, becomes full or cannot be written to.
class VolumeBench {
 public:
  explicit VolumeBench(TrialReport& report)
      : report_(report),
        harness_(SyntheticCheckpoint::custom(tinyShape(), 1)),
        // Not to be taken for an artifact: what is measured is the volume.
        volume_(harness_.directory / "volume.d") {
    harness_.rangeChunkBytes = 512;
    harness_.output = volume_ + "/m.morlen";
    fs::create_directory(volume_);
    recovery_.emplace(harness_, report_);
  }

  void run(const TrialOptions& options) {
    const std::size_t events = eventsOfAll();
    report_.count("progress events of an install", events);
    for (const std::size_t spare : {0U, 1U, 3U, 8U}) {
      for (const std::size_t event : spread(events, 5, options)) tryFilledAt(event, spare);
    }
    constexpr std::size_t pagesOfInstall = 48, entriesOfInstall = 24;
    for (const std::size_t i : spread(pagesOfInstall, 8, options)) trySmall("size={}k,nr_inodes=4000", 4 * i);
    if (!report_.figures().contains(refusals)) report_.fail("no volume was found too small for the payload");
    for (const std::size_t i : spread(entriesOfInstall, 6, options)) trySmall("size=4m,nr_inodes={}", i);
    tryReadOnly();
    for (const char* inside : {"", "/inside"}) tryMountPoint(harness_.output + inside);
    for (const std::size_t request : spread(metadataRequests_, 3, options)) tryReadOnlyAt(request);
  }

 private:
  /// Counts events and metadata requests, and installs once for it.
  std::size_t eventsOfAll() {
    const SmallVolume volume(volume_, ample);
    const std::string error = harness_.installError(harness_.options());
    if (error != "no error") throw std::runtime_error("untouched: " + error);
    const auto requests = harness_.hub->requests();
    metadataRequests_ =
        static_cast<std::size_t>(std::ranges::count(requests, std::string("HEAD"), &HubRequest::method));
    return harness_.events.size();
  }

  /// An install in which `act` is called at the progress event of that number.
  std::string installActingAt(std::size_t event, const std::function<void()>& act) {
    harness_.hub->clearRequests();
    RepackAudit audit;
    std::size_t seen = 0;
    try {
      RemoteStreamingRepacker(harness_.options(), audit).run([&](const ModelInstallProgress&) {
        if (seen++ == event) act();
      });
    } catch (const std::exception& error) {
      return error.what();
    }
    return "no error";
  }

  void tryFilledAt(std::size_t event, std::size_t sparePages) {
    const SmallVolume volume(volume_, ample);
    const std::string error = installActingAt(event, [&] { volume.fill(sparePages); });
    judge(fmt::format("filled at event {} but for {} pages", event, sparePages), error, ENOSPC,
          [&] { volume.empty(); });
  }

  void trySmall(const char* limits, std::size_t number) {
    const std::string text = fmt::format(fmt::runtime(limits), number);
    // Nothing at all means no limit here.
    if (number == 0) return;
    const SmallVolume volume(volume_, text);
    harness_.hub->clearRequests();
    judge(text, harness_.installError(harness_.options()), ENOSPC, [&] { volume.setLimits(ample); });
  }

  void tryReadOnly() {
    const SmallVolume volume(volume_, ample);
    volume.setReadOnly();
    judge("read-only", harness_.installError(harness_.options()), EROFS, [&] { volume.setLimits(ample); });
  }

  /// The partial directory cannot be written to from one of the metadata requests on.
  void tryReadOnlyAt(std::size_t number) {
    const SmallVolume volume(volume_, ample);
    std::optional<ReadOnlyDirectory> readOnly;
    std::size_t seen = 0;
    harness_.hub->setFaults([&](const HubRequest& request) -> std::optional<HubFault> {
      if (request.method == "HEAD" && seen++ == number) readOnly.emplace(harness_.output + ".partial");
      return std::nullopt;
    });
    const std::string error = harness_.installError(harness_.options());
    harness_.hub->setFaults(nullptr);
    judge(fmt::format("read-only from metadata request {} on", number), error, EROFS,
          [&] { readOnly.reset(); });
  }

  /// An old artifact that is a volume of its own, or holds one, can neither be exchanged nor removed.
  void tryMountPoint(const std::string& place) {
    const SmallVolume volume(volume_, ample);
    fs::create_directories(place);
    const SmallVolume mounted(place, ample);
    writeFile(harness_.output + "/manifest.json", "old");
    RemoteStreamingRepackOptions options = harness_.options();
    options.overwrite = true;
    harness_.hub->clearRequests();
    const std::string error = harness_.installError(options);
    const bool isRight =
        place == harness_.output
            ? error == RepackError(PromotionUnsupported{.path = place, .errnoValue = EBUSY}).description()
            : error.starts_with(fmt::format("unsafe installer path {}: ", place));
    if (!isRight || !harness_.hub->requests().empty()) {
      report_.fail(fmt::format("volume at {}: {}", place, error));
    } else {
      report_.count("volumes: mount points that overwriting refused at the start");
    }
  }

  void judge(const std::string& what, const std::string& error, int code,
             const std::function<void()>& relieve) {
    const bool isRefusal =
        error.starts_with(fmt::format("insufficient disk space for {}: required ", volume_));
    const bool namesPlace = error.find(volume_ + "/") != std::string::npos;
    const bool isOwn = namesPlace && (error.ends_with(fmt::format("errno {}", code)) ||
                                      error.starts_with("filesystem error: "));
    try {
      if (error != "no error" && !isOwn && !isRefusal) throw std::runtime_error("not its own text");
      if (isRefusal && !harness_.payloadRanges().empty()) throw std::runtime_error("payload was fetched");
      if (error != "no error" && recovery_->hasOutput()) throw std::runtime_error("failed with an artifact");
      relieve();
      recovery_->recover(Overwrite::no);
      if (isOwn)
        report_.count(
            fmt::format("volumes: errno {} in {}", code, error.substr(0, error.find_first_of("(:"))));
      report_.count(error == "no error" ? "volumes: installs that had enough"
                    : isRefusal         ? refusals
                    : code == EROFS     ? "volumes: installs onto what became read-only, recovered"
                                        : "volumes: installs that met a full volume, recovered");
    } catch (const std::exception& failure) {
      report_.fail(fmt::format("volume {}: {} ({})", what, failure.what(), error));
    }
  }

  TrialReport& report_;
  InstallHarness harness_;
  const std::string volume_;
  std::optional<Recovery> recovery_;
  std::size_t metadataRequests_ = 0;
};

/// The programs themselves under limits of their process.
class LimitBench {
 public:
  explicit LimitBench(TrialReport& report)
      : report_(report), harness_(SyntheticCheckpoint::custom(tinyShape(), 1)), recovery_(harness_, report) {
    harness_.rangeChunkBytes = 512;
  }

  void tryInstall(Resource resource, rlim_t limit) {
    judge(fmt::format("install, {} {}", nameOf(resource), limit), resource,
          runLimited(harness_.command(), resource, limit), "install failed: ");
    recovery_.recover(Overwrite::no);
    tryOthers(resource, limit);
    removeSettled(harness_.output);
  }

 private:
  /// A verification of the artifact that stands, and the discarding of a saved download beside it.
  void tryOthers(Resource resource, rlim_t limit) {
    const std::string program = programPath("VellicorRepack");
    judge(fmt::format("verify, {} {}", nameOf(resource), limit), resource,
          runLimited({program, "--verify-install", "--input-morlen", harness_.output}, resource, limit),
          "verification failed: ");
    const std::vector<std::string> wrongs = recovery_.wrongs();
    if (!wrongs.empty()) throw std::runtime_error("a limited verification: " + wrongs.front());
    writeFile(harness_.output + ".partial/model_weights.bin", "saved");
    judge(fmt::format("discard, {} {}", nameOf(resource), limit), resource,
          runLimited({program, "--discard-partial", "--output", harness_.output}, resource, limit),
          "discard failed: ");
    removeSettled(harness_.output + ".partial");
  }

  static const char* nameOf(Resource resource) {
    return resource == RLIMIT_FSIZE ? "file size" : "descriptors";
  }

  static ProcessResult runLimited(const std::vector<std::string>& command, Resource resource, rlim_t limit) {
    return runProcess(command, {.beforeStart = [=] {
                        const struct rlimit both = {.rlim_cur = limit, .rlim_max = limit};
                        ::setrlimit(resource, &both);
                      }});
  }

  void judge(const std::string& what, Resource resource, const ProcessResult& result,
             const std::string& beginning) {
    const bool isOneLine = std::ranges::count(result.errors, '\n') == 1;
    const bool isOwn = result.errors.starts_with(beginning) && isOneLine;
    const std::string own = resource == RLIMIT_FSIZE ? fmt::format("errno {}\n", EFBIG) : "\n";
    // The loader's own refusal of a program that may open next to nothing.
    const bool isLoader = resource == RLIMIT_NOFILE && result.status == 127;
    if (result.status == 0) {
      report_.count("limits: programs that had enough");
    } else if (isLoader || (result.status == 1 && isOwn && result.errors.ends_with(own))) {
      report_.count(fmt::format("limits: failures reported, {}", nameOf(resource)));
    } else {
      report_.fail(fmt::format("{}: status {}, {}", what, result.status, result.errors));
    }
  }

  TrialReport& report_;
  InstallHarness harness_;
  Recovery recovery_;
};

#if defined(__SANITIZE_ADDRESS__)
// A sanitizer takes descriptors for its own checks, and reports nonsense when it gets none.
constexpr rlim_t fewestDescriptors = 64;
#else
constexpr rlim_t fewestDescriptors = 3;
#endif

constexpr rlim_t fewestEmulated = 10;

struct Limit {
  Resource resource;
  rlim_t value;
};

/// Around the size of each file of the artifact, and few descriptors.
std::vector<Limit> limitsToTry(const TrialOptions& options) {
  // Less would not hold the one line of errors.
  constexpr std::uint64_t smallest = 400;
  std::set<std::uint64_t> sizes = {smallest, 1000, 100000};
  const auto checkpoint = SyntheticCheckpoint::custom(tinyShape(), 1);
  const PredictedArtifact artifact(*checkpoint);
  for (const auto& [path, content] : artifact.contents()) {
    for (const std::uint64_t size : {content.size() - 1, content.size() / 2}) {
      if (size > smallest) sizes.insert(size);
    }
  }
  std::vector<Limit> limits;
  limits.reserve(sizes.size());
  for (const std::uint64_t size : sizes) limits.push_back({RLIMIT_FSIZE, size});
  const rlim_t fewest = isProcessorEmulated() ? fewestEmulated : fewestDescriptors;
  for (const rlim_t descriptors : {3U, 4U, 5U, 6U, 7U, 8U, 9U, 10U, 11U, 12U, 13U, 14U, 16U, 20U}) {
    if (descriptors >= fewest) limits.push_back({RLIMIT_NOFILE, descriptors});
  }
  std::vector<Limit> tried;
  for (const std::size_t i : spread(limits.size(), 8, options)) tried.push_back(limits[i]);
  return tried;
}

}  // namespace

void tryDisks(const TrialOptions& options, TrialReport& report) {
  const bool mounted =
      runWithOwnMounts(report, [&](TrialReport& inside) { VolumeBench(inside).run(options); });
  if (!mounted) report.count("FILE SYSTEMS NOT TRIED: mounting is not permitted here");

  if (isProcessorEmulated()) report.count("below 10 descriptors: NOT TRIED, the emulator needs some itself");
  const std::vector<Limit> limits = limitsToTry(options);
  std::vector<std::unique_ptr<LimitBench>> benches;
  for (std::size_t i = 0; i < workerCount(); ++i) benches.push_back(std::make_unique<LimitBench>(report));
  forEachInParallel(limits.size(), report, [&](std::size_t worker, std::size_t item) {
    benches[worker]->tryInstall(limits[item].resource, limits[item].value);
  });
}

}  // namespace vellicor
