#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include "Tests/ManPages/ManPage.h"
#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorLab/ChildProcess.h"
#include "VellicorRepack/Run.h"
#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {
namespace {

using namespace ::testing;
using namespace testing;

using Texts = std::set<std::string>;

/// A number that reads as "<name>" in what `rendered` returns.
struct Number {
  static constexpr std::array names = {"errno",     "expected",  "wrote",     "got",       "size", "end",
                                       "fileSize",  "actual",    "status",    "limit",     "cap",  "required",
                                       "available", "attempted", "requested", "capSeconds"};
  static constexpr int first = 700'000;

  std::string_view name;

  template <std::integral T>
  operator T() const {
    const std::ptrdiff_t at = std::ranges::find(names, name) - names.begin();
    EXPECT_LT(at, std::ssize(names)) << name;
    return static_cast<T>(first + at);
  }
};

Number operator""_n(const char* name, std::size_t length) { return {{name, length}}; }

std::string rendered(std::string text) {
  for (std::size_t i = 0; i < Number::names.size(); ++i) {
    const std::string number = std::to_string(Number::first + static_cast<int>(i));
    text = std::regex_replace(text, std::regex(number), fmt::format("<{}>", Number::names[i]));
  }
  return text;
}

/// The texts of the samples. Every case of the error must be among them.
template <typename Error>
Texts texts(const std::vector<Error>& samples) {
  Texts texts;
  std::set<std::size_t> cases;
  for (const Error& sample : samples) {
    texts.insert(rendered(sample.description()));
    cases.insert(sample.payload().index());
  }
  EXPECT_EQ(cases.size(), std::variant_size_v<typename Error::Payload>) << "a case has no sample";
  return texts;
}

Texts repackErrorTexts() {
  using E = RepackError;
  return texts<E>({
      E::fileOpenFailed("<path>", "errno"_n),
      E::fileStatFailed("<path>", "errno"_n),
      E::ftruncateFailed("<path>", "errno"_n),
      E::pwriteShort("<path>", "expected"_n, "wrote"_n, "errno"_n),
      E::preadShort("<path>", "expected"_n, "got"_n, "errno"_n),
      E::renameFailed("<from>", "<to>", "errno"_n),
      E::fsyncFailed("<path>", "errno"_n),
      E::installBusy("<path>"),
      E::installPathUnsafe("<path>", "<detail>"),
      E::installStateMissing("<path>"),
      E::installStateCorrupt("<path>", "<detail>"),
      E::installStateIncompatible("saved download exists; resume or discard it"),
      E::promotionUnsupported("<path>", "errno"_n),
      E::safetensorsHeaderTooLarge("<path>", "size"_n),
      E::safetensorsHeaderInvalid("<path>", "<detail>"),
      E::safetensorsUnknownDtype("<path>", "<dtype>"),
      E::safetensorsTensorOutOfRange("<path>", "<name>", "end"_n, "fileSize"_n),
      E::indexJsonInvalid("<path>", "<detail>"),
      E::configJsonInvalid("<path>", "<detail>"),
      E::quantOverrideCountMismatch("expected"_n, "actual"_n, {"<name>"}),
      E::missingTensor("<name>"),
      E::unknownTensorPrefix("<name>"),
      E::missingScalesCompanion("<name>"),
      E::missingBiasesCompanion("<name>"),
      E::shapeMismatch("<name>", "<detail>"),
      E::dtypeMismatch("<name>", "<detail>"),
      E::sourceFingerprintRejected("<path>", "<sha256>"),
      E::remoteProtocolInvalid("<detail>"),
      E::remoteHTTPStatus("<url>", "status"_n),
      E::remoteHTTPResponse("<url>", "status"_n, "<retryAfter>"),
      E::remoteBodyTruncated("<path>", "expected"_n, "actual"_n),
      E::remoteBodyExceeded("<path>", "limit"_n, "attempted"_n),
      E::remoteRedirectRejected("<url>", "<detail>"),
      E::remoteRetryDelayExceeded("<value>", "capSeconds"_n),
      E::remoteFileTooLarge("<path>", "size"_n, "cap"_n),
      E::diskSpaceInsufficient("<path>", "required"_n, "available"_n),
      E::scratchExceeded("requested"_n, "limit"_n),
      E::configurationInvalid("<detail>"),
  });
}

Texts formatErrorTexts() {
  using E = MorlenFormatError;
  return texts<E>({E::invalid("<field>", "<reason>"), E::overflow("<field>"), E::truncated("<field>")});
}

Texts matches(const std::string& text, const std::string& pattern) {
  Texts found;
  const std::regex expression(pattern);
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) {
    found.insert((*at)[1]);
  }
  return found;
}

Texts asSet(const std::vector<std::string>& texts) { return {texts.begin(), texts.end()}; }

constexpr std::array programs = {"VellicorRepack", "VellicorProgress", "VellicorInspect"};
const std::vector<std::string> folders = {"VellicorFormat",   "VellicorRepackCore", "VellicorRepack",
                                          "VellicorProgress", "VellicorInspect",    "VellicorTerminal"};

