#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <optional>
#include <semaphore>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Tests/FaultInjection/FileCallRecord.h"
#include "VellicorLab/ChildProcess.h"
#include "VellicorLab/InstallHarness.h"
#include "VellicorLab/Removals.h"
#include "VellicorRepackCore/FileSystem/InstallLock.h"
#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"
#include "VellicorRepackCore/Install/SupportedModelSource.h"

namespace vellicor {
namespace {

namespace fs = std::filesystem;
using namespace ::testing;
using namespace testing;

using Environment = std::vector<std::pair<std::string, std::string>>;

const std::string installer = programPath("VellicorRepack");
const std::string lab = programPath("VellicorLab");

constexpr const char* usage =
    "Usage:\n"
    "  VellicorRepack --output <model.morlen> [--overwrite] [--resume]\n"
    "  VellicorRepack --discard-partial --output <model.morlen>\n"
    "  VellicorRepack --verify-install --input-morlen <model.morlen>\n"
    "  VellicorRepack --help\n"
    "\n"
    "The installer streams the supported Gemma 4 checkpoint from Hugging Face and\n"
    "repackages it without materializing the source checkpoint on disk. Set HF_TOKEN\n"
    "only if Hugging Face requests authentication. A cancelled or interrupted\n"
    "download can be continued with --resume or removed with --discard-partial.\n";

Environment against(const InstallHarness& harness) {
  return {{"HF_ENDPOINT", harness.hub->baseURL() + "/"}, {"SSL_CERT_FILE", harness.hub->caFile()}};
}

ProcessResult runInstaller(std::vector<std::string> arguments, const Environment& environment = {},
                           const std::string& workingDirectory = "") {
  arguments.insert(arguments.begin(), installer);
  return runProcess(arguments, {.environment = environment, .workingDirectory = workingDirectory});
}

InstallHarness& miniatureHub() {
  static InstallHarness harness(SyntheticCheckpoint::miniature(11));
  return harness;
}

TEST(Program, HelpAndArgumentsThatMakeNoSense) {
  const ProcessResult help = runInstaller({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.output, usage);
  EXPECT_EQ(help.errors, "");
  const ProcessResult wrong = runInstaller({"--output", "m", "--bogus"});
  EXPECT_EQ(wrong.status, 2);
  EXPECT_EQ(wrong.output, "");
  EXPECT_EQ(wrong.errors, std::string("error: unknown argument: --bogus\n\n") + usage);
}

TEST(Program, InstallsVerifiesAndRefuses) {
  InstallHarness& source = miniatureHub();
  TemporaryDirectory directory;
  const std::string output = directory / "gemma.morlen";
  const Environment environment = against(source);

  const ProcessResult installed = runInstaller({"--output", "gemma.morlen/"}, environment, directory.path());
  EXPECT_EQ(installed.status, 0) << installed.errors;
  EXPECT_EQ(installed.errors, "");
  EXPECT_THAT(installed.output,
              StartsWith("PROGRESS {\"phase\":\"metadata\"}\nPROGRESS {\"downloadBytes\":"));
  EXPECT_THAT(installed.output, EndsWith("PROGRESS {\"phase\":\"finalizing\"}\n"
                                         "Installed Gemma 4 26B-A4B IT 4-bit\n"
                                         "Source revision: 0d77464eeb233a2da68ebf9d7dc4edaac7db956d\n"
                                         "Model: " +
                                         output + "\n"));
  const std::string receipt = readFile(output + "/verified-install.json");
  EXPECT_THAT(receipt, HasSubstr("\"modelDirectoryPath\" : \"" + output + "\""));
  EXPECT_THAT(receipt, HasSubstr("\"sourceRepoID\" : \"mlx-community/gemma-4-26b-a4b-it-4bit\""));
  EXPECT_THAT(receipt, HasSubstr("\"toolVersion\" : \"VellicorRepack\""));
  const ProcessResult same = runProcess({lab, "check", "--seed", "11", output});
  EXPECT_EQ(same.status, 0) << same.errors;
  EXPECT_THAT(same.output,
              StartsWith(output + " is what the checkpoint and the format say, byte for byte (37 files, "));
  EXPECT_EQ(runProcess({lab, "check", "--seed", "12", output}).status, 1);

  const ProcessResult verified =
      runInstaller({"--verify-install", "--input-morlen", "gemma.morlen"}, {}, directory.path());
  EXPECT_EQ(verified.status, 0) << verified.errors;
  EXPECT_THAT(verified.output, StartsWith("Verified 37 files ("));
  EXPECT_THAT(verified.output, EndsWith(" bytes)\nReceipt: " + output + "/verified-install.json\n"));

  const std::map<std::string, std::string> artifact = readTree(output);
  const InstallLock lock = InstallLock::acquire(directory / "held");
  const std::string held = "another installer holds " + directory / "held.install.lock" + "\n";
  const std::vector<std::tuple<std::string, std::vector<std::string>, std::string>> rows = {
      {"install beside another", {"--output", "held"}, "install failed: " + held},
      {"discard beside another", {"--discard-partial", "--output", "held"}, "discard failed: " + held},
      {"install again",
       {"--output", output},
       "install failed: configuration invalid: output directory already exists: " + output + "\n"},
      {"resume nothing",
       {"--output", "other", "--resume"},
       "install failed: no resumable install state exists for " + directory / "other.resume.json" + "\n"},
      {"discard nothing",
       {"--discard-partial", "--output", output},
       "discard failed: no resumable install state exists for " + output + ".resume.json\n"},
      {"an output without a name",
       {"--output", "/"},
       "install failed: unsafe installer path /: invalid output basename\n"},
      {"no output",
       {"--output", "", "--overwrite"},
       "install failed: unsafe installer path : invalid output basename\n"},
      {"discard of no output",
       {"--discard-partial", "--output", ""},
       "discard failed: unsafe installer path : invalid output basename\n"},
      {"verify nothing",
       {"--verify-install", "--input-morlen", "nothing"},
       "verification failed: open(" + directory / "nothing" + ") failed: errno 2\n"},
      {"verify what is no artifact",
       {"--verify-install", "--input-morlen", "."},
       "verification failed: fstat(" + directory / "manifest.json" + ") failed: errno 2\n"},
  };
  for (const auto& [name, arguments, errors] : rows) {
    SCOPED_TRACE(name);
    const ProcessResult refused = runInstaller(arguments, environment, directory.path());
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.errors, errors);
    EXPECT_EQ(refused.output, "");
  }
  EXPECT_TRUE(readTree(output) == artifact) << "no refusal touches the artifact";
}

TEST(Program, NeedsNoCurrentDirectoryForAnAbsoluteOutput) {
  TemporaryDirectory directory;
  const std::string gone = directory / "gone";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {directory.path(), "configuration invalid: output directory already exists: " + directory.path()},
      {"m", "unsafe installer path m: the current directory has no path; give an absolute one"},
  };
  for (const auto& [output, error] : rows) {
    fs::create_directory(gone);
    const ProcessResult refused =
        runProcess({installer, "--output", output}, {.environment = against(miniatureHub()),
                                                     .workingDirectory = gone,
                                                     .beforeStart = [&] { ::rmdir(gone.c_str()); }});
    EXPECT_EQ(refused.errors, "install failed: " + error + "\n");
    EXPECT_EQ(refused.status, 1);
  }
}

TEST(Program, SaysPlainlyWhatIsWrongWithTheWay) {
  InstallHarness& source = miniatureHub();
  TemporaryDirectory directory;
  writeFile(directory / "not-a-ca.pem", "nothing");
  const std::string port = std::to_string(source.hub->port());
  const std::string notHttps =
      "install failed: configuration invalid: HF_ENDPOINT is not an https URL with a host\n";
  const std::vector<std::tuple<std::string, Environment, std::string>> rows = {
      {"http", {{"HF_ENDPOINT", "http://localhost:" + port}}, notHttps},
      {"no scheme", {{"HF_ENDPOINT", "localhost:" + port}}, notHttps},
      {"no host", {{"HF_ENDPOINT", "https://"}}, notHttps},
      {"a query", {{"HF_ENDPOINT", "https://localhost/?a=b"}}, notHttps},
      {"a certificate that is not trusted",
       {{"HF_ENDPOINT", source.hub->baseURL()}},
       "install failed: the certificate of localhost:" + port + " is not trusted: "},
      {"a CA file without certificates",
       {{"HF_ENDPOINT", source.hub->baseURL()}, {"SSL_CERT_FILE", directory / "not-a-ca.pem"}},
       "install failed: "},
      {"a token no header can carry",
       {{"HF_TOKEN", "secret\nX-Evil: 1"}, against(source)[0], against(source)[1]},
       "install failed: configuration invalid: the access token contains characters that an Authorization "
       "header cannot carry\n"},
  };
  for (const auto& [name, environment, errors] : rows) {
    SCOPED_TRACE(name);
    TemporaryDirectory work;
    const ProcessResult failed = runInstaller({"--output", work / "m.morlen"}, environment);
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.errors, StartsWith(errors));
    EXPECT_EQ(std::count(failed.errors.begin(), failed.errors.end(), '\n'), 1) << failed.errors;
    EXPECT_THAT(failed.errors, Not(HasSubstr("secret")));
    EXPECT_FALSE(fs::exists(work / "m.morlen"));
  }
}

