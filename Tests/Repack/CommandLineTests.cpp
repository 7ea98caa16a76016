#include "Tests/Support/Expect.h"
#include "VellicorRepack/CommandLine.h"

namespace vellicor::testing {
namespace {

/// One line that names the mode and everything it carries.
std::string describe(const Mode& mode) {
  struct Describer {
    std::string operator()(const HelpMode&) const { return "help"; }
    std::string operator()(const InstallMode& install) const {
      return fmt::format("install {}{}{}", install.output, install.overwrite ? " overwrite" : "",
                         install.resume ? " resume" : "");
    }
    std::string operator()(const DiscardMode& discard) const { return "discard " + discard.output; }
    std::string operator()(const VerifyMode& verify) const { return "verify " + verify.inputMorlen; }
  };
  return std::visit(Describer{}, mode);
}

std::string parsed(Words words) {
  words.insert(words.begin(), "VellicorRepack");
  std::string mode;
  const std::string error = errorText([&] { mode = describe(parseCommandLine(words)); });
  return error == "no error" ? mode : error;
}

TEST(CommandLine, YieldsAModeOrSaysWhatIsWrong) {
  const std::vector<std::pair<Words, std::string>> rows = {
      {{}, "missing required argument: --output"},
      {{"--output", "m"}, "install m"},
      {{"--output", "a", "--overwrite", "--output", "b", "--resume", "--resume"},
       "install b overwrite resume"},
      {{"--output", "--resume"}, "install --resume"},
      {{"--output"}, "missing value for --output"},
      {{"--verify-install", "--input-morlen"}, "missing value for --input-morlen"},
      {{"--bogus", "--help"}, "unknown argument: --bogus"},
      {{"--help", "--bogus"}, "help"},
      {{"--output=m"}, "unknown argument: --output=m"},
      {{"--discard-partial", "--output", "m"}, "discard m"},
      {{"--discard-partial"}, "missing required argument: --output"},
      {{"--discard-partial", "--resume", "--output", "m"},
       "--resume and --discard-partial are mutually exclusive"},
      {{"--discard-partial", "--overwrite", "--output", "m"}, "--discard-partial only accepts --output"},
      {{"--discard-partial", "--output", "m", "--input-morlen", "n"},
       "--discard-partial only accepts --output"},
      {{"--verify-install", "--input-morlen", "m"}, "verify m"},
      {{"--verify-install"}, "missing required argument: --input-morlen"},
      {{"--verify-install", "--input-morlen", "m", "--output", "n"},
       "verification accepts only --input-morlen"},
      {{"--verify-install", "--input-morlen", "m", "--overwrite"},
       "verification accepts only --input-morlen"},
      {{"--output", "m", "--input-morlen", "n"}, "--input-morlen requires --verify-install"},
      {{"--input-morlen", "n"}, "missing required argument: --output"},
  };
  for (const auto& [words, expected] : rows) {
    EXPECT_EQ(parsed(words), expected) << fmt::format("{}", fmt::join(words, " "));
  }
}

}  // namespace
}  // namespace vellicor::testing