ManPage pageOf(const std::string& program) { return ManPage(program + ".1"); }

/// The program's own usage text as forms of its command, each on one line.
Texts usageForms(const std::string& program) {
  const ProcessResult help = runProcess({PROGRAMS "/" + program, "--help"});
  EXPECT_EQ(help.status, ExitStatus::success) << help.errors;
  const std::string unfolded = std::regex_replace(help.output, std::regex("\n {4,}"), " ");
  return matches(unfolded, "\n  (?:<command> \\| )?(" + program + "[^\n]*)");
}

Texts usageOptions(const std::string& program) {
  const Texts forms = usageForms(program);
  return matches(fmt::format("{}", fmt::join(forms, "\n")), "(--[a-z-]+(?: <[^>]*>)?)");
}

TEST(ManPages, SpellTheCommandLineLikeTheUsageText) {
  for (const std::string program : programs) {
    SCOPED_TRACE(program);
    EXPECT_EQ(asSet(pageOf(program).synopsis()), usageForms(program));
    EXPECT_EQ(asSet(pageOf(program).heads("OPTIONS")), usageOptions(program));
  }
  EXPECT_THAT(pageOf("VellicorRepack").heads("EXIT STATUS"),
              ElementsAre(std::to_string(ExitStatus::success), std::to_string(ExitStatus::failure),
                          std::to_string(ExitStatus::usage)));
}

TEST(ManPages, ExplainEveryErrorAndNoneThatIsNot) {
  Texts errors = repackErrorTexts();
  errors.merge(formatErrorTexts());
  EXPECT_THAT(pageOf("VellicorRepack").heads("DIAGNOSTICS"), IsSupersetOf(errors));

  const SourceTexts sources(folders);
  for (const std::string program : programs) {
    const std::vector<std::string> heads = pageOf(program).heads("DIAGNOSTICS");
    EXPECT_THAT(heads, Not(IsEmpty())) << program;
    for (const std::string& head : heads) {
      const std::string line = fmt::format("{}: {}", program, head);
      EXPECT_TRUE(errors.contains(head) || sources.compose(head) || sources.compose(line)) << line;
    }
  }
  EXPECT_FALSE(sources.compose("configuration invalid: no such text <detail>")) << "everything passes";
}

TEST(ManPages, NameEveryEnvironmentVariableThatIsRead) {
  struct Reader {
    std::string file;
    std::string program;
    Texts variables;
  };
  const std::vector<Reader> readers = {
      {"VellicorRepack/Run.cpp", "VellicorRepack", {"HF_TOKEN"}},
      {"VellicorRepackCore/Install/SupportedModelSource.cpp",
       "VellicorRepack",
       {"HF_ENDPOINT", "SSL_CERT_FILE"}},
      {"VellicorRepackCore/Remote/EnvironmentProxy.cpp",
       "VellicorRepack",
       {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}},
      {"VellicorProgress/Terminal.cpp",
       "VellicorProgress",
       {"COLUMNS", "LANG", "LC_ALL", "LC_CTYPE", "NO_COLOR", "TERM"}},
  };
  std::map<std::string, Texts> variables;
  Texts files = {"VellicorRepackCore/Base/Environment.cpp", "VellicorRepackCore/Base/Environment.h"};
  for (const Reader& reader : readers) {
    files.insert(reader.file);
    const std::string pattern = "\"([A-Z_]{4,}|[a-z]+_proxy)\"";
    EXPECT_EQ(matches(projectFile(reader.file), pattern), reader.variables) << reader.file;
    variables[reader.program].insert(reader.variables.begin(), reader.variables.end());
  }
  const SourceTexts sources(folders);
  EXPECT_EQ(sources.filesWith("nvironmentVariable("), files);
  EXPECT_EQ(sources.filesWith("getenv("), Texts{"VellicorRepackCore/Base/Environment.cpp"});

  for (const std::string program : programs) {
    const std::vector<std::string> heads = pageOf(program).heads("ENVIRONMENT");
    EXPECT_EQ(matches(fmt::format("{}", fmt::join(heads, " ")), "(\\w+)"), variables[program]) << program;
  }
}

TEST(Completions, OfferTheOptionsOfTheUsageText) {
  const std::vector<std::pair<std::string, std::string>> shells = {
      {"completions/{}.bash", "--([a-z][a-z-]*)"},
      {"completions/_{}", "--([a-z-]+)[\\[:]"},
      {"completions/{}.fish", " -l ([a-z-]+)"},
  };
  for (const std::string program : programs) {
    const Texts forms = usageForms(program);
    const Texts options = matches(fmt::format("{}", fmt::join(forms, "\n")), "--([a-z-]+)");
    for (const auto& [file, pattern] : shells) {
      const std::string path = fmt::format(fmt::runtime(file), program);
      EXPECT_EQ(matches(projectFile(path), pattern), options) << path;
    }
  }
}

}  // namespace
}  // namespace vellicor
