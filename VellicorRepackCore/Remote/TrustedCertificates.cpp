#include "VellicorRepackCore/Remote/TrustedCertificates.h"

#include <algorithm>
#include <array>

#include <curl/curl.h>
#include <unistd.h>

namespace vellicor {

namespace {

bool isReadable(const char* path) { return ::access(path, R_OK) == 0; }

}  // namespace

std::span<const char* const> TrustedCertificates::usualPlaces() {
  static constexpr std::array places = {
      "/etc/ssl/certs/ca-certificates.crt",                 // Debian, Arch, Gentoo
      "/etc/pki/tls/certs/ca-bundle.crt",                   // Fedora and older Red Hat
      "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",  // newer Red Hat
      "/etc/ssl/ca-bundle.pem",                             // openSUSE
      "/etc/ssl/cert.pem",                                  // Alpine, macOS
  };
  return places;
}

std::optional<std::string> TrustedCertificates::builtInPlace() {
  const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
  if (info == nullptr || info->age < CURLVERSION_SEVENTH || info->cainfo == nullptr) return std::nullopt;
  return info->cainfo;
}

std::optional<std::string> TrustedCertificates::file(std::optional<std::string> named,
                                                     const std::optional<std::string>& builtIn,
                                                     std::span<const char* const> places) {
  if (named || !builtIn || isReadable(builtIn->c_str())) return named;
  const auto found = std::ranges::find_if(places, isReadable);
  if (found == places.end()) return std::nullopt;
  return *found;
}

}  // namespace vellicor
