#include <cerrno>
#include <csignal>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <unistd.h>

#include "VellicorFormat/CanonicalJson.h"
#include "VellicorLab/FolderRepository.h"
#include "VellicorLab/LabFlags.h"
#include "VellicorLab/LocalHub.h"
#include "VellicorLab/PredictedArtifact.h"
#include "VellicorLab/SyntheticCheckpoint.h"
#include "VellicorLab/TemporaryDirectory.h"
#include "VellicorRepack/Run.h"
#include "VellicorRepackCore/Base/Environment.h"
#include "VellicorRepackCore/Install/SupportedModelSource.h"
#include "VellicorTerminal/Escaping.h"
#include "VellicorTerminal/Signals.h"
#include "VellicorTerminal/StandardStreams.h"

namespace vellicor {

namespace {

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

std::shared_ptr<const SyntheticCheckpoint> checkpointOf(const CheckpointFlags& flags) {
  const std::uint64_t seed = flags.seed.value_or(1);
  if (flags.scale == "full") return SyntheticCheckpoint::fullSize(seed);
  if (flags.scale == "medium") return SyntheticCheckpoint::medium(seed);
  return SyntheticCheckpoint::miniature(seed);
}

std::shared_ptr<const HubRepository> repositoryOf(const HubFlags& flags) {
  if (!flags.root.empty()) return std::make_shared<FolderRepository>(flags.root);
  return checkpointOf(flags.checkpoint);
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
  std::optional<TemporaryDirectory> certificatePlace;
  if (flags.caFile.empty()) certificatePlace.emplace();
  std::ofstream log;
  LocalHub::Options options;
  options.repository = repositoryOf(flags);
  options.port = flags.port.value_or(0);
  options.caFilePath = certificatePlace ? *certificatePlace / "ca.pem" : flags.caFile;
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
  writeAll(STDOUT_FILENO, readyLine(hub));
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
  ignoreWriteSignals();
  std::optional<RemoteStreamingRepackOptions> options;
  try {
    options = optionsOf(flags);
  } catch (const std::exception& error) {
    return reportInstallFailure(error);
  }
  return runInstall(*options, options->repoID);
}

/// Writes a file of any size in pieces.
void writeFile(const HubFile& file, const std::string& path) {
  constexpr std::size_t pieceBytes = 1048576;
  const FileDescriptor output = Posix::openCreateRW(path);
  std::vector<std::byte> piece(pieceBytes);
  for (std::uint64_t done = 0; done < file.size();) {
    const auto part = std::span(piece).first(std::min<std::uint64_t>(pieceBytes, file.size() - done));
    file.read(done, part);
    Posix::pwriteAll(output.get(), path, part.data(), static_cast<std::int64_t>(part.size()), done);
    done += part.size();
  }
}

/// The headers that a server must send with a file.
std::string identityLine(const SyntheticCheckpoint& checkpoint, const std::string& name) {
  const auto file = checkpoint.file(name);
  const std::string xetHash = file->xetHash().value_or("");
  CanonicalJson json(CanonicalJson::Layout::compact, CanonicalJson::Slashes::plain);
  json.beginObject()
      .member("commit", std::string_view(checkpoint.commit()))
      .member("contentTag", std::string_view(file->contentTag()))
      .member("file", std::string_view(name))
      .member("size", file->size())
      .member("xetHash", std::string_view(xetHash))
      .endObject();
  return std::move(json).take() + "\n";
}

int write(const WriteFlags& flags) {
  const auto checkpoint = checkpointOf(flags.checkpoint);
  Posix::mkdirP(flags.output);
  for (const std::string& name : checkpoint->fileNames()) {
    writeFile(*checkpoint->file(name), joinPath(flags.output, name));
    writeAll(STDOUT_FILENO, identityLine(*checkpoint, name));
  }
  return ExitStatus::success;
}

int check(const CheckFlags& flags) {
  const PredictedArtifact artifact(*checkpointOf(flags.checkpoint));
  const std::vector<std::string> differences = artifact.differences(flags.artifact);
  for (const std::string& difference : differences) {
    writeAll(STDERR_FILENO, difference + "\n");
  }
  if (!differences.empty()) return ExitStatus::failure;
  writeAll(STDOUT_FILENO,
           fmt::format("{} is what the checkpoint and the format say, byte for byte ({} files, {} bytes)\n",
                       flags.artifact, artifact.files().size(), artifact.byteCount()));
  return ExitStatus::success;
}

int runLab(int argumentCount, char** arguments) {
  CLI::App app("A checkpoint to install, a hub to install it from, and a check of the result", "VellicorLab");
  app.require_subcommand(1);
  HubFlags hubFlags;
  InstallFlags installFlags;
  WriteFlags writeFlags;
  CheckFlags checkFlags;
  const CLI::App* hubCommand = addHub(app, hubFlags);
  const CLI::App* installCommand = addInstall(app, installFlags);
  const CLI::App* writeCommand = addWrite(app, writeFlags);
  addCheck(app, checkFlags);
  try {
    app.parse(argumentCount, arguments);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? ExitStatus::success : ExitStatus::usage;
  }
  if (hubCommand->parsed()) return serve(hubFlags);
  if (installCommand->parsed()) return install(installFlags);
  if (writeCommand->parsed()) return write(writeFlags);
  return check(checkFlags);
}

}  // namespace

}  // namespace vellicor

int main(int argumentCount, char** arguments) try {
  vellicor::openStandardStreams();
  return vellicor::runLab(argumentCount, arguments);
} catch (const std::exception& error) {
  vellicor::writeAll(STDERR_FILENO,
                     vellicor::errorLine(fmt::format("VellicorLab: {}", vellicor::reasonOf(error))));
  return vellicor::ExitStatus::failure;
}
