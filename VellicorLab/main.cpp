#include <cerrno>
#include <charconv>
#include <concepts>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

#include "VellicorFormat/CanonicalJson.h"
#include "VellicorLab/FolderRepository.h"
#include "VellicorLab/LocalHub.h"
#include "VellicorLab/SyntheticCheckpoint.h"
#include "VellicorRepack/Console.h"
#include "VellicorRepack/Run.h"
#include "VellicorRepackCore/Base/Environment.h"
#include "VellicorRepackCore/Install/SupportedModelSource.h"

namespace vellicor {

namespace {

/// A decimal number flag over the whole range of its type. A value that the type cannot hold is refused, a
/// value that makes no sense is left to whoever uses it.
template <std::integral Number>
void addNumber(CLI::App& command, const std::string& name, std::optional<Number>& value,
               const std::string& help) {
  const auto parse = [&value, name](const std::string& text) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value.emplace());
    if (error != std::errc() || stop != end) throw CLI::ConversionError(text, name);
  };
  command.add_option_function<std::string>(name, parse, help)->type_name("N");
}

struct HubFlags {
  std::string scale = "miniature";
  std::string root;
  std::string caFile;
  std::string logFile;
  std::optional<std::string> token;
  std::optional<std::uint64_t> seed;
  std::optional<std::uint16_t> port;
  std::optional<std::uint64_t> bytesPerSecond;
};

CLI::App* addHub(CLI::App& app, HubFlags& flags) {
  CLI::App* hub = app.add_subcommand("hub", "Serve a checkpoint over HTTPS until standard input closes");
  hub->add_option("--scale", flags.scale, "Size of the made-up checkpoint")
      ->check(CLI::IsMember({"miniature", "full"}))
      ->capture_default_str();
  addNumber(*hub, "--seed", flags.seed, "Seed of the made-up payload [1]");
  hub->add_option("--root", flags.root, "Serve the files of this folder instead")
      ->check(CLI::ExistingDirectory);
  addNumber(*hub, "--port", flags.port, "Port to listen on [any free one]");
  hub->add_option("--ca-file", flags.caFile, "Where to write the certificate that clients must trust");
  hub->add_option("--token", flags.token, "Refuse requests without this bearer token");
  addNumber(*hub, "--bytes-per-second", flags.bytesPerSecond, "Pace of every body");
  hub->add_option("--log", flags.logFile, "Write one JSON line per request to this file");
  return hub;
}

struct InstallFlags {
  std::optional<std::string> baseURL;
  std::optional<std::string> caFile;
  std::optional<std::string> repo;
  std::optional<std::string> revision;
  std::string output;
  std::optional<std::string> token;
  bool requireKnownSource = false;
  std::optional<std::string> audit;
  std::optional<std::int64_t> rangeChunkBytes;
  std::optional<std::int64_t> writeTileBytes;
  std::optional<std::uint64_t> minFreeReserveBytes;
  std::optional<std::int64_t> retryAttempts;
  std::optional<std::uint64_t> retryBaseDelayNs;
  bool overwrite = false;
  bool resume = false;
  bool dryRun = false;
};

std::string refusalOfURL(const std::string& text) {
  return RemoteUrl::parse(text) ? "" : fmt::format("not an absolute URL: {}", text);
}

