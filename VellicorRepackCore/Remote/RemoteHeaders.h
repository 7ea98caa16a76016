#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "VellicorRepackCore/Remote/HttpTransport.h"

namespace vellicor {

/// The value of the first response header of that name, compared case-insensitively.
std::optional<std::string> remoteHeader(const HttpResponseHead& response, std::string_view name);

/// The text under which a URL may appear in an error or a record: without query and fragment, "<unknown>" for
/// none, "<redacted>" for one that cannot be taken apart.
std::string redactRemoteURL(const std::optional<RemoteUrl>& url);

/// The comparable form of a strong entity tag (RFC 9110, section 8.8.3): unquoted and lower-case; nothing for
/// an absent, empty or weak one.
std::optional<std::string> normalizedStrongETag(const std::optional<std::string>& value);

/// The text without Unicode white space (line ends included) at either end.
std::string_view trimmedWhitespace(std::string_view text);

}  // namespace vellicor
