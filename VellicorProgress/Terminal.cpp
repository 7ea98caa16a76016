#include "VellicorProgress/Terminal.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>

#include <unistd.h>

#include "VellicorRepackCore/Base/Environment.h"
#include "VellicorTerminal/StandardStreams.h"

namespace vellicor {

namespace {

std::optional<std::size_t> columnsVariable() {
  const std::string value = nonEmptyEnvironmentVariable("COLUMNS").value_or("");
  std::uint16_t columns = 0;
  const char* end = value.data() + value.size();
  const auto [read, error] = std::from_chars(value.data(), end, columns);
  if (error != std::errc() || read != end || columns == 0) return std::nullopt;
  return columns;
}

bool isUtf8Locale() {
  std::optional<std::string> locale;
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    if (!locale) locale = nonEmptyEnvironmentVariable(name);
  }
  std::string text = locale.value_or("");
  std::ranges::transform(text, text.begin(),
                         [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return text.find("utf-8") != std::string::npos || text.find("utf8") != std::string::npos;
}

}  // namespace

Terminal Terminal::ofStandardOutput() {
  const bool isTerminal = ::isatty(STDOUT_FILENO) == 1;
  const bool isLive = isTerminal && nonEmptyEnvironmentVariable("TERM").value_or("dumb") != "dumb";
  const bool isColoured = isLive && !nonEmptyEnvironmentVariable("NO_COLOR");
  const auto columns = windowColumns(STDOUT_FILENO);
  return {.isTerminal = isTerminal,
          .mode = isLive ? Viewer::Mode::live : Viewer::Mode::plain,
          .look = {.columns = columns ? *columns : columnsVariable().value_or(usualColumns),
                   .colours = isColoured ? Look::Colours::ansi : Look::Colours::none,
                   .glyphs = isUtf8Locale() ? Glyphs::unicode : Glyphs::ascii}};
}

bool isInForeground(int terminal) {
  const pid_t group = ::tcgetpgrp(terminal);
  return group < 0 || group == ::getpgrp();
}

}  // namespace vellicor
