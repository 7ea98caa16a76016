#include "VellicorRepack/Run.h"

#include <exception>
#include <stdexcept>
#include <variant>

#include <fmt/format.h>
#include <unistd.h>

#include "VellicorRepack/CommandLine.h"
#include "VellicorRepackCore/Base/Environment.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Install/RemoteStreamingRepacker.h"
#include "VellicorRepackCore/Install/SupportedModelSource.h"
#include "VellicorRepackCore/Reporting/ModelInstallProgressLine.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"
#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"
#include "VellicorTerminal/Escaping.h"
#include "VellicorTerminal/Options.h"
#include "VellicorTerminal/StandardStreams.h"

namespace vellicor {

namespace {

// A text that cannot be written is dropped: nothing on disk depends on it.
void print(std::string_view text) { writeAll(STDOUT_FILENO, text); }
void printError(std::string_view text) { writeAll(STDERR_FILENO, text); }

/// An event that no line can hold is dropped as well.
void emit(const ModelInstallProgress& progress) try {
  print(progressLine(progress));
} catch (const std::invalid_argument&) {
  return;
}

/// The whole text of an error, which may hold a NUL.
std::string_view textOf(const std::exception& error) {
  const auto* repackError = dynamic_cast<const RepackError*>(&error);
  return repackError == nullptr ? reasonOf(error) : std::string_view(repackError->description());
}

int reportFailure(std::string_view operation, const std::exception& error) noexcept {
  try {
    printError(errorLine(fmt::format("{} failed: {}", operation, textOf(error))));
  } catch (const std::exception&) {
    printError(operation);
    printError(" failed: not enough memory\n");
  }
  return ExitStatus::failure;
}

struct ModeRunner {
  int operator()(const HelpMode&) const {
    print(fmt::format("{}\n", usageText));
    return ExitStatus::success;
  }

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

int run(const std::vector<std::string>& arguments) try {
  return std::visit(ModeRunner{}, parseCommandLine(arguments));
} catch (const UsageError& error) {
  printError(usageErrorText("error", error.what(), usageText));
  return ExitStatus::usage;
}

std::string absoluteOutputPath(const std::string& output) {
  if (output.empty()) return output;
  std::string path = absolutePath(output);
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