std::set<std::string> namesIn(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) names.insert(entry.path().filename().string());
  return names;
}

/// Runs the installer until it is under way with its payload range number `index`, and kills it there.
void killAtRange(InstallHarness& source, std::size_t index, std::vector<std::string> command) {
  std::binary_semaphore reached(0);
  std::size_t seen = 0;
  source.hub->setFaults([&](const HubRequest& request) -> std::optional<HubFault> {
    if (!isPayload(*source.checkpoint, request) || seen++ < index) return std::nullopt;
    reached.release();
    return HubFault{.stallAfter = 100};
  });
  command.insert(command.begin(), installer);
  ChildProcess process(command, {.environment = against(source)});
  EXPECT_TRUE(reached.try_acquire_for(std::chrono::minutes(1)));
  process.kill(SIGKILL);
  EXPECT_EQ(process.wait().status, 128 + SIGKILL);
  source.hub->setFaults(nullptr);
  source.hub->clearRequests();
}

TEST(Program, AKillCostsTheRangeInFlightAndNoMore) {
  InstallHarness& source = miniatureHub();
  const PredictedArtifact predicted = source.predicted();
  const std::string resume = "--resume", discard = "--discard-partial";
  const std::vector<std::tuple<std::string, bool, std::size_t, std::string>> rows = {
      {"a fresh one", false, 0, resume},
      {"one that overwrites, in its last range", true, 2, resume},
      {"a fresh one, given up", false, 1, discard},
      {"one that overwrites, given up", true, 1, discard},
  };
  std::vector<std::string> ranges;
  for (const auto& [name, overwrites, index, next] : rows) {
    SCOPED_TRACE(name);
    if (overwrites && !canExchangeNames()) {
      fmt::print("{}: {}\n", name, noExchange);
      continue;
    }
    TemporaryDirectory directory;
    const std::string output = directory / "m";
    if (overwrites) writeFile(output + "/manifest.json", "the old one");
    const std::map<std::string, std::string> before = readTree(output);
    std::vector<std::string> words = {"--output", output};
    if (overwrites) words.emplace_back("--overwrite");
    killAtRange(source, index, words);
    EXPECT_EQ(RemoteInstallCheckpoint::load(output + ".resume.json").completedRanges.size(), index);
    EXPECT_TRUE(readTree(output) == before);

    if (next == discard) words = {"--output", output};
    words.push_back(next);
    const ProcessResult ended = runInstaller(words, against(source));
    EXPECT_EQ(ended.status, 0) << ended.errors;
    const std::vector<std::string> asked = source.payloadRanges();
    if (next == resume) {
      if (index == 0) ranges = asked;
      ASSERT_EQ(ranges.size(), 3U);
      EXPECT_THAT(asked, ElementsAreArray(ranges.begin() + static_cast<std::ptrdiff_t>(index), ranges.end()));
      EXPECT_THAT(predicted.differences(output), IsEmpty());
      EXPECT_THAT(namesIn(directory.path()), ElementsAre("m", "m.install.lock"));
    } else {
      EXPECT_EQ(ended.output, "Discarded saved download for " + output + "\n");
      EXPECT_THAT(asked, IsEmpty());
      EXPECT_TRUE(readTree(output) == before);
      EXPECT_EQ(namesIn(directory.path()).size(), overwrites ? 2U : 1U);
    }
  }
}

