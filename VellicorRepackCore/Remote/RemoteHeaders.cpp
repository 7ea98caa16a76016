#include "VellicorRepackCore/Remote/RemoteHeaders.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include "VellicorRepackCore/Base/AsciiText.h"

namespace vellicor {
namespace {

/// The bytes of the white-space character that the UTF-8 text begins with, 0 when it begins with none.
std::size_t leadingSpaceBytes(std::string_view text) {
  if (text.empty()) return 0;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  std::size_t next = 0;
  UChar32 character = 0;
  U8_NEXT(bytes, next, text.size(), character);
  return character >= 0 && u_isUWhiteSpace(character) != 0 ? next : 0;
}

/// Where the last character of a text that is not empty starts.
std::size_t lastCharacterStart(std::string_view text) {
  std::size_t start = text.size() - 1;
  while (start > 0 && U8_IS_TRAIL(text[start])) --start;
  return start;
}

}  // namespace

std::optional<std::string> remoteHeader(const HttpResponseHead& response, std::string_view name) {
  return response.headers.get(name);
}

std::string redactRemoteURL(const std::optional<RemoteUrl>& url) {
  if (!url) return "<unknown>";
  return url->withoutQueryAndFragment().value_or("<redacted>");
}

std::optional<std::string> normalizedStrongETag(const std::optional<std::string>& value) {
  if (!value) return std::nullopt;
  std::string tag = asciiLowercased(trimmedWhitespace(*value));
  if (tag.empty() || tag.starts_with("w/")) return std::nullopt;
  if (tag.size() >= 2 && tag.front() == '"' && tag.back() == '"') return tag.substr(1, tag.size() - 2);
  return tag;
}

std::string_view trimmedWhitespace(std::string_view text) {
  while (const std::size_t length = leadingSpaceBytes(text)) text.remove_prefix(length);
  while (!text.empty()) {
    const std::size_t last = lastCharacterStart(text);
    if (leadingSpaceBytes(text.substr(last)) != text.size() - last) break;
    text = text.substr(0, last);
  }
  return text;
}

}  // namespace vellicor
