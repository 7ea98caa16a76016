#pragma once

#include <optional>
#include <span>
#include <string>

namespace vellicor {

/// Which file of certificates (PEM) to trust. Systems keep theirs in different places, and a libcurl that was
/// built on another system knows only the place of that one.
struct TrustedCertificates {
  /// Where the systems keep them; the first that can be read counts.
  static std::span<const char* const> usualPlaces();

  /// The file that libcurl was built to read; nothing where it has none, for instance because it asks the
  /// system.
  static std::optional<std::string> builtInPlace();

  /// `named` where there is one. Otherwise nothing, which leaves it to libcurl, unless its own place cannot
  /// be read and one of `places` can.
  static std::optional<std::string> file(std::optional<std::string> named,
                                         const std::optional<std::string>& builtIn = builtInPlace(),
                                         std::span<const char* const> places = usualPlaces());
};

}  // namespace vellicor
