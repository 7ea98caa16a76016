#include <filesystem>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"
#include "VellicorTrials/InstallHarness.h"

namespace vellicor {
namespace {

namespace fs = std::filesystem;
using namespace ::testing;
using namespace testing;

/// What stands beside the output, by name.
std::vector<std::string> namesBeside(const InstallHarness& harness) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(harness.directory.path())) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with("m.morlen")) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

const std::vector<std::string> finished = {"m.morlen", "m.morlen.install.lock"};
const std::vector<std::string> resumable = {"m.morlen.install.lock", "m.morlen.partial",
                                            "m.morlen.resume.json"};

/// An install that was interrupted at its range number `index`.
void interrupt(InstallHarness& harness, std::size_t index) {
  harness.interruptAtRange(index);
  ASSERT_NE(harness.installError(harness.options()), "no error");
  harness.hub->setFaults(nullptr);
  harness.hub->clearRequests();
  ASSERT_EQ(namesBeside(harness), resumable);
}

RemoteStreamingRepackOptions resuming(InstallHarness& harness) {
  RemoteStreamingRepackOptions options = harness.options();
  options.resume = true;
  return options;
}

TEST(Install, EveryByteIsWhereTheFormatWantsIt) {
  const SyntheticCheckpoint::Shape wide{
      .layers = 3, .experts = 5, .hidden = 128, .shards = 4, .excludedTensors = 9};
  const SyntheticCheckpoint::Shape oneShard{.shards = 1, .excludedTensors = 0};
  const std::vector<std::tuple<std::string, SyntheticCheckpoint::Shape, int, int>> rows = {
      {"one-byte ranges and tiles", tinyShape(), 1, 1},
      {"seven-byte ranges, tiles larger than a range", tinyShape(), 7, 64},
      {"ranges that cut tensors, tiles that cut ranges", {}, 4096, 1000},
      {"odd sizes over four shards", wide, 65537, 4099},
      {"one range a shard, the largest tile", wide, 67108864, 1048575},
      {"one shard without gaps", oneShard, 30000, 524288},
  };
  for (const auto& [name, shape, rangeBytes, tileBytes] : rows) {
    SCOPED_TRACE(name);
    InstallHarness harness(SyntheticCheckpoint::custom(shape, 7));
    RemoteStreamingRepackOptions options = harness.options();
    options.rangeChunkBytes = rangeBytes;
    options.writeTileBytes = tileBytes;
    const RemoteStreamingRepackResult result = harness.install(options);
    EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
    EXPECT_EQ(harness.hub->connectionCount(), 2U) << "one connection to each host, kept for all";
    EXPECT_EQ(harness.payloadRanges().size(), result.rangeRequestCount);
    EXPECT_EQ(result.downloadedThisRunBytes, result.remoteBytesToDownload);
    EXPECT_EQ(namesBeside(harness), finished);
    EXPECT_THAT(VerifiedInstallTool::run({harness.output}).unexpectedEntries, IsEmpty());
  }
}

TEST(Install, ADamagedArtifactIsNoneThatTheFormatWants) {
  InstallHarness harness;
  harness.install(harness.options());
  const PredictedArtifact predicted = harness.predicted();
  ASSERT_THAT(predicted.differences(harness.output), IsEmpty());
  std::string weights = readFile(harness.output + "/model_weights.bin");
  weights[20000] = static_cast<char>(weights[20000] ^ 1);
  writeFile(harness.output + "/model_weights.bin", weights);
  writeFile(harness.output + "/packed_experts/extra", "x");
  fs::remove(harness.output + "/tokenizer/tokenizer.json");
  fs::rename(harness.output + "/tokenizer/config.json", harness.directory / "config.json");
  fs::create_symlink(harness.directory / "config.json", harness.output + "/tokenizer/config.json");
  const std::string layer = harness.output + "/packed_experts/layer_01.bin";
  const std::uint64_t size = fs::file_size(layer);
  fs::resize_file(layer, size - 1);
  EXPECT_THAT(
      predicted.differences(harness.output),
      ElementsAre(
          fmt::format("model_weights.bin: differs at byte 20000 ({0} bytes, {0} predicted)", weights.size()),
          fmt::format("packed_experts/layer_01.bin: differs at byte {0} ({0} bytes, {1} predicted)", size - 1,
                      size),
          "tokenizer/config.json: not a readable regular file", "tokenizer/tokenizer.json: missing",
          "packed_experts/extra: unexpected"));
}

