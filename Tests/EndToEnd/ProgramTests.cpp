#include <csignal>
#include <filesystem>
#include <iterator>
#include <semaphore>
#include <sstream>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "VellicorLab/ChildProcess.h"
#include "VellicorRepackCore/FileSystem/InstallLock.h"
#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"
#include "VellicorRepackCore/Install/SupportedModelSource.h"
#include "VellicorTrials/InstallHarness.h"

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

TEST(Program, InstallsResumesVerifiesAndRefuses) {
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
  const ProcessResult other = runProcess({lab, "check", "--seed", "12", output});
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.output, "");
  EXPECT_THAT(other.errors, StartsWith("manifest.json: differs at byte "));
  EXPECT_THAT(other.errors, HasSubstr("\npacked_experts/layer_29.bin: differs at byte 0 "));

  const ProcessResult verified =
      runInstaller({"--verify-install", "--input-morlen", "gemma.morlen"}, {}, directory.path());
  EXPECT_EQ(verified.status, 0) << verified.errors;
  EXPECT_THAT(verified.output, StartsWith("Verified 37 files ("));
  EXPECT_THAT(verified.output, EndsWith(" bytes)\nReceipt: " + output + "/verified-install.json\n"));

  const std::map<std::string, std::string> artifact = readTree(output);
  const std::vector<std::tuple<std::string, std::vector<std::string>, std::string>> rows = {
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
       "install failed: the server's certificate is not trusted: "},
      {"a CA file that is none",
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

TEST(Program, AnotherInstallerHoldsTheOutput) {
  TemporaryDirectory directory;
  const std::string output = directory / "m.morlen";
  const InstallLock lock = InstallLock::acquire(output);
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"--output", output}, {"--discard-partial", "--output", output}}) {
    const ProcessResult refused = runInstaller(words, against(miniatureHub()));
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, EndsWith(" failed: another installer holds " + output + ".install.lock\n"));
  }
}

TEST(Program, AKillCostsTheRangeInFlightAndNoMore) {
  InstallHarness whole;
  whole.install(whole.options());
  const std::vector<std::string> ranges = whole.payloadRanges();
  for (const std::size_t index : {std::size_t{0}, ranges.size() / 2, ranges.size() - 1}) {
    SCOPED_TRACE(index);
    InstallHarness harness;
    std::binary_semaphore reached(0);
    std::size_t seen = 0;
    harness.hub->setFaults([&](const HubRequest& request) -> std::optional<HubFault> {
      if (!isPayload(*harness.checkpoint, request) || seen++ < index) {
        return std::nullopt;
      }
      reached.release();
      return HubFault{.stallAfter = 100};
    });
    ChildProcess process(harness.command());
    reached.acquire();
    process.kill(SIGKILL);
    EXPECT_EQ(process.wait().status, 128 + SIGKILL);
    EXPECT_EQ(RemoteInstallCheckpoint::load(harness.output + ".resume.json").completedRanges.size(), index);

    harness.hub->setFaults(nullptr);
    harness.hub->clearRequests();
    const ProcessResult resumed = runProcess(harness.command({"--resume"}));
    EXPECT_EQ(resumed.status, 0) << resumed.errors;
    EXPECT_THAT(resumed.output, HasSubstr("Installed lab-owner/lab-model\n"));
    EXPECT_THAT(harness.payloadRanges(),
                ElementsAreArray(ranges.begin() + static_cast<std::ptrdiff_t>(index), ranges.end()));
    EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
  }
}

TEST(Program, TheLabSpeaksAsTheInstallerDoes) {
  InstallHarness harness;
  const std::vector<std::tuple<std::vector<std::string>, int, std::string>> rows = {
      {{"--write-tile-bytes", "-1"}, 1, "install failed: configuration invalid: bad write tile bytes -1\n"},
      {{"--require-known-source"}, 1, "install failed: source fingerprint "},
      {{"--dry-run"}, 0, ""},
  };
  for (const auto& [more, status, errors] : rows) {
    const ProcessResult result = runProcess(harness.command(more));
    EXPECT_EQ(result.status, status);
    EXPECT_THAT(result.errors, StartsWith(errors));
    fs::remove_all(harness.output + ".partial");
  }
}

}  // namespace
}  // namespace vellicor
