#include "VellicorProgress/Terminal.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include <sys/ioctl.h>
#include <unistd.h>

#include "VellicorRepackCore/Base/Environment.h"

namespace vellicor {

namespace {

std::optional<std::size_t> windowColumns(int terminal) {
  winsize size{};
  if (::ioctl(terminal, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return std::nullopt;
  return size.ws_col;
}

std::optional<std::string> firstSetOf(std::initializer_list<const char*> names) {
  for (const char* name : names) {
    std::optional<std::string> value = nonEmptyEnvironmentVariable(name);
    if (value) return value;
  }
  return std::nullopt;
}

std::optional<std::size_t> columnsNamed(const std::optional<std::string>& variable) {
  if (!variable) return std::nullopt;
  std::uint16_t columns = 0;
  const char* end = variable->data() + variable->size();
  const auto [read, error] = std::from_chars(variable->data(), end, columns);
  if (error != std::errc() || read != end || columns == 0) return std::nullopt;
  return columns;
}

bool isUtf8Locale(std::string locale) {
  std::ranges::transform(locale, locale.begin(),
                         [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return locale.find("utf-8") != std::string::npos || locale.find("utf8") != std::string::npos;
}

}  // namespace

TerminalFacts TerminalFacts::ofStandardOutput() {
  return {.isTerminal = ::isatty(STDOUT_FILENO) == 1,
          .columns = windowColumns(STDOUT_FILENO),
          .type = nonEmptyEnvironmentVariable("TERM"),
          .noColour = nonEmptyEnvironmentVariable("NO_COLOR"),
          .columnsVariable = nonEmptyEnvironmentVariable("COLUMNS"),
          .locale = firstSetOf({"LC_ALL", "LC_CTYPE", "LANG"})};
}

Viewer::Mode TerminalFacts::mode() const {
  return isTerminal && type && type != "dumb" ? Viewer::Mode::live : Viewer::Mode::plain;
}

Look TerminalFacts::look() const {
  const bool isColoured = mode() == Viewer::Mode::live && !noColour;
  const std::optional<std::size_t> width = columns ? columns : columnsNamed(columnsVariable);
  return {.columns = width.value_or(usualColumns),
          .colours = isColoured ? Look::Colours::ansi : Look::Colours::none,
          .glyphs = isUtf8Locale(locale.value_or("")) ? Glyphs::unicode : Glyphs::ascii};
}

bool isInForeground(int terminal) {
  const pid_t group = ::tcgetpgrp(terminal);
  return group < 0 || group == ::getpgrp();
}

}  // namespace vellicor