TEST(Install, AResumeAsksOnlyForWhatIsMissing) {
  InstallHarness whole;
  whole.install(whole.options());
  const std::vector<std::string> ranges = whole.payloadRanges();
  ASSERT_GT(ranges.size(), 10U);
  for (const std::size_t index : {std::size_t{0}, std::size_t{1}, ranges.size() / 2, ranges.size() - 1}) {
    SCOPED_TRACE(index);
    InstallHarness harness;
    interrupt(harness, index);
    const RemoteStreamingRepackResult result = harness.install(resuming(harness));
    EXPECT_THAT(harness.payloadRanges(),
                ElementsAreArray(ranges.begin() + static_cast<std::ptrdiff_t>(index), ranges.end()));
    EXPECT_EQ(result.reusedBytes + result.downloadedThisRunBytes, result.remoteBytesToDownload);
    EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
    EXPECT_EQ(namesBeside(harness), finished);
  }
}

TEST(Install, OneFlippedByteCostsOneRange) {
  InstallHarness whole;
  const std::size_t rangeCount = whole.install(whole.options()).rangeRequestCount;
  InstallHarness harness;
  interrupt(harness, rangeCount - 2);
  // In a payload byte that a finished range has already put in its place.
  const std::string path = harness.output + ".partial/model_weights.bin";
  std::string content = readFile(path);
  const std::string expected = harness.predicted().contents().at("model_weights.bin");
  std::size_t offset = MorlenFormatV1::alignmentBytes;
  while (content.at(offset) != expected.at(offset) || expected.at(offset) == 0) ++offset;
  content[offset] = static_cast<char>(content[offset] ^ 1);
  writeFile(path, content);
  harness.install(resuming(harness));
  EXPECT_EQ(harness.payloadRanges().size(), 3U);
  EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
}

TEST(Install, ATruncatedOutputStartsTheCopyOver) {
  InstallHarness harness;
  interrupt(harness, 4);
  fs::resize_file(harness.output + ".partial/packed_experts/layer_00.bin", 100);
  writeFile(harness.output + ".partial/vellicor-range-LEFTOVER.tmp", "left by a crash");
  const RemoteStreamingRepackResult result = harness.install(resuming(harness));
  EXPECT_EQ(result.reusedBytes, 0U);
  EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
}

TEST(Install, RefusalsLeaveEverythingAsItIs) {
  using Arrange = std::function<void(InstallHarness&, RemoteStreamingRepackOptions&)>;
  const auto interruptedWith = [](auto change) {
    return [change](InstallHarness& harness, RemoteStreamingRepackOptions& options) {
      interrupt(harness, 2);
      options.resume = true;
      change(harness, options);
    };
  };
  const std::string incompatible = "install state is incompatible: saved download ";
  const std::string apart =
      "install state at OUT.partial is corrupt: partial directory and checkpoint must exist together";
  // What prepares the disk and the options, and the error with "OUT" for the output's path.
  const std::vector<std::tuple<std::string, Arrange, std::string>> rows = {
      {"a saved download, not resumed", interruptedWith([](auto&, auto& o) { o.resume = false; }),
       incompatible + "exists; resume or discard it"},
      {"a checkpoint without its directory",
       interruptedWith([](auto& h, auto&) { fs::remove_all(h.output + ".partial"); }), apart},
      {"a directory without its checkpoint",
       interruptedWith([](auto& h, auto&) { fs::remove(h.output + ".resume.json"); }), apart},
      {"another repository", interruptedWith([](auto&, auto& o) { o.repoID = "other/model"; }),
       incompatible + "belongs to a different source"},
      {"another revision", interruptedWith([](auto& h, auto& o) { o.revision = h.checkpoint->commit(); }),
       incompatible + "belongs to a different source"},
      {"another range size", interruptedWith([](auto&, auto& o) { o.rangeChunkBytes = 4097; }),
       incompatible + "source or copy plan changed"},
      {"a checkpoint that names another size", interruptedWith([](auto& h, auto&) {
         RemoteInstallCheckpoint saved = RemoteInstallCheckpoint::load(h.output + ".resume.json");
         saved.completedRanges[0].sourceBytes -= 1;
         writeFile(h.output + ".resume.json", saved.encoded());
       }),
       "install state at OUT.partial is corrupt: checkpoint contains an unknown range"},
      {"a range size of zero", [](auto&, auto& o) { o.rangeChunkBytes = 0; },
       "configuration invalid: bad range chunk bytes 0"},
      {"a range size above the limit", [](auto&, auto& o) { o.rangeChunkBytes = 67108865; },
       "configuration invalid: bad range chunk bytes 67108865"},
      {"a tile of 1 MiB", [](auto&, auto& o) { o.writeTileBytes = 1048576; },
       "configuration invalid: bad write tile bytes 1048576"},
      {"negative attempts", [](auto&, auto& o) { o.rangeRetryAttempts = -1; },
       "configuration invalid: bad range retry attempts -1"},
  };
  for (const auto& [name, arrange, expected] : rows) {
    SCOPED_TRACE(name);
    InstallHarness harness;
    RemoteStreamingRepackOptions options = harness.options();
    arrange(harness, options);
    std::map<std::string, std::string> before = readTree(harness.directory.path());
    std::string error = harness.installError(options);
    for (std::size_t at; (at = error.find(harness.output)) != std::string::npos;) {
      error.replace(at, harness.output.size(), "OUT");
    }
    EXPECT_EQ(error, expected);
    std::map<std::string, std::string> after = readTree(harness.directory.path());
    for (auto* tree : {&before, &after}) {
      std::erase_if(*tree, [](const auto& file) {
        return file.first.ends_with(".install.lock") ||
               file.first.find(".remote-metadata/") != std::string::npos;
      });
    }
    EXPECT_EQ(after, before);
    EXPECT_THAT(harness.payloadRanges(), IsEmpty());
  }
}