#if defined(__linux__)

/// An output whose state can be put back, and commands on it whose file calls are counted.
class CallBench {
 public:
  CallBench() {
    harness.output = place_ + "/m.morlen";
    fs::create_directory(place_);
  }
  void save() { fs::copy(place_, saved_, fs::copy_options::recursive); }
  void putBack() {
    removeSettled(place_);
    fs::copy(saved_, place_, fs::copy_options::recursive);
    harness.hub->clearRequests();
  }
  FileCallRun run(const std::vector<std::string>& flags, std::uint64_t point, const std::string& action) {
    putBack();
    return runWithFileCalls(harness.command(flags), {.root = place_, .point = point, .action = action},
                            harness.directory / "record");
  }
  bool hasArtifact() const {
    return fs::is_directory(harness.output) && harness.predicted().differences(harness.output).empty();
  }
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(place_))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  InstallHarness harness;

 private:
  std::string place_ = harness.directory / "place";
  std::string saved_ = harness.directory / "saved";
};

/// The number of the first call of a kind on a path after the call number `after`.
std::uint64_t callNumber(const FileCallRun& run, const std::string& name, const std::string& path,
                         std::uint64_t after = 0) {
  const auto call = std::find_if(run.calls.begin(), run.calls.end(), [&](const FileCall& candidate) {
    return candidate.number > after && candidate.name == name && candidate.path == path;
  });
  return call == run.calls.end() ? 0 : call->number;
}

