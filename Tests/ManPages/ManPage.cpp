#include "Tests/ManPages/ManPage.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

namespace vellicor::testing {

namespace {

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

std::string unescaped(std::string word) {
  const std::vector<std::pair<std::string, std::string>> escapes = {
      {"\\&", ""}, {"\\-", "-"}, {"\\(dq", "\""}, {"\\(aq", "'"}};
  for (const auto& [escape, text] : escapes) word = replaced(std::move(word), escape, text);
  return word;
}

/// The text of a line of macros and their arguments.
std::string plainText(const std::string& line) {
  static const std::set<std::string> styles = {"Ar", "Cm", "Ev", "Fl", "Li", "Nm", "No", "Sy"};
  std::istringstream words(line);
  std::string text;
  std::string style;
  std::string closing;
  bool joins = true;
  const auto append = [&](const std::string& shown) {
    text += (joins ? "" : " ") + unescaped(shown);
    joins = false;
  };
  for (std::string word; words >> word;) {
    if (styles.contains(word)) {
      style = word;
    } else if (word == "Ns") {
      joins = true;
    } else if (word == "Op" || word == "Oo") {
      append("[");
      joins = true;
      if (word == "Op") closing = "]";
    } else if (word == "Oc" || word == ",") {
      text += word == "," ? "," : "]";
    } else if (style == "Ar") {
      append("<" + word + ">");
    } else {
      append(style == "Fl" && word != "|" ? "-" + word : word);
    }
  }
  return text + closing;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

/// The pieces of `text` between the matches of `mark`.
std::vector<std::string> between(const std::string& text, const std::regex& mark) {
  std::vector<std::string> pieces;
  for (std::sregex_token_iterator at(text.begin(), text.end(), mark, -1), end; at != end; ++at) {
    if (const std::string piece = *at; !trimmed(piece).empty()) pieces.emplace_back(trimmed(piece));
  }
  return pieces;
}

}  // namespace

std::string projectFile(const std::string& relativePath) {
  std::ifstream file(std::filesystem::path(PROJECT_SOURCE) / relativePath, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

ManPage::ManPage(const std::string& name) {
  std::istringstream content(projectFile("docs/man/" + name));
  for (std::string line; std::getline(content, line);) lines_.push_back(line);
}

std::vector<std::string> ManPage::linesOf(std::string_view section) const {
  const auto begin = std::find(lines_.begin(), lines_.end(), ".Sh " + std::string(section));
  if (begin == lines_.end()) return {};
  return {begin + 1,
          std::find_if(begin + 1, lines_.end(), [](const auto& line) { return line.starts_with(".Sh "); })};
}

std::vector<std::string> ManPage::heads(std::string_view section) const {
  std::vector<std::string> heads;
  for (const std::string& line : linesOf(section)) {
    if (line.starts_with(".It ")) heads.push_back(plainText(line.substr(4)));
  }
  return heads;
}

std::vector<std::string> ManPage::synopsis() const {
  const std::vector<std::string> lines = linesOf("SYNOPSIS");
  const auto name = std::find_if(lines_.begin(), lines_.end(),
                                 [](const std::string& line) { return line.starts_with(".Nm "); });
  std::vector<std::string> forms;
  for (const std::string& line : lines) {
    if (line == ".Nm") {
      forms.push_back(plainText(name->substr(1)));
    } else {
      forms.back() += " " + plainText(line.substr(1));
    }
  }
  return forms;
}

SourceTexts::SourceTexts(const std::vector<std::string>& folders) {
  // A comment is matched so that its quotes begin nothing, a character so that '"' does not.
  static const std::regex literal(R"re(//[^\n]*|#include[^\n]*|'\\?[^\n]'|"((?:[^"\\\n]|\\.)*)")re");
  static const std::regex field(R"(\{[^{}]*\})");
  const std::filesystem::path root(PROJECT_SOURCE);
  for (const std::string& folder : folders) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root / folder)) {
      if (!entry.is_regular_file()) continue;
      const std::string path = entry.path().lexically_relative(root).string();
      const std::string& content = files_.emplace_back(path, projectFile(path)).second;
      for (std::sregex_iterator at(content.begin(), content.end(), literal), end; at != end; ++at) {
        std::vector<std::string> pieces = between(replaced((*at)[1].str(), "\\\"", "\""), field);
        std::move(pieces.begin(), pieces.end(), std::inserter(pieces_, pieces_.end()));
      }
    }
  }
}

bool SourceTexts::compose(const std::string& text) const {
  static const std::regex placeholder("<[A-Za-z0-9]+>");
  const std::vector<std::string> fragments = between(text, placeholder);
  return std::all_of(fragments.begin(), fragments.end(),
                     [&](const std::string& fragment) { return isWritten(fragment); });
}

bool SourceTexts::isWritten(std::string_view fragment) const {
  fragment = trimmed(fragment);
  if (fragment.empty() || pieces_.contains(fragment)) return true;
  for (std::size_t end = fragment.size() - 1; end > 0; --end) {
    const bool isSeam = fragment[end] == ' ' || fragment[end] == ':';
    if (isSeam && pieces_.contains(trimmed(fragment.substr(0, end))) && isWritten(fragment.substr(end)))
      return true;
  }
  return false;
}

std::set<std::string> SourceTexts::filesWith(const std::string& word) const {
  std::set<std::string> found;
  for (const auto& [path, content] : files_) {
    if (content.find(word) != std::string::npos) found.insert(path);
  }
  return found;
}

}  // namespace vellicor::testing
