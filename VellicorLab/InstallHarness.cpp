#include "VellicorLab/InstallHarness.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <filesystem>

#include <fmt/format.h>

#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Install/SupportedModelSource.h"

namespace vellicor {

namespace fs = std::filesystem;

std::map<std::string, std::string> readTree(const std::string& directory) {
  std::map<std::string, std::string> files;
  if (!fs::is_directory(fs::symlink_status(directory))) return files;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    if (!fs::is_regular_file(entry.symlink_status())) continue;
    files[fs::relative(entry.path(), directory).generic_string()] = readFile(entry.path().string());
  }
  return files;
}

bool canExchangeNames() {
  const TemporaryDirectory directory;
  const std::string first = directory / "first", second = directory / "second";
  fs::create_directory(first);
  fs::create_directory(second);
  try {
    Posix::renameSwap(first, second);
    return true;
  } catch (const RepackError& error) {
    const auto* unsupported = error.as<PromotionUnsupported>();
    if (unsupported == nullptr || unsupported->errnoValue != EINVAL) throw;
    return false;
  }
}

SyntheticCheckpoint::Shape tinyShape() {
  return {.layers = 1,
          .experts = 2,
          .hidden = 8,
          .intermediate = 8,
          .moeIntermediate = 8,
          .vocab = 8,
          .groupSize = 8,
          .shards = 2,
          .excludedTensors = 2,
          .fullAttentionEvery = 0};
}

namespace {

std::uint64_t firstByte(const std::string& range) {
  std::uint64_t value = 0;
  constexpr std::size_t prefix = std::string_view("bytes=").size();
  if (range.size() > prefix) std::from_chars(range.data() + prefix, range.data() + range.size(), value);
  return value;
}

}  // namespace

std::string programPath(const std::string& name) { return VELLICOR_BIN_DIR "/" + name; }

bool isPayload(const SyntheticCheckpoint& checkpoint, const HubRequest& request) {
  if (!request.isFinalHop || request.method != "GET" || !request.file.ends_with(".safetensors")) return false;
  return firstByte(request.range) >= checkpoint.payloadOffset(request.file);
}

InstallHarness::InstallHarness(std::shared_ptr<SyntheticCheckpoint> source,
                               std::function<void(LocalHub::Options&)> configure)
    : checkpoint(std::move(source)), output(directory / "m.morlen"), configure_(std::move(configure)) {
  startHub();
}

void InstallHarness::startHub() {
  LocalHub::Options hubOptions;
  hubOptions.repository = checkpoint;
  hubOptions.caFilePath = directory / "ca.pem";
  if (configure_) configure_(hubOptions);
  hub = std::make_unique<LocalHub>(std::move(hubOptions));
}

RemoteStreamingRepackOptions InstallHarness::options() const {
  return {.repoID = labRepoID,
          .revision = "main",
          .outputDir = output,
          .token = std::nullopt,
          .requireKnownSource = false,
          .copyAuditPath = std::nullopt,
          .rangeChunkBytes = rangeChunkBytes,
          .writeTileBytes = 1000,
          .minFreeReserveBytes = 0,
          .downloadSession = SupportedModelSource::downloadSession(hub->caFile()),
          .baseURL = *RemoteUrl::parse(hub->baseURL()),
          .rangeRetryAttempts = 1,
          .retryBaseDelayNs = 0};
}

RemoteStreamingRepackResult InstallHarness::install(const RemoteStreamingRepackOptions& options,
                                                    CancellationToken stop) {
  audit = {};
  events.clear();
  return RemoteStreamingRepacker(options, audit, std::move(stop)).run([&](const ModelInstallProgress& event) {
    events.push_back(event);
  });
}

std::string InstallHarness::installError(const RemoteStreamingRepackOptions& options,
                                         CancellationToken stop) {
  try {
    install(options, std::move(stop));
  } catch (const std::exception& error) {
    return error.what();
  }
  return "no error";
}

std::vector<std::string> InstallHarness::command(const std::vector<std::string>& flags) const {
  const RemoteStreamingRepackOptions same = options();
  std::vector<std::string> words = {programPath("VellicorLab"),
                                    "install",
                                    "--base-url",
                                    hub->baseURL(),
                                    "--ca-file",
                                    hub->caFile(),
                                    "--repo",
                                    same.repoID,
                                    "--revision",
                                    same.revision,
                                    "--output",
                                    output,
                                    "--range-chunk-bytes",
                                    fmt::to_string(same.rangeChunkBytes),
                                    "--min-free-reserve-bytes",
                                    fmt::to_string(same.minFreeReserveBytes),
                                    "--retry-attempts",
                                    fmt::to_string(same.rangeRetryAttempts),
                                    "--retry-base-delay-ns",
                                    fmt::to_string(same.retryBaseDelayNs)};
  words.insert(words.end(), flags.begin(), flags.end());
  return words;
}

void InstallHarness::interruptAtRange(std::size_t index) {
  auto seen = std::make_shared<std::size_t>(0);
  hub->setFaults([this, index, seen](const HubRequest& request) -> std::optional<HubFault> {
    if (!isPayload(*checkpoint, request) || (*seen)++ < index) return std::nullopt;
    return HubFault{.resetAfter = 1};
  });
}

std::vector<std::string> InstallHarness::payloadRanges(std::uint64_t firstConnection) const {
  std::vector<std::string> ranges;
  for (const HubRequest& request : hub->requests()) {
    const bool isNew = request.connection >= firstConnection;
    if (isNew && isPayload(*checkpoint, request)) ranges.push_back(request.file + " " + request.range);
  }
  return ranges;
}

}  // namespace vellicor
