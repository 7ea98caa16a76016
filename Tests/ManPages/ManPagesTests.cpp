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
      RepackError(FileOpenFailed{.path = "<path>", .errnoValue = "errno"_n}),
      RepackError(FileStatFailed{.path = "<path>", .errnoValue = "errno"_n}),
      RepackError(FtruncateFailed{.path = "<path>", .errnoValue = "errno"_n}),
      RepackError(PwriteShort{
          .path = "<path>", .expected = "expected"_n, .wrote = "wrote"_n, .errnoValue = "errno"_n}),
      RepackError(
          PreadShort{.path = "<path>", .expected = "expected"_n, .got = "got"_n, .errnoValue = "errno"_n}),
      RepackError(RenameFailed{.from = "<from>", .to = "<to>", .errnoValue = "errno"_n}),
      RepackError(FsyncFailed{.path = "<path>", .errnoValue = "errno"_n}),
      RepackError(InstallBusy{"<path>"}),
      RepackError(InstallPathUnsafe{.path = "<path>", .detail = "<detail>"}),
      RepackError(InstallStateMissing{"<path>"}),
      RepackError(InstallStateCorrupt{.path = "<path>", .detail = "<detail>"}),
      RepackError(InstallStateIncompatible{"saved download exists; resume or discard it"}),
      RepackError(PromotionUnsupported{.path = "<path>", .errnoValue = "errno"_n}),
      RepackError(SafetensorsHeaderTooLarge{.path = "<path>", .size = "size"_n}),
      RepackError(SafetensorsHeaderInvalid{.path = "<path>", .detail = "<detail>"}),
      RepackError(SafetensorsUnknownDtype{.path = "<path>", .dtype = "<dtype>"}),
      RepackError(SafetensorsTensorOutOfRange{
          .path = "<path>", .name = "<name>", .end = "end"_n, .fileSize = "fileSize"_n}),
      RepackError(IndexJsonInvalid{.path = "<path>", .detail = "<detail>"}),
      RepackError(ConfigJsonInvalid{.path = "<path>", .detail = "<detail>"}),
      RepackError(
          QuantOverrideCountMismatch{.expected = "expected"_n, .actual = "actual"_n, .sample = {"<name>"}}),
      RepackError(MissingTensor{"<name>"}),
      RepackError(UnknownTensorPrefix{"<name>"}),
      RepackError(MissingScalesCompanion{"<name>"}),
      RepackError(MissingBiasesCompanion{"<name>"}),
      RepackError(ShapeMismatch{.name = "<name>", .detail = "<detail>"}),
      RepackError(DtypeMismatch{.name = "<name>", .detail = "<detail>"}),
      RepackError(SourceFingerprintRejected{.path = "<path>", .sha256 = "<sha256>"}),
      RepackError(RemoteProtocolInvalid{"<detail>"}),
      RepackError(RemoteHTTPStatus{.url = "<url>", .status = "status"_n}),
      RepackError(RemoteHTTPResponse{.url = "<url>", .status = "status"_n, .retryAfter = "<retryAfter>"}),
      RepackError(RemoteBodyTruncated{.path = "<path>", .expected = "expected"_n, .actual = "actual"_n}),
      RepackError(RemoteBodyExceeded{.path = "<path>", .limit = "limit"_n, .attempted = "attempted"_n}),
      RepackError(RemoteRedirectRejected{.url = "<url>", .detail = "<detail>"}),
      RepackError(RemoteRetryDelayExceeded{.value = "<value>", .capSeconds = "capSeconds"_n}),
      RepackError(RemoteFileTooLarge{.path = "<path>", .size = "size"_n, .cap = "cap"_n}),
      RepackError(
          DiskSpaceInsufficient{.path = "<path>", .required = "required"_n, .available = "available"_n}),
      RepackError(ScratchExceeded{.requested = "requested"_n, .limit = "limit"_n}),
      RepackError(ConfigurationInvalid{"<detail>"}),
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
