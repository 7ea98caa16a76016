#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "VellicorRepackCore/Remote/RemoteUrl.h"

namespace vellicor {

/// The proxy that the environment names for a URL, found by libcurl's rules: https_proxy, HTTPS_PROXY,
/// all_proxy or ALL_PROXY, the first that is set and not empty, unless no_proxy or NO_PROXY lists the host.
/// The choice is made here and handed to libcurl, so that messages name the proxy that is used, whatever
/// libcurl's version.
struct EnvironmentProxy {
  /// The text for libcurl; it may hold a user and a password and is never shown.
  std::string url;
  /// "host:port", for messages.
  std::string authority;
  /// Whether it speaks HTTP, so that a tunnel is asked for with CONNECT; SOCKS otherwise.
  bool isHttp = true;

  /// Nothing where none is named. Throws `NetworkError` for a text that names no usable proxy.
  static std::optional<EnvironmentProxy> forURL(const RemoteUrl& url);
};

/// Whether a list as in no_proxy holds the host: names match themselves and what ends in them after a dot,
/// numeric addresses match themselves and networks ("10.0.0.0/8"), and a lone "*" matches everything.
bool isListedInNoProxy(std::string_view list, std::string_view host);

}  // namespace vellicor
