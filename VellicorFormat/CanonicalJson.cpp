#include "VellicorFormat/CanonicalJson.h"

#include <cassert>
#include <cmath>
#include <iterator>
#include <stdexcept>

#include <fmt/format.h>

#include "VellicorFormat/Unicode.h"

namespace vellicor {
namespace {

/// The letter after the backslash for the characters that have a short escape, 0 for all others.
char shortEscape(char c) {
  switch (c) {
    case '"':
      return '"';
    case '\\':
      return '\\';
    case '\b':
      return 'b';
    case '\f':
      return 'f';
    case '\n':
      return 'n';
    case '\r':
      return 'r';
    case '\t':
      return 't';
    default:
      return 0;
  }
}

template <typename Integer>
void appendInteger(std::string& text, Integer number) {
  const fmt::format_int digits(number);
  text.append(digits.data(), digits.size());
}

/// Whether a string may hold the character as it is, whatever becomes of its slashes.
bool isPlain(char c) { return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\' && c != '/'; }

}  // namespace

CanonicalJson& CanonicalJson::beginObject() {
  open('{', true);
  return *this;
}

CanonicalJson& CanonicalJson::endObject() {
  assert(levels_.back().isObject && !afterKey_);
  close('}');
  return *this;
}

CanonicalJson& CanonicalJson::beginArray() {
  open('[', false);
  return *this;
}

CanonicalJson& CanonicalJson::endArray() {
  assert(!levels_.back().isObject);
  close(']');
  return *this;
}

CanonicalJson& CanonicalJson::key(std::string_view name) {
  assert(!levels_.empty() && levels_.back().isObject && !afterKey_);
#ifndef NDEBUG
  assert(levels_.back().isEmpty || levels_.back().lastKey < name);
  levels_.back().lastKey = name;
#endif
  beginItem();
  appendString(name);
  text_ += layout_ == Layout::pretty ? " : " : ":";
  afterKey_ = true;
  return *this;
}

CanonicalJson& CanonicalJson::value(std::string_view text) {
  beginValue();
  appendString(text);
  return *this;
}

CanonicalJson& CanonicalJson::value(bool flag) {
  beginValue();
  text_ += flag ? "true" : "false";
  return *this;
}

CanonicalJson& CanonicalJson::value(std::uint64_t number) {
  beginValue();
  appendInteger(text_, number);
  return *this;
}

CanonicalJson& CanonicalJson::value(std::int64_t number) {
  beginValue();
  appendInteger(text_, number);
  return *this;
}

CanonicalJson& CanonicalJson::value(double number) {
  assert(std::isfinite(number));
  beginValue();
  fmt::format_to(std::back_inserter(text_), "{}", number);
  // "-0" would read back as the integer 0.
  if (number == 0 && std::signbit(number)) text_ += ".0";
  return *this;
}

void CanonicalJson::beginValue() {
  assert(levels_.empty() || levels_.back().isObject == afterKey_);
  if (!levels_.empty() && !afterKey_) beginItem();
  afterKey_ = false;
}

void CanonicalJson::beginItem() {
  if (!levels_.back().isEmpty) text_ += ',';
  levels_.back().isEmpty = false;
  newLine(levels_.size());
}

void CanonicalJson::open(char bracket, bool isObject) {
  beginValue();
  text_ += bracket;
  levels_.emplace_back().isObject = isObject;
}

void CanonicalJson::close(char bracket) {
  if (layout_ == Layout::pretty && levels_.back().isEmpty) text_ += '\n';
  levels_.pop_back();
  newLine(levels_.size());
  text_ += bracket;
}

void CanonicalJson::newLine(std::size_t depth) {
  if (layout_ == Layout::compact) return;
  text_ += '\n';
  text_.append(2 * depth, ' ');
}

void CanonicalJson::appendString(std::string_view text) {
  if (!isWellFormedUtf8(text)) throw std::invalid_argument("text is not UTF-8");
  text_ += '"';
  std::size_t copied = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (isPlain(c)) continue;
    const bool escapesSlash = c == '/' && slashes_ == Slashes::escaped;
    const char letter = escapesSlash ? '/' : shortEscape(c);
    const bool isControl = static_cast<unsigned char>(c) < 0x20;
    if (letter == 0 && !isControl) continue;
    text_ += text.substr(copied, i - copied);
    copied = i + 1;
    if (letter != 0) {
      text_ += '\\';
      text_ += letter;
    } else {
      fmt::format_to(std::back_inserter(text_), "\\u{:04x}", static_cast<unsigned>(c));
    }
  }
  text_ += text.substr(copied);
  text_ += '"';
}

}  // namespace vellicor
