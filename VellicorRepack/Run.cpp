#include "VellicorRepack/Run.h"

#include <csignal>
#include <exception>
#include <filesystem>
#include <optional>
#include <variant>

#include <fmt/format.h>

#include "VellicorRepack/CommandLine.h"
#include "VellicorRepack/Console.h"
#include "VellicorRepack/ProgressLines.h"
#include "VellicorRepackCore/Base/Environment.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Install/RemoteStreamingRepacker.h"
#include "VellicorRepackCore/Install/SupportedModelSource.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"
#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"

namespace vellicor {

namespace {

void print(const std::string& text) { writeToConsole(ConsoleStream::standardOutput, text); }

int reportFailure(std::string_view operation, const std::exception& error) {
  const auto* repackError = dynamic_cast<const RepackError*>(&error);
  const std::string_view text =
      repackError == nullptr ? std::string_view(error.what()) : std::string_view(repackError->description());
  writeToConsole(ConsoleStream::standardError, fmt::format("{} failed: {}\n", operation, text));
  return ExitStatus::failure;
}

int reportParseError(const ParseError& error) {
  if (error.kind() == ParseError::Kind::help) {
    print(fmt::format("{}\n", usageText));
    return ExitStatus::success;
  }
  writeToConsole(ConsoleStream::standardError, fmt::format("error: {}\n\n{}\n", error.what(), usageText));
  return ExitStatus::usage;
}

struct ModeRunner {
  int operator()(const InstallMode& mode) const try {
    return runInstall(SupportedModelSource::installOptions(absoluteOutputPath(mode.output), mode.overwrite,
                                                           environmentVariable("HF_TOKEN"), mode.resume),
                      SupportedModelSource::displayName);
  } catch (const std::exception& error) {
    return reportInstallFailure(error);
  }

  int operator()(const DiscardMode& mode) const try {
    RemoteStreamingRepacker::discardPartial(mode.output);
    print(fmt::format("Discarded saved download for {}\n", mode.output));
    return ExitStatus::success;
  } catch (const std::exception& error) {
    return reportFailure("discard", error);
  }

  int operator()(const VerifyMode& mode) const try {
    const VerifyInstallResult result = VerifiedInstallTool::run({mode.inputMorlen});
    print(fmt::format("Verified {} files ({} bytes)\nReceipt: {}\n", result.fileCount, result.bytesVerified,
                      result.receiptPath));
    return ExitStatus::success;
  } catch (const std::exception& error) {
    return reportFailure("verification", error);
  }
};

}  // namespace

void ignoreWriteSignals() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

int run(const std::vector<std::string>& arguments) {
  std::optional<Mode> mode;
  try {
    mode = parseCommandLine(arguments);
  } catch (const ParseError& error) {
    return reportParseError(error);
  }
  return std::visit(ModeRunner{}, *mode);
}

std::string absoluteOutputPath(const std::string& output) {
  std::string path = (std::filesystem::current_path() / output).string();
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

int runInstall(const RemoteStreamingRepackOptions& options, std::string_view name) try {
  RepackAudit audit;
  const RemoteStreamingRepackResult result = RemoteStreamingRepacker(options, audit).run(emit);
  print(fmt::format("{} {}\nSource revision: {}\nModel: {}\n",
                    result.dryRun ? "Space check passed for" : "Installed", name, result.resolvedCommit,
                    result.outputDir));
  return ExitStatus::success;
} catch (const std::exception& error) {
  return reportInstallFailure(error);
}

int reportInstallFailure(const std::exception& error) { return reportFailure("install", error); }

}  // namespace vellicor