/// What the hub answers for repositories, revisions and tokens that are not right, as a person sees it.
TEST(Install, RefusalsOfTheHubAreNamed) {
  const std::string lab = labRepoID;
  const std::vector<std::tuple<std::string, std::string, std::string, std::string, int>> rows = {
      {"missing repository", "nobody/nothing", "main", "good", 404},
      {"unknown revision", lab, "v9", "good", 404},
      {"bad token", lab, "main", "bad", 401},
      {"an empty token is none", lab, "main", "", 401},
  };
  for (const auto& [name, repoID, revision, token, status] : rows) {
    SCOPED_TRACE(name);
    InstallHarness harness(SyntheticCheckpoint::custom({}, 1), [&](LocalHub::Options& options) {
      options.requiredToken = "good";
      options.repoID = lab;
    });
    RemoteStreamingRepackOptions options = harness.options();
    options.repoID = repoID;
    options.revision = revision;
    options.token = token;
    EXPECT_EQ(harness.installError(options),
              fmt::format("remote HTTP {}: {}/{}/resolve/{}/model.safetensors.index.json", status,
                          harness.hub->baseURL(), repoID, revision));
  }
}

TEST(Install, SpaceIsCheckedBeforeAnyPayload) {
  InstallHarness harness;
  RemoteStreamingRepackOptions options = harness.options();
  options.dryRunSpaceCheck = true;
  const RemoteStreamingRepackResult result = harness.install(options);
  EXPECT_TRUE(result.dryRun);
  EXPECT_GT(result.remoteBytesToDownload, 0U);
  EXPECT_EQ(result.downloadedThisRunBytes, 0U);
  EXPECT_EQ(namesBeside(harness), std::vector<std::string>{"m.morlen.install.lock"});
  options.dryRunSpaceCheck = false;
  options.minFreeReserveBytes = std::uint64_t{1} << 62;
  EXPECT_THAT(harness.installError(options),
              StartsWith("insufficient disk space for " + harness.directory.path() + ": required 461168"));
  EXPECT_THAT(harness.payloadRanges(), IsEmpty());
}

TEST(Install, OverwriteKeepsTheOldArtifactUntilTheExchange) {
  InstallHarness harness;
  writeFile(harness.output + "/old", "old");
  RemoteStreamingRepackOptions options = harness.options();
  options.overwrite = true;
  harness.interruptAtRange(5);
  ASSERT_NE(harness.installError(options), "no error");
  RemoteStreamingRepacker::discardPartial(harness.output);
  EXPECT_EQ(namesBeside(harness), finished);
  EXPECT_EQ(errorText([&] { RemoteStreamingRepacker::discardPartial(harness.output); }),
            "no resumable install state exists for " + harness.output + ".resume.json");

  harness.interruptAtRange(5);
  ASSERT_NE(harness.installError(options), "no error");
  EXPECT_THAT(readTree(harness.output), ElementsAre(std::pair("old", "old")));
  harness.hub->setFaults(nullptr);
  options.resume = true;
  harness.install(options);
  EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
  EXPECT_EQ(namesBeside(harness), finished);
}

