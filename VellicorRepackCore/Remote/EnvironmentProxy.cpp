#include "VellicorRepackCore/Remote/EnvironmentProxy.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <memory>
#include <vector>

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fmt/format.h>

#include "VellicorRepackCore/Base/AsciiText.h"
#include "VellicorRepackCore/Base/Environment.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/NetworkSentences.h"
#include "VellicorRepackCore/Remote/RemoteHeaders.h"

namespace vellicor {

namespace {

struct FreeUrl {
  void operator()(CURLU* url) const noexcept { curl_url_cleanup(url); }
};
struct FreeText {
  void operator()(char* text) const noexcept { curl_free(text); }
};

// The first of the variables that is set and not empty.
template <std::size_t count>
const char* firstSet(const std::array<const char*, count>& names) {
  const auto found = std::ranges::find_if(
      names, [](const char* name) { return nonEmptyEnvironmentVariable(name).has_value(); });
  return found == names.end() ? nullptr : *found;
}

std::string part(CURLU* url, CURLUPart which) {
  char* text = nullptr;
  if (curl_url_get(url, which, &text, 0) != CURLUE_OK) return "";
  const std::unique_ptr<char, FreeText> owned(text);
  return text;
}

// Nothing for a text that cannot name a proxy. Without a scheme it names an HTTP proxy.
std::optional<EnvironmentProxy> parsedProxy(const std::string& text) {
  const std::unique_ptr<CURLU, FreeUrl> url(curl_url());
  if (!url) throw std::bad_alloc();
  const std::string whole = text.find("://") == std::string::npos ? "http://" + text : text;
  if (curl_url_set(url.get(), CURLUPART_URL, whole.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
    return std::nullopt;
  const std::string scheme = asciiLowercased(part(url.get(), CURLUPART_SCHEME));
  const bool isHttp = scheme == "http" || scheme == "https";
  const bool isSocks = scheme == "socks4" || scheme == "socks4a" || scheme == "socks5" ||
                       scheme == "socks5h" || scheme == "socks";
  const std::string host = part(url.get(), CURLUPART_HOST);
  if (host.empty() || !(isHttp || isSocks)) return std::nullopt;
  std::string port = part(url.get(), CURLUPART_PORT);
  if (port.empty()) port = scheme == "https" ? "443" : "1080";
  return EnvironmentProxy{.url = whole, .authority = host + ":" + port, .isHttp = isHttp};
}

std::string_view withoutBrackets(std::string_view host) {
  const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  return isBracketed ? host.substr(1, host.size() - 2) : host;
}

// The bytes of a numeric address, 4 or 16 of them, or none.
std::vector<std::uint8_t> addressBytes(std::string_view text) {
  const std::string host(withoutBrackets(text));
  std::vector<std::uint8_t> bytes(16);
  if (::inet_pton(AF_INET6, host.c_str(), bytes.data()) == 1) return bytes;
  bytes.resize(4);
  if (::inet_pton(AF_INET, host.c_str(), bytes.data()) == 1) return bytes;
  return {};
}

// Whether the address is the entry's, or in the network that the entry names.
bool isInNetwork(const std::vector<std::uint8_t>& address, std::string_view entry) {
  const std::size_t slash = std::min(entry.find('/'), entry.size());
  const std::vector<std::uint8_t> network = addressBytes(entry.substr(0, slash));
  if (network.size() != address.size()) return false;
  std::size_t bits = 0;
  if (slash < entry.size()) std::from_chars(entry.data() + slash + 1, entry.data() + entry.size(), bits);
  if (bits == 0) bits = address.size() * 8;
  if (bits > address.size() * 8) return false;
  for (std::size_t i = 0; i < bits; ++i) {
    if (((address[i / 8] ^ network[i / 8]) >> (7 - i % 8) & 1) != 0) return false;
  }
  return true;
}

// Both in lower case.
bool isInDomain(std::string_view host, std::string_view domain) {
  if (domain.ends_with('.')) domain.remove_suffix(1);
  if (domain.starts_with('.')) domain.remove_prefix(1);
  if (!host.ends_with(domain)) return false;
  return host.size() == domain.size() || host[host.size() - domain.size() - 1] == '.';
}

}  // namespace

bool isListedInNoProxy(std::string_view list, std::string_view host) {
  if (list == "*") return true;
  const std::string name = asciiLowercased(host.ends_with('.') ? host.substr(0, host.size() - 1) : host);
  const std::vector<std::uint8_t> address = addressBytes(host);
  while (!list.empty()) {
    const std::size_t end = std::min(list.find_first_of(", \t"), list.size());
    const std::string entry = asciiLowercased(list.substr(0, end));
    list.remove_prefix(std::min(end + 1, list.size()));
    if (entry.empty()) continue;
    if (address.empty() ? isInDomain(name, entry) : isInNetwork(address, entry)) return true;
  }
  return false;
}

std::optional<EnvironmentProxy> EnvironmentProxy::forURL(const RemoteUrl& url) {
  constexpr std::array proxyNames = {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"};
  constexpr std::array listNames = {"no_proxy", "NO_PROXY"};
  const char* variable = firstSet(proxyNames);
  if (variable == nullptr) return std::nullopt;
  const char* list = firstSet(listNames);
  if (list != nullptr && isListedInNoProxy(*environmentVariable(list), url.host())) return std::nullopt;
  auto proxy = parsedProxy(*environmentVariable(variable));
  if (!proxy) {
    throw NetworkError(NetworkError::Code::other,
                       fmt::format(network_sentences::invalidProxy, variable, redactRemoteURL(url)));
  }
  return proxy;
}

}  // namespace vellicor
