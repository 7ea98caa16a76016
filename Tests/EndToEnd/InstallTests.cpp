#include <filesystem>
#include <regex>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Tests/Support/Expect.h"
#include "VellicorLab/InstallHarness.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"

namespace vellicor {
namespace {

namespace fs = std::filesystem;
using namespace ::testing;
using namespace testing;

/// The entries beside the output, by name.
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

std::uint64_t parts(std::uint64_t size, std::uint64_t most) { return (size + most - 1) / most; }

/// Compares what an install of everything counted with what its checkpoint, its output and the wire say.
void expectCounts(const InstallHarness& harness, const PredictedArtifact& predicted,
                  const RemoteStreamingRepackOptions& options) {
  const auto range = static_cast<std::uint64_t>(options.rangeChunkBytes),
             tile = static_cast<std::uint64_t>(options.writeTileBytes);
  constexpr std::uint64_t hashedAtOnce = 524288;
  std::uint64_t kept = 0, tiles = 0, fetched = 0, largest = 0;
  for (const auto& [name, tensor] : harness.checkpoint->tensors()) {
    if (!name.starts_with("language_model.")) continue;
    const std::uint64_t copies = name.find(".experts.") == std::string::npos ? 1 : tensor.shape[0];
    const std::uint64_t size = tensor.size / copies;
    kept += tensor.size;
    tiles += copies * (size / range * parts(range, tile) + parts(size % range, tile));
  }
  for (const auto& [path, bytes] : predicted.files())
    tiles += path == "manifest.json" ? 0 : parts(bytes.size(), hashedAtOnce);
  const std::vector<std::string> requests = harness.payloadRanges();
  for (const std::string& request : requests) {
    const std::string bounds = request.substr(request.find('=') + 1);
    const std::uint64_t size = std::stoull(bounds.substr(bounds.find('-') + 1)) - std::stoull(bounds) + 1;
    fetched += size;
    largest = std::max(largest, size);
  }
  const RepackAudit& audit = harness.audit;
  EXPECT_EQ(audit.sourceBytesRead, kept);
  EXPECT_EQ(audit.intentionalCopyBytes, kept);
  EXPECT_EQ(audit.outputBytesWritten, kept + predicted.files().at("manifest.json").size());
  EXPECT_EQ(audit.byteCopyTiles, tiles);
  EXPECT_EQ(audit.largestScratchBytes, std::max(tile, hashedAtOnce));
  EXPECT_EQ(audit.remoteRangeRequests, requests.size());
  EXPECT_EQ(audit.remoteBytesDownloaded, fetched);
  EXPECT_EQ(audit.remoteGapBytesDownloaded, fetched - kept);
  EXPECT_EQ(audit.largestRemoteTransferBytes, largest);
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
    const PredictedArtifact predicted = harness.predicted();
    EXPECT_THAT(predicted.differences(harness.output), IsEmpty());
    expectCounts(harness, predicted, options);
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
  const RemoteStreamingRepackResult result = harness.install(resuming(harness));
  EXPECT_EQ(harness.payloadRanges().size(), 3U);
  EXPECT_EQ(result.reusedBytes + result.downloadedThisRunBytes, result.remoteBytesToDownload);
  EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
}

using OnEvent = std::function<void(const ModelInstallProgress&)>;

/// The error of an install that shows `onEvent` each event.
std::string errorOfInstall(const RemoteStreamingRepackOptions& options, const OnEvent& onEvent) {
  RepackAudit audit;
  return errorText([&] { RemoteStreamingRepacker(options, audit).run(onEvent); });
}

void flipByte(const std::string& path, std::size_t offset) {
  std::string content = readFile(path);
  content.at(offset) = static_cast<char>(content.at(offset) ^ 1);
  writeFile(path, content);
}

TEST(Install, WhatChangesBeforeTheEndIsNotPromotedAndCostsNoMore) {
  using Change = std::function<void(const std::string& partial)>;
  const auto inTheCopy = [](const ModelInstallProgress& event) {
    const auto* copying = std::get_if<CopyingPayloadProgress>(&event);
    return copying != nullptr && copying->downloadedThisRun == copying->total;
  };
  const auto atTheEnd = [](const ModelInstallProgress& event) {
    return std::holds_alternative<FinalizingProgress>(event);
  };
  const auto flip = [](const char* file, std::size_t offset) {
    return [=](const std::string& partial) { flipByte(partial + file, offset); };
  };
  const auto replaceByCopy = [](const std::string& partial) {
    const std::string file = partial + "model_weights.bin", content = readFile(file);
    fs::remove(file);
    writeFile(file, content);
  };
  const auto makeDirectory = [](const std::string& partial) {
    fs::remove(partial + "tokenizer/tokenizer_config.json");
    fs::create_directory(partial + "tokenizer/tokenizer_config.json");
  };
  const auto resizeBy = [](const std::string& file, int difference) {
    return [=](const std::string& partial) {
      const auto size = static_cast<std::intmax_t>(fs::file_size(partial + file));
      fs::resize_file(partial + file, static_cast<std::uintmax_t>(size + difference));
    };
  };
  const std::string range = " is corrupt: range-NUMBER changed after it was finished";
  const std::string outside = " is corrupt: bytes outside every range changed; they were put back";
  const std::string small = " is corrupt: changed after it was recorded";
  const std::string weights = "model_weights.bin", layer = "packed_experts/layer_01.bin";
  const std::size_t firstTensor = MorlenFormatV1::alignmentBytes, indexEnd = firstTensor - 1;
  const std::size_t lastOfLayer = InstallHarness().predicted().contents().at(layer).size() - 1;
  // When what changes, the path and text of the error, and the ranges that the resume fetches.
  const std::vector<std::tuple<std::string, std::function<bool(const ModelInstallProgress&)>, Change,
                               std::string, std::string, std::size_t>>
      rows = {
          {"a range of the weights", inTheCopy, flip("model_weights.bin", firstTensor), weights, range, 1},
          {"a range of a layer", inTheCopy, flip(layer.c_str(), 0), layer, range, 1},
          {"the index", inTheCopy, flip("model_weights.bin", indexEnd), weights, outside, 0},
          {"what pads a layer", inTheCopy, flip(layer.c_str(), lastOfLayer), layer, outside, 0},
          {"a byte too many", inTheCopy, resizeBy(weights, 1), weights, outside, 0},
          {"a byte too few", inTheCopy, resizeBy(layer, -1), layer, outside, 0},
          {"a range that was hashed", atTheEnd, flip(layer.c_str(), 0), layer, range, 1},
          {"the index that was hashed", atTheEnd, flip("model_weights.bin", 9), weights, outside, 0},
          {"the layout", atTheEnd, flip("packed_experts/layout.json", 9), "packed_experts/layout.json", small,
           0},
          {"a tokenizer file", atTheEnd, flip("tokenizer/tokenizer.json", 0), "tokenizer/tokenizer.json",
           small, 0},
          {"a directory for a file", atTheEnd, makeDirectory, "tokenizer/tokenizer_config.json", small, 0},
          {"a copy of the same bytes", atTheEnd, replaceByCopy, "", "no error", 0},
          {"what was planned from", inTheCopy, flip(".remote-metadata/config.json", 0), "", "no error", 0},
      };
  for (const auto& [name, when, change, file, text, cost] : rows) {
    SCOPED_TRACE(name);
    InstallHarness harness;
    const std::string partial = harness.output + ".partial/";
    bool isDone = false;
    std::string error = errorOfInstall(harness.options(), [&](const ModelInstallProgress& event) {
      if (!std::exchange(isDone, isDone || when(event)) && isDone) change(partial);
    });
    ASSERT_TRUE(isDone);
    error = std::regex_replace(error, std::regex("range-[0-9]{8}"), "range-NUMBER");
    EXPECT_EQ(error, text == "no error" ? text : "install state at " + partial + file + text);
    harness.hub->clearRequests();
    if (text != "no error") {
      EXPECT_EQ(namesBeside(harness), resumable);
      EXPECT_EQ(harness.installError(resuming(harness)), "no error");
    }
    EXPECT_EQ(harness.payloadRanges().size(), cost);
    EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
    EXPECT_EQ(namesBeside(harness), finished);
  }
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

TEST(Install, AResumeCountsTheBlocksOfItsFilesAsRoom) {
  InstallHarness harness;
  interrupt(harness, 2);
  RemoteStreamingRepackOptions options = resuming(harness);
  options.dryRunSpaceCheck = true;
  const auto requiredBytes = [&] {
    harness.install(options);
    return std::get<CheckingDiskProgress>(harness.events.at(2)).requirement.requiredBytes;
  };
  const std::uint64_t whileSparse = requiredBytes();
  const std::string partial = harness.output + ".partial/";
  for (const auto& [path, content] : readTree(partial)) {
    if (path.ends_with(".bin")) writeFile(partial + path, content);
  }
  const std::string weights = partial + "model_weights.bin";
  const bool isInPlace = Posix::bytesInPlace(Posix::openReadNoFollow(weights).get(), weights) > 0;
  EXPECT_EQ(requiredBytes(), isInPlace ? static_cast<std::uint64_t>(options.rangeChunkBytes) : whileSparse);
}

TEST(Install, EveryFileIsForWhomTheUmaskLets) {
  for (const mode_t umask : {0022U, 0002U, 0077U}) {
    SCOPED_TRACE(fmt::format("umask {:03o}", umask));
    const mode_t before = ::umask(umask);
    InstallHarness harness(SyntheticCheckpoint::custom(tinyShape(), 3));
    interrupt(harness, 1);
    const auto modeOf = [](const fs::path& path) {
      return static_cast<mode_t>(fs::status(path).permissions());
    };
    EXPECT_EQ(modeOf(harness.output + ".resume.json"), 0600U);
    harness.install(resuming(harness));
    const auto expectModes = [&](const char* writer) {
      std::size_t files = 0;
      for (const auto& entry : fs::recursive_directory_iterator(harness.output)) {
        const mode_t all = entry.is_directory() ? 0777 : 0666;
        EXPECT_EQ(modeOf(entry), all & ~umask) << entry.path() << " after the " << writer;
        ++files;
      }
      EXPECT_GT(files, 9U);
    };
    expectModes("install");
    VerifiedInstallTool::run({harness.output});
    expectModes("verification");
    ::umask(before);
  }
}

/// Acts for another user for as long as it lives, where this one is the superuser.
class OrdinaryUser {
 public:
  explicit OrdinaryUser(const std::string& directory) : isSuperuser_(::geteuid() == 0) {
    if (!isSuperuser_) return;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
      if (entry.path().filename() != notOwned) own(entry.path());
    }
    own(directory);
    if (::seteuid(nobody) != 0) throw std::runtime_error("seteuid failed");
  }
  ~OrdinaryUser() {
    if (isSuperuser_ && ::seteuid(0) != 0) std::abort();
  }
  /// An entry of this name stays the superuser's.
  static constexpr const char* notOwned = "another's";

  OrdinaryUser(const OrdinaryUser&) = delete;
  OrdinaryUser& operator=(const OrdinaryUser&) = delete;

 private:
  static constexpr uid_t nobody = 65534;
  static void own(const fs::path& path) {
    if (::lchown(path.c_str(), nobody, nobody) != 0) throw std::runtime_error("lchown failed");
  }
  bool isSuperuser_;
};

TEST(Install, OverwriteRefusesAtTheStartWhatItCouldNotReplace) {
  using Arrange = std::function<void(InstallHarness&, RemoteStreamingRepackOptions&)>;
  const auto artifactWith = [](fs::perms permissions) {
    return [=](InstallHarness& harness, RemoteStreamingRepackOptions&) {
      writeFile(harness.output + "/manifest.json", "old");
      writeFile(harness.output + "/packed_experts/layer_00.bin", "old");
      fs::permissions(harness.output + "/packed_experts", permissions);
    };
  };
  const std::string notOne = "unsafe installer path OUT: not an artifact; move it away first";
  const std::string held =
      "unsafe installer path OUT/packed_experts: it keeps the old artifact from being removed; move that "
      "away "
      "first";
  const std::string replaced =
      canExchangeNames() ? "no error"
                         : fmt::format("atomic directory promotion is unsupported for OUT: errno {}", EINVAL);
  std::vector<std::tuple<std::string, Arrange, std::string>> rows = {
      {"somebody's files", [](auto& h, auto&) { writeFile(h.output + "/photo.jpg", "a cat"); }, notOne},
      {"a directory for a manifest", [](auto& h, auto&) { writeFile(h.output + "/manifest.json/a", ""); },
       notOne},
      {"a directory that may not be written", artifactWith(fs::perms(0555)), held},
      {"a directory that may not be searched", artifactWith(fs::perms(0600)), held},
      {"a name that the trial exchange needs",
       [&](auto& h, auto& o) {
         artifactWith(fs::perms::owner_all)(h, o);
         writeFile(h.output + ".exchange-a/kept", "somebody's");
       },
       "unsafe installer path OUT.exchange-a: unexpected directory entry"},
      {"an empty directory", [](auto& h, auto&) { fs::create_directory(h.output); }, replaced},
      {"an artifact", artifactWith(fs::perms::owner_all), replaced},
  };
  if (::geteuid() == 0) {
    const auto shareWithAnother = [&](InstallHarness& harness, RemoteStreamingRepackOptions& options) {
      artifactWith(fs::perms::owner_all)(harness, options);
      const fs::path shared = fs::path(harness.output) / OrdinaryUser::notOwned;
      writeFile((shared / OrdinaryUser::notOwned).string(), "");
      fs::permissions(shared, fs::perms::all | fs::perms::sticky_bit);
    };
    rows.emplace_back("another's file where only owners remove", shareWithAnother,
                      "unsafe installer path OUT/another's/another's: it keeps the old artifact from being "
                      "removed; move that away first");
  }
  for (const auto& [name, arrange, expected] : rows) {
    SCOPED_TRACE(name);
    InstallHarness harness(SyntheticCheckpoint::custom(tinyShape(), 1));
    RemoteStreamingRepackOptions options = harness.options();
    options.overwrite = true;
    arrange(harness, options);
    const std::vector<std::string> names = namesBeside(harness);
    const OrdinaryUser user(harness.directory.path());
    std::string error = harness.installError(options);
    for (std::size_t at; (at = error.find(harness.output)) != std::string::npos;) {
      error.replace(at, harness.output.size(), "OUT");
    }
    EXPECT_EQ(error, expected);
    if (expected == "no error") {
      EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
      EXPECT_EQ(namesBeside(harness), finished);
      continue;
    }
    EXPECT_THAT(harness.hub->requests(), IsEmpty());
    std::vector<std::string> after = namesBeside(harness);
    std::erase(after, "m.morlen.install.lock");
    EXPECT_EQ(after, names);
    std::error_code ignored;
    fs::permissions(harness.output + "/packed_experts", fs::perms::owner_all, ignored);
  }
}

TEST(Install, AnOldArtifactIsNotTakenForTheNewOne) {
  for (const bool isSameModel : {false, true}) {
    SCOPED_TRACE(isSameModel ? "this model's, with a damaged tokenizer" : "another model's");
    InstallHarness harness;
    InstallHarness other(SyntheticCheckpoint::custom({}, 2));
    InstallHarness& old = isSameModel ? harness : other;
    old.output = harness.output;
    old.install(old.options());
    if (isSameModel) flipByte(harness.output + "/tokenizer/tokenizer.json", 0);

    RemoteStreamingRepackOptions options = harness.options();
    options.overwrite = true;
    const std::string error = errorOfInstall(options, [](const ModelInstallProgress& event) {
      if (std::holds_alternative<FinalizingProgress>(event)) throw std::runtime_error("with every range");
    });
    ASSERT_EQ(error, "with every range");
    flipByte(harness.output + ".partial/model_weights.bin", MorlenFormatV1::alignmentBytes);
    options.resume = true;
    harness.hub->clearRequests();
    EXPECT_EQ(harness.installError(options), "no error");
    EXPECT_EQ(harness.payloadRanges().size(), 1U);
    EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
    EXPECT_EQ(namesBeside(harness), finished);
  }
}

TEST(Install, OverwriteReplacesNothingThatCameMeanwhile) {
  InstallHarness harness(SyntheticCheckpoint::custom(tinyShape(), 1));
  RemoteStreamingRepackOptions options = harness.options();
  options.overwrite = true;
  const std::string photo = harness.output + "/photo.jpg";
  const std::string error = errorOfInstall(options, [&](const ModelInstallProgress& event) {
    if (std::holds_alternative<FinalizingProgress>(event)) writeFile(photo, "a cat");
  });
  EXPECT_EQ(error, "unsafe installer path " + harness.output + ": not an artifact; move it away first");
  EXPECT_EQ(readFile(photo), "a cat");
  fs::remove_all(harness.output);
  harness.hub->clearRequests();
  options.resume = true;
  EXPECT_EQ(harness.installError(options), "no error");
  EXPECT_THAT(harness.payloadRanges(), IsEmpty());
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
  EXPECT_EQ(readFile(*options.copyAuditPath), harness.audit.toJSONData(harness.output));
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
