#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "VellicorLab/ChildProcess.h"

namespace vellicor {
namespace {

using namespace ::testing;
namespace fs = std::filesystem;

using Texts = std::set<std::string, std::less<>>;

const std::vector<std::string> programs = {"VellicorRepack", "VellicorProgress", "VellicorInspect"};
const std::string field = "<>";

std::string projectFile(const std::string& path) { return readFile(PROJECT_SOURCE "/" + path); }

Texts matches(const std::string& text, const std::string& pattern) {
  Texts found;
  const std::regex expression(pattern);
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) {
    found.insert((*at)[1]);
  }
  return found;
}

/// The text of a line of macros and words, with `field` in place of every argument.
std::string plainText(const std::string& line) {
  std::istringstream words(std::regex_replace(std::regex_replace(line, std::regex(R"(\\\(aq)"), "'"),
                                              std::regex(R"(\\&|\\(?=-))"), ""));
  std::string text, style;
  bool joins = true;
  for (std::string word; words >> word;) {
    if (word == "Ns") {
      joins = true;
    } else if (Texts{"Ar", "Sy", "Ev"}.contains(word)) {
      style = word;
    } else {
      text += (joins ? "" : " ") + (style == "Ar" ? field : word);
      joins = false;
    }
  }
  return text;
}

/// The heads of the list items in a section of a program's page.
Texts heads(const std::string& program, const std::string& section) {
  const std::string page = projectFile("docs/man/" + program + ".1");
  const std::size_t begin = page.find("\n.Sh " + section + "\n");
  if (begin == std::string::npos) return {};
  Texts found;
  for (const std::string& line :
       matches(page.substr(begin, page.find("\n.Sh ", begin + 1) - begin), "\n\\.It ([^\n]*)")) {
    found.insert(plainText(line));
  }
  return found;
}

/// Calls `visit` with the path and the content of each of the product's sources.
template <typename Visit>
void forEachSource(Visit&& visit) {
  for (const auto& entry : fs::recursive_directory_iterator(PROJECT_SOURCE)) {
    const std::string path = entry.path().lexically_relative(PROJECT_SOURCE);
    const bool isProduct = path.starts_with("Vellicor") && !path.starts_with("VellicorLab") &&
                           !path.starts_with("VellicorTrials");
    const bool isSource = entry.path().extension() == ".cpp" || entry.path().extension() == ".h";
    if (isProduct && isSource) visit(path, projectFile(path));
  }
}

Texts literals(const std::string& source) {
  // A comment is matched so that its quotes begin nothing, a character so that '"' does not.
  Texts found = matches(source, R"re(//[^\n]*|#include[^\n]*|'\\?[^\n]'|"((?:[^"\\\n]|\\.)*)")re");
  found.erase("");
  return found;
}

std::string trimmed(std::string_view text) {
  const std::size_t first = std::min(text.find_first_not_of(' '), text.size());
  return std::string(text.substr(first, text.find_last_not_of(' ') + 1 - first));
}

/// The pieces of a text between its fields, without outer spaces.
Texts pieces(const std::string& text, const std::string& fieldPattern) {
  Texts found;
  const std::regex mark(fieldPattern);
  for (std::sregex_token_iterator at(text.begin(), text.end(), mark, -1), end; at != end; ++at) {
    found.insert(trimmed(at->str()));
  }
  return found;
}

/// Whether the text is put together from whole pieces, which meet at spaces and colons.
bool isComposed(const std::string& text, const Texts& from) {
  if (text.empty() || from.contains(text)) return true;
  for (std::size_t end = text.size() - 1; end > 0; --end) {
    const bool isSeam = text[end] == ' ' || text[end] == ':';
    if (isSeam && from.contains(trimmed(text.substr(0, end))) && isComposed(trimmed(text.substr(end)), from))
      return true;
  }
  return false;
}

TEST(ManPages, AndCompletionsHaveTheOptionsOfTheUsageText) {
  for (const std::string& program : programs) {
    const ProcessResult help = runProcess({PROGRAMS "/" + program, "--help"});
    EXPECT_EQ(help.status, 0) << help.errors;
    const Texts options = matches(help.output.substr(0, help.output.find("\n\n")), "--([a-z][a-z-]*)");
    EXPECT_FALSE(options.empty());
    EXPECT_EQ(matches(projectFile("docs/man/" + program + ".1"), "\\.It Fl -([a-z-]+)"), options);
    EXPECT_EQ(matches(projectFile("completions/" + program + ".bash"), "--([a-z][a-z-]*)"), options);
    EXPECT_EQ(matches(projectFile("completions/_" + program), "--([a-z-]+)[\\[:]"), options);
    EXPECT_EQ(matches(projectFile("completions/" + program + ".fish"), " -l ([a-z-]+)"), options);
  }
}

TEST(ManPages, ExplainEveryErrorAndNoOther) {
  Texts written, errors;
  forEachSource([&](const std::string& path, const std::string& content) {
    for (const std::string& literal : literals(content)) {
      written.merge(pieces(literal, R"(\{[^{}]*\})"));
      const bool isError = path.starts_with("VellicorRepackCore/Base/Errors") &&
                           std::regex_search(literal, std::regex(R"(\w.*\{\})"));
      if (isError) {
        const std::string text = std::regex_replace(literal, std::regex(R"(\{\})"), field);
        errors.insert(std::regex_replace(text, std::regex("( ?<>)+$"), ""));
      }
    }
  });
  EXPECT_GE(errors.size(), 36U);
  Texts explained;
  for (const std::string& program : programs) {
    const Texts texts = heads(program, "DIAGNOSTICS");
    EXPECT_FALSE(texts.empty()) << program;
    for (const std::string& text : texts) {
      for (const std::string& piece : pieces(text, field)) {
        const bool isSaid = isComposed(piece, written) || isComposed(program + ": " + piece, written);
        EXPECT_TRUE(isSaid) << program << ": " << piece;
      }
    }
    if (program == "VellicorRepack") explained = texts;
  }
  for (const std::string& error : errors) {
    const auto holdsIt = [&](const std::string& text) { return text.find(error) != std::string::npos; };
    EXPECT_TRUE(std::ranges::any_of(explained, holdsIt)) << error;
  }
}

TEST(ManPages, NameEveryEnvironmentVariableThatIsRead) {
  std::map<std::string, Texts> variables;
  forEachSource([&](const std::string& path, const std::string& content) {
    if (content.find("nvironmentVariable(") == std::string::npos) return;
    const std::string folder = path.substr(0, path.find('/'));
    variables[folder == "VellicorRepackCore" ? "VellicorRepack" : folder].merge(
        matches(content, "\"([A-Z_]{4,}|[a-z]+_proxy)\""));
  });
  for (const std::string& program : programs) {
    Texts named;
    for (const std::string& head : heads(program, "ENVIRONMENT")) named.merge(matches(head, "(\\w+)"));
    EXPECT_EQ(named, variables[program]) << program;
  }
}

}  // namespace
}  // namespace vellicor
