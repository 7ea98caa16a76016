#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <mutex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "Tests/EndToEnd/InstallHarness.h"
#include "Tests/Support/Process.h"
#include "VellicorRepackCore/FileSystem/InstallLock.h"
#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"
#include "VellicorRepackCore/Install/SupportedModelSource.h"

namespace vellicor {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAreArray;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using testing::InstallHarness;
using ::testing::IsEmpty;
using ::testing::Not;
using testing::Process;
using testing::ProcessResult;
using testing::readTree;
using ::testing::StartsWith;

using Environment = std::vector<std::pair<std::string, std::string>>;

const std::string installer = VELLICOR_BIN_DIR "/VellicorRepack";
const std::string lab = VELLICOR_BIN_DIR "/VellicorLab";

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

InstallHarness& miniatureHub() {
  static InstallHarness harness(SyntheticCheckpoint::miniature(11));
  return harness;
}

TEST(Program, HelpAndArgumentsThatMakeNoSense) {
  const ProcessResult help = testing::runProcess({installer, "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.output, usage);
  EXPECT_EQ(help.errors, "");
  const ProcessResult wrong = testing::runProcess({installer, "--output", "m", "--bogus"});
  EXPECT_EQ(wrong.status, 2);
  EXPECT_EQ(wrong.output, "");
  EXPECT_EQ(wrong.errors, std::string("error: unknown argument: --bogus\n\n") + usage);
}

TEST(Program, InstallsResumesVerifiesAndRefuses) {
  InstallHarness& source = miniatureHub();
  testing::TemporaryDirectory directory;
  const std::string output = directory / "gemma.morlen";
  const Environment environment = against(source);

  const ProcessResult installed =
      testing::runProcess({installer, "--output", "gemma.morlen/"}, environment, directory.path());
  EXPECT_EQ(installed.status, 0) << installed.errors;
  EXPECT_EQ(installed.errors, "");
  EXPECT_THAT(installed.output,
              StartsWith("PROGRESS {\"phase\":\"metadata\"}\nPROGRESS {\"downloadBytes\":"));
  EXPECT_THAT(installed.output, EndsWith("PROGRESS {\"phase\":\"finalizing\"}\n"
                                         "Installed Gemma 4 26B-A4B IT 4-bit\n"
                                         "Source revision: 0d77464eeb233a2da68ebf9d7dc4edaac7db956d\n"
                                         "Model: " +
                                         output + "\n"));
  const std::string receipt = testing::readFile(output + "/verified-install.json");
  EXPECT_THAT(receipt, HasSubstr("\"modelDirectoryPath\" : \"" + output + "\""));
  EXPECT_THAT(receipt, HasSubstr("\"sourceRepoID\" : \"mlx-community/gemma-4-26b-a4b-it-4bit\""));
  EXPECT_THAT(receipt, HasSubstr("\"toolVersion\" : \"VellicorRepack\""));
  const ProcessResult same = testing::runProcess({lab, "check", "--seed", "11", output});
  EXPECT_EQ(same.status, 0) << same.errors;
  EXPECT_THAT(same.output,
              StartsWith(output + " is what the checkpoint and the format say, byte for byte (37 files, "));
  const ProcessResult other = testing::runProcess({lab, "check", "--seed", "12", output});
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.output, "");
  EXPECT_THAT(other.errors, StartsWith("manifest.json: differs at byte "));
  EXPECT_THAT(other.errors, HasSubstr("\npacked_experts/layer_29.bin: differs at byte 0 "));

  const ProcessResult verified = testing::runProcess(
      {installer, "--verify-install", "--input-morlen", "gemma.morlen"}, {}, directory.path());
  EXPECT_EQ(verified.status, 0) << verified.errors;
  EXPECT_THAT(verified.output, StartsWith("Verified 37 files ("));
  EXPECT_THAT(verified.output, EndsWith(" bytes)\nReceipt: " + output + "/verified-install.json\n"));

  const std::map<std::string, std::string> artifact = readTree(output);
  struct Row {
    const char* name;
    std::vector<std::string> arguments;
    std::string errors;
  };
  const std::vector<Row> rows = {
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
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<std::string> command = {installer};
    command.insert(command.end(), row.arguments.begin(), row.arguments.end());
    const ProcessResult refused = testing::runProcess(command, environment, directory.path());
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.errors, row.errors);
    EXPECT_EQ(refused.output, "");
  }
  EXPECT_TRUE(readTree(output) == artifact) << "no refusal touches the artifact";
}

TEST(Program, SaysPlainlyWhatIsWrongWithTheWay) {
  InstallHarness& source = miniatureHub();
  testing::TemporaryDirectory directory;
  testing::writeFile(directory / "not-a-ca.pem", "nothing");
  const std::string url = source.hub->baseURL() +
                          "/mlx-community/gemma-4-26b-a4b-it-4bit/resolve/"
                          "0d77464eeb233a2da68ebf9d7dc4edaac7db956d/model.safetensors.index.json";
  const std::string port = std::to_string(source.hub->port());
  const std::string notHttps =
      "install failed: configuration invalid: HF_ENDPOINT is not an https URL with a host\n";
  struct Row {
    const char* name;
    Environment environment;
    std::string errors;
  };
  const std::vector<Row> rows = {
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
       "header "
       "cannot carry\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    testing::TemporaryDirectory work;
    const ProcessResult failed =
        testing::runProcess({installer, "--output", work / "m.morlen"}, row.environment);
    EXPECT_EQ(failed.status, 1);
    EXPECT_THAT(failed.errors, StartsWith(row.errors));
    EXPECT_EQ(std::count(failed.errors.begin(), failed.errors.end(), '\n'), 1) << failed.errors;
    EXPECT_THAT(failed.errors, Not(HasSubstr("secret")));
    EXPECT_FALSE(fs::exists(work / "m.morlen"));
  }
}

TEST(Program, AnotherInstallerHoldsTheOutput) {
  testing::TemporaryDirectory directory;
  const std::string output = directory / "m.morlen";
  const InstallLock lock = InstallLock::acquire(output);
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"--output", output}, {"--discard-partial", "--output", output}}) {
    std::vector<std::string> command = {installer};
    command.insert(command.end(), words.begin(), words.end());
    const ProcessResult refused = testing::runProcess(command, against(miniatureHub()));
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, EndsWith(" failed: another installer holds " + output + ".install.lock\n"));
  }
}

