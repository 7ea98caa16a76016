#include "VellicorRepackCore/Remote/RemoteUrl.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include <curl/curl.h>
#include <fmt/format.h>

namespace vellicor {

namespace {

constexpr unsigned parseFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS | CURLU_DISALLOW_USER;
// Resolving a reference removes its dot segments (RFC 3986, section 5.2.4).
constexpr unsigned resolveFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_DISALLOW_USER;

struct UrlCleanup {
  void operator()(CURLU* url) const noexcept { curl_url_cleanup(url); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlCleanup>;

bool assign(CURLU* url, CURLUPart part, const std::string& text, unsigned flags) {
  return text.find('\0') == std::string::npos && curl_url_set(url, part, text.c_str(), flags) == CURLUE_OK;
}

UrlHandle parsedUrl(const std::string& text) {
  UrlHandle url(curl_url());
  if (!url) throw std::bad_alloc();
  if (!assign(url.get(), CURLUPART_URL, text, parseFlags)) url.reset();
  return url;
}

std::optional<std::string> partOf(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) return std::nullopt;
  const std::unique_ptr<char, decltype(&curl_free)> owned(text, &curl_free);
  return std::string(text);
}

std::optional<std::string> writtenOut(const std::string& text) {
  const UrlHandle url = parsedUrl(text);
  return url ? partOf(url.get(), CURLUPART_URL) : std::nullopt;
}

bool staysInSegment(unsigned char c) {
  const bool isAlphanumeric = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
  return isAlphanumeric || (c != 0 && std::string_view("-._~!$&'()*+,;=:@").find(static_cast<char>(c)) !=
                                          std::string_view::npos);
}

std::string encodedSegment(std::string_view segment) {
  std::string encoded;
  for (const char c : segment) {
    const auto byte = static_cast<unsigned char>(c);
    if (staysInSegment(byte)) {
      encoded += c;
    } else {
      encoded += fmt::format("%{:02X}", byte);
    }
  }
  return encoded;
}

}  // namespace

std::optional<RemoteUrl> RemoteUrl::parse(std::string_view text) {
  const UrlHandle handle = parsedUrl(std::string(text));
  if (!handle) return std::nullopt;
  const auto whole = partOf(handle.get(), CURLUPART_URL);
  const auto scheme = partOf(handle.get(), CURLUPART_SCHEME);
  const auto host = partOf(handle.get(), CURLUPART_HOST);
  if (!whole || !scheme || !host || host->empty()) return std::nullopt;
  // Written out, an encoded host may read as another: "%39" is "9", and "9" is the address 0.0.0.9.
  if (writtenOut(*whole) != whole) return std::nullopt;
  RemoteUrl url;
  url.text_ = *whole;
  url.scheme_ = *scheme;
  url.host_ = *host;
  url.port_ = partOf(handle.get(), CURLUPART_PORT).value_or("");
  return url;
}

std::string RemoteUrl::authority() const { return port_.empty() ? host_ : host_ + ":" + port_; }

// Put together as text: libcurl's own path setter would rewrite the percent-encodings already there.
RemoteUrl RemoteUrl::appendingPathComponent(std::string_view component) const {
  const std::size_t pathEnd = std::min(text_.find_first_of("?#"), text_.size());
  std::string text = text_.substr(0, pathEnd);
  if (!text.ends_with('/')) text += '/';
  return parse(text + encodedSegment(component) + text_.substr(pathEnd)).value();
}

std::optional<RemoteUrl> RemoteUrl::resolving(std::string_view location) const {
  // The same document, which libcurl would resolve to its directory.
  if (location.empty() || location.starts_with('#')) {
    return parse(text_.substr(0, text_.find('#')) + std::string(location));
  }
  const UrlHandle handle = parsedUrl(text_);
  if (!assign(handle.get(), CURLUPART_URL, std::string(location), resolveFlags)) return std::nullopt;
  const auto resolved = partOf(handle.get(), CURLUPART_URL);
  return resolved ? parse(*resolved) : std::nullopt;
}

std::optional<std::string> RemoteUrl::withoutQueryAndFragment() const {
  const UrlHandle handle = parsedUrl(text_);
  if (!handle || curl_url_set(handle.get(), CURLUPART_QUERY, nullptr, 0) != CURLUE_OK ||
      curl_url_set(handle.get(), CURLUPART_FRAGMENT, nullptr, 0) != CURLUE_OK) {
    return std::nullopt;
  }
  return partOf(handle.get(), CURLUPART_URL);
}

}  // namespace vellicor