TEST(Install, SidecarsAreRequiredOrSkipped) {
  InstallHarness optional;
  optional.checkpoint->setSmallFile("chat_template.jinja", std::nullopt);
  optional.checkpoint->setSmallFile("special_tokens_map.json", "{}");
  optional.install(optional.options());
  EXPECT_FALSE(fs::exists(optional.output + "/tokenizer/chat_template.jinja"));
  EXPECT_EQ(readFile(optional.output + "/tokenizer/special_tokens_map.json"), "{}");

  InstallHarness required;
  required.checkpoint->setSmallFile("tokenizer_config.json", std::nullopt);
  EXPECT_EQ(required.installError(required.options()),
            "remote HTTP 404: " + required.hub->baseURL() + "/" + labRepoID + "/resolve/" +
                required.checkpoint->commit() + "/tokenizer_config.json");
  EXPECT_EQ(namesBeside(required), resumable);
}

TEST(Install, TheTokenGoesToTheHubAndNowhereElse) {
  InstallHarness harness(SyntheticCheckpoint::custom({}, 1), [](LocalHub::Options& options) {
    options.requiredToken = "secret-token";
    options.storageRedirects = 1;
  });
  RemoteStreamingRepackOptions options = harness.options();
  options.token = "secret-token";
  options.copyAuditPath = harness.directory / "audit/audit.json";
  harness.install(options);
  std::size_t toHub = 0, toStorage = 0;
  for (const HubRequest& request : harness.hub->requests()) {
    EXPECT_EQ(request.authorization, request.host == "localhost" ? "Bearer secret-token" : "")
        << request.target;
    EXPECT_EQ(request.acceptEncoding, "identity");
    ++(request.host == "localhost" ? toHub : toStorage);
  }
  EXPECT_GT(toHub, 20U);
  EXPECT_GT(toStorage, 20U);
  for (const auto& [path, content] : readTree(harness.directory.path())) {
    EXPECT_EQ(content.find("secret-token"), std::string::npos) << path;
  }
  EXPECT_THAT(readFile(harness.directory / "audit/audit.json"), HasSubstr("\"remote_range_requests\" : "));
}

TEST(Install, CancellingEndsAStalledTransferAtOnceAndLeavesAResumableState) {
  InstallHarness harness;
  std::stop_source stop;
  harness.hub->setFaults([&](const HubRequest& request) -> std::optional<HubFault> {
    if (!isPayload(*harness.checkpoint, request)) return std::nullopt;
    stop.request_stop();
    return HubFault{.stallAfter = 10};
  });
  EXPECT_EQ(harness.installError(harness.options(), stop.get_token()), "cancelled");
  harness.hub->setFaults(nullptr);
  harness.install(resuming(harness));
  EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
}

TEST(Install, EventsComeInTheirOrder) {
  InstallHarness harness(SyntheticCheckpoint::custom(tinyShape(), 2));
  RemoteStreamingRepackOptions options = harness.options();
  options.rangeChunkBytes = 67108864;
  const RemoteStreamingRepackResult result = harness.install(options);
  ASSERT_GT(harness.events.size(), 6U);
  const std::uint64_t total = result.remoteBytesToDownload;
  EXPECT_TRUE(std::holds_alternative<DownloadingMetadataProgress>(harness.events[0]));
  EXPECT_EQ(std::get<PlanningProgress>(harness.events[1]).downloadBytes, total);
  EXPECT_TRUE(std::get<CheckingDiskProgress>(harness.events[2]).requirement.canInstall());
  EXPECT_EQ(std::get<ReservingOutputProgress>(harness.events[3]).bytes,
            std::get<PlanningProgress>(harness.events[1]).outputBytes);
  EXPECT_EQ(harness.events[4], ModelInstallProgress(CopyingPayloadProgress{0, 0, total}));
  std::vector<std::string> hashed;
  std::uint64_t copied = 0;
  for (const ModelInstallProgress& event : harness.events) {
    if (const auto* hashing = std::get_if<HashingOutputProgress>(&event))
      hashed.push_back(hashing->relativePath);
    if (const auto* copying = std::get_if<CopyingPayloadProgress>(&event)) {
      EXPECT_GE(copying->downloadedThisRun, copied);
      copied = copying->downloadedThisRun;
    }
  }
  EXPECT_EQ(copied, total);
  EXPECT_EQ(hashed, (std::vector<std::string>{"model_weights.bin", "packed_experts/layer_00.bin",
                                              "packed_experts/layout.json", "tokenizer/config.json",
                                              "tokenizer/tokenizer.json", "tokenizer/tokenizer_config.json",
                                              "tokenizer/chat_template.jinja"}));
  EXPECT_TRUE(std::holds_alternative<FinalizingProgress>(harness.events.back()));
}

}  // namespace
}  // namespace vellicor