CLI::App* addInstall(CLI::App& app, InstallFlags& flags) {
  CLI::App* install = app.add_subcommand("install", "Install a checkpoint with every setting as a flag");
  // As with the installer itself, the last of several values counts.
  install->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  install->add_option("--base-url", flags.baseURL, "The hub")->check(CLI::Validator(refusalOfURL, "URL"));
  install->add_option("--ca-file", flags.caFile, "Certificates to trust instead of the system's");
  install->add_option("--repo", flags.repo, "Repository, owner/name");
  install->add_option("--revision", flags.revision, "Branch, tag or commit");
  install->add_option("--output", flags.output, "The artifact directory")->required();
  install->add_option("--token", flags.token, "Bearer token [the environment's HF_TOKEN]");
  install->add_flag("--require-known-source", flags.requireKnownSource, "Refuse an unknown shard index");
  install->add_option("--audit", flags.audit, "Where to write the audit document");
  addNumber(*install, "--range-chunk-bytes", flags.rangeChunkBytes, "Largest range request");
  addNumber(*install, "--write-tile-bytes", flags.writeTileBytes, "Tile of the copy");
  addNumber(*install, "--min-free-reserve-bytes", flags.minFreeReserveBytes, "Disk space to leave free");
  addNumber(*install, "--retry-attempts", flags.retryAttempts, "Attempts per remote operation");
  addNumber(*install, "--retry-base-delay-ns", flags.retryBaseDelayNs, "First retry delay");
  install->add_flag("--overwrite", flags.overwrite, "Replace an existing artifact");
  install->add_flag("--resume", flags.resume, "Continue a saved download");
  install->add_flag("--dry-run", flags.dryRun, "Stop after the space check");
  return install;
}

/// Where the hub's certificate goes: the file that was asked for, or one in a private directory that goes
/// away with this object.
class CertificatePlace {
 public:
  explicit CertificatePlace(const std::string& wanted) : path_(wanted) {
    if (!path_.empty()) return;
    directory_ = (std::filesystem::temp_directory_path() / "vellicor-lab-XXXXXX").string();
    if (::mkdtemp(directory_.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), directory_);
    }
    path_ = directory_ + "/ca.pem";
  }
  ~CertificatePlace() {
    std::error_code ignored;
    if (!directory_.empty()) std::filesystem::remove_all(directory_, ignored);
  }
  CertificatePlace(const CertificatePlace&) = delete;
  CertificatePlace& operator=(const CertificatePlace&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  std::string directory_;
};