TEST(Program, ABadSectorCostsTheRangeThatLiesOnIt) {
  CallBench bench;
  std::vector<std::string> resume = {"--resume"};
  if (canExchangeNames()) resume.emplace_back("--overwrite");
  bench.harness.interruptAtRange(7);
  ASSERT_NE(bench.harness.installError(bench.harness.options()), "no error");
  bench.harness.hub->setFaults(nullptr);
  const std::string oldManifest = bench.harness.output + "/manifest.json";
  if (resume.size() > 1) writeFile(oldManifest, "old");
  bench.save();
  const FileCallRun untouched = bench.run(resume, 0, "");
  ASSERT_EQ(untouched.result.status, 0) << untouched.result.errors;
  const std::size_t unfinished = bench.harness.payloadRanges().size();
  const std::string weights = bench.harness.output + ".partial/model_weights.bin";
  const std::uint64_t ofIndex = callNumber(untouched, "pread", weights);
  const std::vector<std::tuple<std::string, std::uint64_t, std::size_t>> rows = {
      {"under the index", ofIndex, 0},
      {"under a finished range", callNumber(untouched, "pread", weights, ofIndex), 1},
  };
  for (const auto& [name, number, cost] : rows) {
    SCOPED_TRACE(name);
    EXPECT_NE(number, 0U);
    const FileCallRun run = bench.run(resume, number, std::to_string(EIO));
    EXPECT_EQ(run.result.status, 0) << run.result.errors;
    EXPECT_EQ(callNumber(run, "pread", oldManifest), 0U) << "no unfinished download has been exchanged";
    const bool isIndexWritten = std::any_of(run.calls.begin(), run.calls.end(), [&](const FileCall& call) {
      return call.name == "pwrite" && call.path == weights && call.offset == 0;
    });
    EXPECT_EQ(isIndexWritten, number == ofIndex);
    EXPECT_EQ(bench.harness.payloadRanges().size(), unfinished + cost);
    EXPECT_TRUE(bench.hasArtifact());
  }
}

