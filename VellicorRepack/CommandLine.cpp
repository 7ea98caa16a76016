#include "VellicorRepack/CommandLine.h"

#include <cstddef>
#include <optional>

#include "VellicorTerminal/Options.h"

namespace vellicor {

const std::string_view usageText =
    "Usage:\n"
    "  VellicorRepack --output <model.morlen> [--overwrite] [--resume]\n"
    "  VellicorRepack --discard-partial --output <model.morlen>\n"
    "  VellicorRepack --verify-install --input-morlen <model.morlen>\n"
    "  VellicorRepack --help\n"
    "\n"
    "The installer streams the supported Gemma 4 checkpoint from Hugging Face and\n"
    "repackages it without materializing the source checkpoint on disk. Set HF_TOKEN\n"
    "only if Hugging Face requests authentication. A cancelled or interrupted\n"
    "download can be continued with --resume or removed with --discard-partial.";

namespace {

/// The arguments, before the mode rules.
struct Arguments {
  std::optional<std::string> output;
  std::optional<std::string> inputMorlen;
  bool overwrite = false;
  bool resume = false;
  bool discardPartial = false;
  bool verifyInstall = false;
  bool help = false;
};

Arguments scan(const std::vector<std::string>& arguments) {
  Arguments scanned;
  const std::vector<Option> options = {{"--help", &scanned.help},
                                       {"--overwrite", &scanned.overwrite},
                                       {"--resume", &scanned.resume},
                                       {"--discard-partial", &scanned.discardPartial},
                                       {"--verify-install", &scanned.verifyInstall},
                                       {"--output", &scanned.output},
                                       {"--input-morlen", &scanned.inputMorlen}};
  for (std::size_t i = 1; i < arguments.size() && !scanned.help; ++i) {
    if (!takeOption(options, arguments, i)) throw UsageError::unknown(arguments[i]);
  }
  return scanned;
}

Mode discardMode(const Arguments& arguments) {
  if (!arguments.output) throw UsageError::missingRequired("--output");
  if (arguments.verifyInstall || arguments.overwrite || arguments.inputMorlen) {
    throw UsageError("--discard-partial only accepts --output");
  }
  return DiscardMode{*arguments.output};
}

Mode verifyMode(const Arguments& arguments) {
  if (!arguments.inputMorlen) throw UsageError::missingRequired("--input-morlen");
  if (arguments.resume || arguments.overwrite || arguments.output) {
    throw UsageError("verification accepts only --input-morlen");
  }
  return VerifyMode{*arguments.inputMorlen};
}

Mode installMode(const Arguments& arguments) {
  if (!arguments.output) throw UsageError::missingRequired("--output");
  if (arguments.inputMorlen) throw UsageError("--input-morlen requires --verify-install");
  return InstallMode{*arguments.output, arguments.overwrite, arguments.resume};
}

}  // namespace

Mode parseCommandLine(const std::vector<std::string>& arguments) {
  const Arguments scanned = scan(arguments);
  if (scanned.help) return HelpMode{};
  if (scanned.resume && scanned.discardPartial) {
    throw UsageError("--resume and --discard-partial are mutually exclusive");
  }
  if (scanned.discardPartial) return discardMode(scanned);
  if (scanned.verifyInstall) return verifyMode(scanned);
  return installMode(scanned);
}

}  // namespace vellicor