/// The lab's install of the harness's checkpoint in small ranges.
std::vector<std::string> labInstall(const InstallHarness& harness,
                                    const std::vector<std::string>& more = {}) {
  std::vector<std::string> command = {lab,
                                      "install",
                                      "--base-url",
                                      harness.hub->baseURL(),
                                      "--ca-file",
                                      harness.hub->caFile(),
                                      "--repo",
                                      testing::labRepoID,
                                      "--revision",
                                      "main",
                                      "--output",
                                      harness.output,
                                      "--range-chunk-bytes",
                                      "4096",
                                      "--min-free-reserve-bytes",
                                      "0",
                                      "--retry-base-delay-ns",
                                      "0"};
  command.insert(command.end(), more.begin(), more.end());
  return command;
}

TEST(Program, AKillCostsTheRangeInFlightAndNoMore) {
  InstallHarness whole;
  whole.install(whole.options());
  const std::vector<std::string> ranges = whole.payloadRanges();
  for (const std::size_t index : {std::size_t{0}, ranges.size() / 2, ranges.size() - 1}) {
    SCOPED_TRACE(index);
    InstallHarness harness;
    std::mutex mutex;
    std::condition_variable reached;
    bool isStalled = false;
    std::size_t seen = 0;
    harness.hub->setFaults([&](const HubRequest& request) -> std::optional<HubFault> {
      if (!request.isFinalHop || !testing::isPayload(*harness.checkpoint, request) || seen++ < index) {
        return std::nullopt;
      }
      const std::lock_guard guard(mutex);
      isStalled = true;
      reached.notify_one();
      HubFault fault;
      fault.stallAfter = 100;
      return fault;
    });
    Process process(labInstall(harness));
    {
      std::unique_lock guard(mutex);
      reached.wait(guard, [&] { return isStalled; });
    }
    process.kill(SIGKILL);
    EXPECT_EQ(process.wait().status, 128 + SIGKILL);
    EXPECT_EQ(RemoteInstallCheckpoint::load(harness.output + ".resume.json").completedRanges.size(), index);

    harness.hub->setFaults(nullptr);
    harness.hub->clearRequests();
    const ProcessResult resumed = testing::runProcess(labInstall(harness, {"--resume"}));
    EXPECT_EQ(resumed.status, 0) << resumed.errors;
    EXPECT_THAT(resumed.output, HasSubstr("Installed lab-owner/lab-model\n"));
    EXPECT_THAT(harness.payloadRanges(),
                ElementsAreArray(ranges.begin() + static_cast<std::ptrdiff_t>(index), ranges.end()));
    EXPECT_THAT(harness.predicted().differences(harness.output), IsEmpty());
  }
}

TEST(Program, TheLabSpeaksAsTheInstallerDoes) {
  InstallHarness harness;
  struct Row {
    std::vector<std::string> more;
    int status;
    std::string errors;
  };
  const std::vector<Row> rows = {
      {{"--range-chunk-bytes", "-1"}, 1, "install failed: configuration invalid: bad range chunk bytes -1\n"},
      {{"--require-known-source"}, 1, "install failed: source fingerprint "},
      {{"--dry-run"}, 0, ""},
  };
  for (const Row& row : rows) {
    const ProcessResult result = testing::runProcess(labInstall(harness, row.more));
    EXPECT_EQ(result.status, row.status);
    EXPECT_THAT(result.errors, StartsWith(row.errors));
    fs::remove_all(harness.output + ".partial");
  }
}

}  // namespace
}  // namespace vellicor