TEST(Program, AnOverwriteThatEndsAfterTheExchangeCostsNothing) {
  if (!canExchangeNames()) GTEST_SKIP() << noExchange;
  CallBench bench;
  const std::string& output = bench.harness.output;
  const std::string old = output + ".partial", checkpoint = output + ".resume.json";
  writeFile(output + "/manifest.json", "old");
  writeFile(output + "/more/old", "old too");
  bench.save();
  const FileCallRun untouched = bench.run({"--overwrite"}, 0, "");
  ASSERT_EQ(untouched.result.status, 0) << untouched.result.errors;
  const std::uint64_t trial = callNumber(untouched, "exchange", output + ".exchange-a");
  const std::uint64_t exchange = callNumber(untouched, "exchange", old);
  const std::string parent = fs::path(output).parent_path().string();
  const std::uint64_t sync = callNumber(untouched, "fsync", parent, exchange);
  const std::uint64_t unlink = callNumber(untouched, "remove", checkpoint, exchange);
  const std::uint64_t removal = callNumber(untouched, "remove", old + "/manifest.json", exchange);
  const std::string io = std::to_string(EIO), apart = "partial directory and checkpoint must exist together";
  const std::string unsupported = "atomic directory promotion is unsupported for ";
  // Where what happens, what is printed, what a resume then says, and whether the old artifact is in place.
  const std::vector<std::tuple<std::string, std::uint64_t, std::string, std::string, std::string, bool>>
      rows = {
          {"no exchange here", trial, std::to_string(EINVAL), unsupported + output + ": errno 22",
           "no resumable install state", true},
          {"killed before the sync", sync, "die", "", "no error", false},
          {"no sync", sync, io, "fsync(" + parent + ") failed: errno 5", apart, false},
          {"killed before the checkpoint goes", unlink, "die", "", "no error", false},
          {"killed in the removal", removal, "die", "", apart, false},
          {"the old one stays", removal, io,
           "unsafe installer path " + old +
               ": the new artifact is in place, but the old one could not be removed: ",
           apart, false},
      };
  for (const auto& [name, number, action, printed, resumed, isOld] : rows) {
    SCOPED_TRACE(name);
    EXPECT_NE(number, 0U);
    const FileCallRun run = bench.run({"--overwrite"}, number, action);
    EXPECT_THAT(run.result.errors, HasSubstr(printed));
    EXPECT_NE(run.result.status, 0);
    EXPECT_EQ(bench.harness.hub->requests().empty(), isOld);
    EXPECT_EQ(fs::exists(output + "/more/old"), isOld);
    bench.harness.hub->clearRequests();
    RemoteStreamingRepackOptions options = bench.harness.options();
    options.overwrite = options.resume = true;
    EXPECT_THAT(bench.harness.installError(options), HasSubstr(resumed));
    if (resumed == apart) RemoteStreamingRepacker::discardPartial(output);
    EXPECT_THAT(bench.harness.payloadRanges(), IsEmpty());
    EXPECT_EQ(bench.hasArtifact(), !isOld);
    EXPECT_THAT(bench.names(), ElementsAre("m.morlen", "m.morlen.install.lock"));
  }
}

#endif

}  // namespace
}  // namespace vellicor