/// Takes SIGINT and SIGTERM away from every thread started later, to be waited for instead.
class StopSignals {
 public:
  StopSignals() {
    ::sigemptyset(&signals_);
    ::sigaddset(&signals_, SIGINT);
    ::sigaddset(&signals_, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
  }

  /// Returns when one of them arrives or standard input ends. The reader may outlive the wait; it touches
  /// nothing but its own stack.
  void waitForThemOrEndOfInput() const {
    std::thread([] {
      char ignored[512];
      ssize_t count = 0;
      do {
        count = ::read(STDIN_FILENO, ignored, sizeof ignored);
      } while (count > 0 || (count < 0 && errno == EINTR));
      ::kill(::getpid(), SIGTERM);
    }).detach();
    int arrived = 0;
    ::sigwait(&signals_, &arrived);
  }

 private:
  sigset_t signals_{};
};

std::shared_ptr<const HubRepository> repositoryOf(const HubFlags& flags) {
  if (!flags.root.empty()) return std::make_shared<FolderRepository>(flags.root);
  const std::uint64_t seed = flags.seed.value_or(1);
  if (flags.scale == "full") return SyntheticCheckpoint::fullSize(seed);
  return SyntheticCheckpoint::miniature(seed);
}

/// Says whether a request was authorized, never with what.
std::string logLine(const HubRequest& request) {
  CanonicalJson json(CanonicalJson::Layout::compact, CanonicalJson::Slashes::plain);
  json.beginObject()
      .member("authorized", !request.authorization.empty())
      .member("connection", request.connection)
      .member("file", std::string_view(request.file))
      .member("final", request.isFinalHop)
      .member("host", std::string_view(request.host))
      .member("method", std::string_view(request.method))
      .member("number", request.number)
      .member("range", std::string_view(request.range))
      .member("target", std::string_view(request.target))
      .endObject();
  return std::move(json).take() + "\n";
}

std::string readyLine(const LocalHub& hub) {
  CanonicalJson json(CanonicalJson::Layout::compact, CanonicalJson::Slashes::plain);
  const std::string caFile = std::filesystem::absolute(hub.caFile()).string();
  json.beginObject()
      .member("baseURL", std::string_view(hub.baseURL()))
      .member("caFile", std::string_view(caFile))
      .endObject();
  return std::move(json).take() + "\n";
}

int serve(const HubFlags& flags) {
  const StopSignals signals;
  const CertificatePlace certificate(flags.caFile);
  std::ofstream log;
  LocalHub::Options options;
  options.repository = repositoryOf(flags);
  options.port = flags.port.value_or(0);
  options.caFilePath = certificate.path();
  options.requiredToken = flags.token;
  options.bytesPerSecond = flags.bytesPerSecond.value_or(0);
  if (!flags.logFile.empty()) {
    log.open(flags.logFile, std::ios::trunc);
    if (!log) throw std::runtime_error(fmt::format("cannot write {}", flags.logFile));
    options.faults = [&log](const HubRequest& request) {
      log << logLine(request) << std::flush;
      return std::optional<HubFault>();
    };
  }
  const LocalHub hub(std::move(options));
  writeToConsole(ConsoleStream::standardOutput, readyLine(hub));
  signals.waitForThemOrEndOfInput();
  return ExitStatus::success;
}

/// The product's options with what the flags say instead.
RemoteStreamingRepackOptions optionsOf(const InstallFlags& flags) {
  const std::optional<std::string> token = flags.token ? flags.token : environmentVariable("HF_TOKEN");
  RemoteStreamingRepackOptions options = SupportedModelSource::installOptions(
      absoluteOutputPath(flags.output), flags.overwrite, token, flags.resume);
  if (flags.baseURL) options.baseURL = RemoteUrl::parse(*flags.baseURL).value();
  if (flags.caFile) options.downloadSession = SupportedModelSource::downloadSession(flags.caFile);
  options.repoID = flags.repo.value_or(options.repoID);
  options.revision = flags.revision.value_or(options.revision);
  options.requireKnownSource = flags.requireKnownSource;
  options.copyAuditPath = flags.audit;
  options.rangeChunkBytes = flags.rangeChunkBytes.value_or(options.rangeChunkBytes);
  options.writeTileBytes = flags.writeTileBytes.value_or(options.writeTileBytes);
  options.minFreeReserveBytes = flags.minFreeReserveBytes.value_or(options.minFreeReserveBytes);
  options.rangeRetryAttempts = flags.retryAttempts.value_or(options.rangeRetryAttempts);
  options.retryBaseDelayNs = flags.retryBaseDelayNs.value_or(options.retryBaseDelayNs);
  options.dryRunSpaceCheck = flags.dryRun;
  return options;
}

int install(const InstallFlags& flags) {
  std::optional<RemoteStreamingRepackOptions> options;
  try {
    options = optionsOf(flags);
  } catch (const std::exception& error) {
    return reportInstallFailure(error);
  }
  return runInstall(*options, options->repoID);
}

int runLab(int argumentCount, char** arguments) {
  CLI::App app("A checkpoint to install and a hub to install it from", "VellicorLab");
  app.require_subcommand(1);
  HubFlags hubFlags;
  InstallFlags installFlags;
  const CLI::App* hub = addHub(app, hubFlags);
  addInstall(app, installFlags);
  try {
    app.parse(argumentCount, arguments);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? ExitStatus::success : ExitStatus::usage;
  }
  return hub->parsed() ? serve(hubFlags) : install(installFlags);
}

}  // namespace

}  // namespace vellicor

int main(int argumentCount, char** arguments) try {
  return vellicor::runLab(argumentCount, arguments);
} catch (const std::exception& error) {
  vellicor::writeToConsole(vellicor::ConsoleStream::standardError,
                           fmt::format("VellicorLab: {}\n", error.what()));
  return vellicor::ExitStatus::failure;
}
