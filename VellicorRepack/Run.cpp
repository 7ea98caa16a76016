#include "VellicorRepack/Run.h"

#include <csignal>
#include <exception>
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
#include "VellicorTerminal/SafeText.h"

namespace vellicor {

namespace {

void print(const std::string& text) { writeToConsole(ConsoleStream::standardOutput, text); }

/// The whole text of an error, which may hold a NUL.
std::string_view textOf(const std::exception& error) {
  const auto* repackError = dynamic_cast<const RepackError*>(&error);
  return repackError == nullptr ? reasonOf(error) : std::string_view(repackError->description());
}

int reportFailure(std::string_view operation, const std::exception& error) noexcept {
  try {
    writeToConsole(ConsoleStream::standardError,
                   errorLine(fmt::format("{} failed: {}", operation, textOf(error))));
  } catch (const std::exception&) {
    for (const std::string_view piece : {operation, std::string_view(" failed: not enough memory\n")}) {
      writeToConsole(ConsoleStream::standardError, piece);
    }
  }
  return ExitStatus::failure;
}

int reportParseError(const ParseError& error) {
  if (error.kind() == ParseError::Kind::help) {
    print(fmt::format("{}\n", usageText));
    return ExitStatus::success;
  }
  writeToConsole(ConsoleStream::standardError,
                 errorLine(fmt::format("error: {}", error.what())) + fmt::format("\n{}\n", usageText));
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
