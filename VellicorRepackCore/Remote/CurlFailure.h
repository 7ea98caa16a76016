#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include <curl/curl.h>

#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Remote/RemoteUrl.h"

namespace vellicor {

/// What is known about a hop that libcurl could not bring to its end.
struct CurlFailure {
  CURLcode code = CURLE_OK;
  /// libcurl's own account; quoted only where it is known to name neither the query nor a bare number.
  std::string text{};
  /// The errno of the last connection attempt and of creating a socket; 0 for none.
  long connectError = 0;
  int socketError = 0;
  /// The status of a proxy's answer, 0 for none.
  long proxyStatus = 0;
  /// The answer had begun, but its head was not complete.
  bool isWithinHead = false;
  /// The certificates to trust, "" for the system's.
  std::string caFile{};
  std::chrono::duration<double> idleTimeout{};

  NetworkError networkError(const RemoteUrl& url) const;

 private:
  std::string reason() const;
  bool isCutOffHandshake() const;
};

/// An error whose text is a format of {0}, the server's host and port, {1}, the reason, and {2}, the redacted
/// URL.
NetworkError urlError(NetworkError::Code code, std::string_view text, const RemoteUrl& url,
                      const std::string& reason = "");

NetworkError noAnswer(const RemoteUrl& url, std::chrono::duration<double> idleTimeout);
NetworkError headTooLarge(const RemoteUrl& url);

}  // namespace vellicor
