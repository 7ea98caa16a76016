#include "VellicorRepack/CommandLine.h"

#include <cstddef>

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

ParseError ParseError::unknown(const std::string& argument) {
  return {Kind::unknown, "unknown argument: " + argument};
}

ParseError ParseError::missingValue(const std::string& option) {
  return {Kind::missingValue, "missing value for " + option};
}

ParseError ParseError::missingRequired(const std::string& option) {
  return {Kind::missingRequired, "missing required argument: " + option};
}

ParseError ParseError::invalidMode(std::string message) { return {Kind::invalidMode, std::move(message)}; }

ParseError ParseError::help() { return {Kind::help, "help"}; }

namespace {

Arguments scan(const std::vector<std::string>& arguments) {
  Arguments scanned;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    const auto value = [&]() -> const std::string& {
      if (i + 1 == arguments.size()) throw ParseError::missingValue(argument);
      return arguments[++i];
    };
    if (argument == "--help") {
      throw ParseError::help();
    } else if (argument == "--overwrite") {
      scanned.overwrite = true;
    } else if (argument == "--resume") {
      scanned.resume = true;
    } else if (argument == "--discard-partial") {
      scanned.discardPartial = true;
    } else if (argument == "--verify-install") {
      scanned.verifyInstall = true;
    } else if (argument == "--output") {
      scanned.output = value();
    } else if (argument == "--input-morlen") {
      scanned.inputMorlen = value();
    } else {
      throw ParseError::unknown(argument);
    }
  }
  return scanned;
}

Mode discardMode(const Arguments& arguments) {
  if (!arguments.output) throw ParseError::missingRequired("--output");
  if (arguments.verifyInstall || arguments.overwrite || arguments.inputMorlen) {
    throw ParseError::invalidMode("--discard-partial only accepts --output");
  }
  return DiscardMode{*arguments.output};
}

Mode verifyMode(const Arguments& arguments) {
  if (!arguments.inputMorlen) throw ParseError::missingRequired("--input-morlen");
  if (arguments.resume || arguments.overwrite || arguments.output) {
    throw ParseError::invalidMode("verification accepts only --input-morlen");
  }
  return VerifyMode{*arguments.inputMorlen};
}

Mode installMode(const Arguments& arguments) {
  if (!arguments.output) throw ParseError::missingRequired("--output");
  if (arguments.inputMorlen) throw ParseError::invalidMode("--input-morlen requires --verify-install");
  return InstallMode{*arguments.output, arguments.overwrite, arguments.resume};
}

}  // namespace

Mode parseCommandLine(const std::vector<std::string>& arguments) {
  const Arguments scanned = scan(arguments);
  if (scanned.resume && scanned.discardPartial) {
    throw ParseError::invalidMode("--resume and --discard-partial are mutually exclusive");
  }
  if (scanned.discardPartial) return discardMode(scanned);
  if (scanned.verifyInstall) return verifyMode(scanned);
  return installMode(scanned);
}

}  // namespace vellicor
