#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include <curl/curl.h>

#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Remote/RemoteUrl.h"

namespace vellicor {

/// Who is spoken with in a hop, as its messages name them.
struct HopPeer {
  /// "host:port" of the proxy that the hop goes through, "" for none.
  std::string proxy{};
  /// Whether the proxy itself is spoken with: its tunnel to the server is not open.
  bool isProxy = false;

  std::string name(const RemoteUrl& url) const;
};

/// What is known about a hop that libcurl could not bring to its end: codes and what the hop has reached,
/// never libcurl's own sentences, which change from version to version.
struct CurlFailure {
  CURLcode code = CURLE_OK;
  HopPeer peer{};
  /// The errno of the last attempt to connect, of the connection's loss, and of creating a socket; 0 for
  /// none. A loss of EPIPE tells little: on a connection that is gone for whatever reason, libcurl's farewell
  /// meets it and overwrites the reason.
  int connectError = 0;
  int lossError = 0;
  int socketError = 0;
  /// The status of the proxy's last answer, 0 for none.
  int proxyStatus = 0;
  /// The first bytes of the answer have come, but not the end of its head.
  bool isWithinHead = false;
  /// A TLS handshake was cut off by the connection's end, or has failed for that reason.
  bool isHandshakeCutOff = false;
  std::string handshakeReason{};
  /// What is wrong with the certificate (X509_V_...), 0 for nothing that OpenSSL checks: its name, then.
  long verifyResult = 0;
  /// The certificates to trust, "" for the system's.
  std::string caFile{};
  std::chrono::duration<double> idleTimeout{};

  NetworkError networkError(const RemoteUrl& url) const;

 private:
  CURLcode meaning() const;
  std::string reason() const;
};

/// An error with one of the `network_sentences`.
NetworkError urlError(NetworkError::Code code, std::string_view text, const RemoteUrl& url,
                      const HopPeer& peer = {}, const std::string& reason = "");

NetworkError noAnswer(const RemoteUrl& url, const HopPeer& peer, std::chrono::duration<double> idleTimeout);
NetworkError headTooLarge(const RemoteUrl& url, const HopPeer& peer);
NetworkError notHttp(const RemoteUrl& url, const HopPeer& peer);

}  // namespace vellicor
