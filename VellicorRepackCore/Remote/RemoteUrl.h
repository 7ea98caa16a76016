#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vellicor {

/// An absolute URL (RFC 3986), parsed and put together by the HTTP client's own URL functions, so that what
/// is checked here is what is connected to. The query is kept byte for byte.
class RemoteUrl {
 public:
  /// Nothing when the text is not an absolute URL with a host, or carries user information, which would then
  /// stand in every message. Any scheme is accepted here.
  static std::optional<RemoteUrl> parse(std::string_view text);

  /// Lower-case.
  const std::string& scheme() const { return scheme_; }
  /// As written, without a port; an IPv6 address keeps its brackets.
  const std::string& host() const { return host_; }
  /// "host" or "host:port", for messages.
  std::string authority() const;
  const std::string& string() const { return text_; }

  /// The URL with one more path segment, percent-encoded as a segment requires (a "/" inside it too).
  RemoteUrl appendingPathComponent(std::string_view component) const;

  /// What a Location header on an answer from this URL points to (RFC 3986, section 5); nothing when it
  /// cannot be read.
  std::optional<RemoteUrl> resolving(std::string_view location) const;

  /// Without query and fragment; nothing when the URL cannot be taken apart.
  std::optional<std::string> withoutQueryAndFragment() const;

  bool operator==(const RemoteUrl& other) const { return text_ == other.text_; }

 private:
  RemoteUrl() = default;

  std::string text_;
  std::string scheme_;
  std::string host_;
  std::string port_;
};

}  // namespace vellicor
