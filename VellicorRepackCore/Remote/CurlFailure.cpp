#include "VellicorRepackCore/Remote/CurlFailure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include <fmt/format.h>
#include <openssl/x509.h>

#include "VellicorRepackCore/Base/NetworkSentences.h"
#include "VellicorRepackCore/Remote/HttpTransport.h"
#include "VellicorRepackCore/Remote/RemoteHeaders.h"

namespace vellicor {

namespace {

using Code = NetworkError::Code;
namespace sentences = network_sentences;

struct FailureText {
  CURLcode curlCode;
  Code code;
  std::string_view text;
};
constexpr std::array failureTexts = {
    FailureText{CURLE_COULDNT_RESOLVE_HOST, Code::nameResolution, sentences::addressNotFound},
    FailureText{CURLE_COULDNT_RESOLVE_PROXY, Code::nameResolution, sentences::addressNotFound},
    FailureText{CURLE_COULDNT_CONNECT, Code::cannotConnect, sentences::cannotConnect},
    FailureText{CURLE_PROXY, Code::cannotConnect, sentences::uselessProxy},
    FailureText{CURLE_GOT_NOTHING, Code::connectionLost, sentences::closedBeforeAnswer},
    FailureText{CURLE_PARTIAL_FILE, Code::connectionLost, sentences::closedWithinHead},
    FailureText{CURLE_OK, Code::connectionLost, sentences::closedWithinHead},
    FailureText{CURLE_SEND_ERROR, Code::connectionLost, sentences::connectionLost},
    FailureText{CURLE_RECV_ERROR, Code::connectionLost, sentences::connectionLost},
    FailureText{CURLE_OUT_OF_MEMORY, Code::resourceUnavailable, sentences::noMemory},
    FailureText{CURLE_PEER_FAILED_VERIFICATION, Code::tls, sentences::untrusted},
    FailureText{CURLE_SSL_CACERT_BADFILE, Code::tls, sentences::noTrustedCertificates},
    FailureText{CURLE_SSL_CONNECT_ERROR, Code::tls, sentences::noSecureConnection},
    FailureText{CURLE_SSL_CLIENTCERT, Code::tls, sentences::asksForCertificate},
};

// CURLE_TOO_LARGE, which libcurl has had since 8.6.
constexpr int tooLargeCode = 100;

bool isOutOfResources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// The errors with which an open connection can end; failed attempts to connect have others.
bool isLossError(int error) {
  constexpr std::array errors = {ECONNRESET, ECONNABORTED, ETIMEDOUT, EHOSTUNREACH, ENETUNREACH, ENETDOWN};
  return std::ranges::find(errors, error) != errors.end();
}

// ": " and the system's words.
std::string because(int error) { return error == 0 ? "" : ": " + std::generic_category().message(error); }

}  // namespace

std::string HopPeer::name(const RemoteUrl& url) const {
  return isProxy ? fmt::format("the proxy {}", proxy) : url.authority();
}

NetworkError urlError(Code code, std::string_view text, const RemoteUrl& url, const HopPeer& peer,
                      const std::string& reason) {
  const bool isThroughProxy = !peer.isProxy && !peer.proxy.empty();
  const std::string way = isThroughProxy ? fmt::format(" through the proxy {}", peer.proxy) : "";
  return {code, fmt::format(fmt::runtime(text), peer.name(url), reason, redactRemoteURL(url), url.authority(),
                            way)};
}

NetworkError noAnswer(const RemoteUrl& url, const HopPeer& peer, std::chrono::duration<double> idleTimeout) {
  return urlError(Code::timedOut, sentences::noAnswer, url, peer, fmt::format("{}", idleTimeout.count()));
}

NetworkError headTooLarge(const RemoteUrl& url, const HopPeer& peer) {
  return urlError(Code::other, sentences::headTooLarge, url, peer);
}

NetworkError notHttp(const RemoteUrl& url, const HopPeer& peer) {
  return urlError(Code::other, sentences::notHttp, url, peer);
}

NetworkError CurlFailure::networkError(const RemoteUrl& url) const {
  const CURLcode shown = meaning();
  if (shown == CURLE_OPERATION_TIMEDOUT) return noAnswer(url, peer, idleTimeout);
  if (peer.isProxy && proxyStatus >= 300 && !isLossError(lossError)) {
    const bool mayPass = isRetryableStatus(proxyStatus);
    return urlError(mayPass ? Code::cannotConnect : Code::other, sentences::proxyRefusal, url, peer,
                    fmt::format(" with status {}", proxyStatus));
  }
  if (shown == CURLE_COULDNT_CONNECT && isOutOfResources(socketError)) {
    return urlError(Code::resourceUnavailable, sentences::noSocket, url, peer, because(socketError));
  }
  if (shown == tooLargeCode) return headTooLarge(url, peer);
  if (shown == CURLE_UNSUPPORTED_PROTOCOL || shown == CURLE_WEIRD_SERVER_REPLY) return notHttp(url, peer);
  const auto known = std::ranges::find(failureTexts, shown, &FailureText::curlCode);
  if (known != failureTexts.end()) return urlError(known->code, known->text, url, peer, reason());
  return urlError(Code::other, sentences::otherFailure, url, peer,
                  fmt::format(": {}", curl_easy_strerror(code)));
}

// libcurl's code, or the one that says what it stands for here.
CURLcode CurlFailure::meaning() const {
  // A connection that ends within the TLS handshake is a lost one.
  if (code == CURLE_SSL_CONNECT_ERROR && (isHandshakeCutOff || isLossError(lossError)))
    return CURLE_RECV_ERROR;
  // So older versions report a header or status line beyond libcurl's own limit.
  if (code == CURLE_OUT_OF_MEMORY && isWithinHead) return static_cast<CURLcode>(tooLargeCode);
  return code;
}

std::string CurlFailure::reason() const {
  switch (meaning()) {
    case CURLE_COULDNT_CONNECT:
      return because(connectError);
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      if (lossError == EPIPE) return because(ECONNRESET);
      return isLossError(lossError) ? because(lossError) : "";
    case CURLE_SSL_CACERT_BADFILE:
      return caFile.empty() ? "" : " from " + caFile;
    case CURLE_SSL_CONNECT_ERROR:
      return handshakeReason.empty() ? "" : ": " + handshakeReason;
    case CURLE_PEER_FAILED_VERIFICATION: {
      // The second is where libcurl begins; a chain that does not hold has a result of its own.
      const bool isOfAnotherName = verifyResult == X509_V_OK || verifyResult == X509_V_ERR_UNSPECIFIED;
      return fmt::format(": {}", isOfAnotherName ? "it is made out to another name"
                                                 : X509_verify_cert_error_string(verifyResult));
    }
    default:
      return "";
  }
}

}  // namespace vellicor
