#include "VellicorRepackCore/Remote/CurlFailure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include <fmt/format.h>

#include "VellicorRepackCore/Base/Environment.h"
#include "VellicorRepackCore/Remote/RemoteHeaders.h"
#include "VellicorRepackCore/Remote/RemoteRetry.h"

namespace vellicor {

namespace {

using Code = NetworkError::Code;

// A failure of libcurl as a person reads it: {0} is the server's host and port, {1} the reason (": ..." or
// nothing), {2} the redacted URL.
struct FailureText {
  CURLcode curlCode;
  Code code;
  std::string_view text;
};
constexpr std::array failureTexts = {
    FailureText{CURLE_COULDNT_RESOLVE_HOST, Code::nameResolution, "could not find the address of {0} ({2})"},
    FailureText{CURLE_COULDNT_RESOLVE_PROXY, Code::nameResolution,
                "could not find the address of the proxy ({2})"},
    FailureText{CURLE_COULDNT_CONNECT, Code::cannotConnect, "could not connect to {0}{1} ({2})"},
    FailureText{CURLE_PROXY, Code::cannotConnect, "the proxy could not be used to connect to {0} ({2})"},
    FailureText{CURLE_GOT_NOTHING, Code::connectionLost, "{0} closed the connection without an answer ({2})"},
    FailureText{CURLE_PARTIAL_FILE, Code::connectionLost,
                "{0} closed the connection within its answer's head ({2})"},
    FailureText{CURLE_OK, Code::connectionLost, "{0} closed the connection within its answer's head ({2})"},
    FailureText{CURLE_SEND_ERROR, Code::connectionLost, "the connection to {0} was lost{1} ({2})"},
    FailureText{CURLE_RECV_ERROR, Code::connectionLost, "the connection to {0} was lost{1} ({2})"},
    FailureText{CURLE_OUT_OF_MEMORY, Code::resourceUnavailable,
                "not enough memory for the answer of {0} ({2})"},
    FailureText{CURLE_PEER_FAILED_VERIFICATION, Code::tls, "the server's certificate is not trusted{1}: {2}"},
    FailureText{CURLE_SSL_CACERT_BADFILE, Code::tls, "the certificates to trust could not be read{1} ({2})"},
    FailureText{CURLE_SSL_CONNECT_ERROR, Code::tls,
                "no secure connection to {0} could be agreed on{1} ({2})"},
    FailureText{CURLE_UNSUPPORTED_PROTOCOL, Code::other, "{0} gave an answer that is not HTTP ({2})"},
    FailureText{CURLE_WEIRD_SERVER_REPLY, Code::other, "{0} gave an answer that is not HTTP ({2})"},
};

constexpr std::string_view proxyRefusal = "the proxy refused a connection to {0}{1} ({2})";
constexpr std::string_view noSocket = "could not open a connection to {0}{1} ({2})";
constexpr std::string_view unreachedWithProxy =
    "could not connect to {0} or to the proxy that the environment names{1} ({2})";
constexpr std::string_view otherFailure = "the exchange with {0} failed{1} ({2})";

bool isOutOfResources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

constexpr std::array lostConnectionErrors = {ECONNRESET,  EPIPE,    ECONNABORTED, ETIMEDOUT,
                                             ENETUNREACH, ENETDOWN, EHOSTUNREACH};
constexpr std::array<std::string_view, 3> handshakeEndTexts = {"SSL_ERROR_SYSCALL", "SSL_ERROR_ZERO_RETURN",
                                                               "unexpected eof"};

std::string systemMessage(int error) { return std::generic_category().message(error); }

// The reason of a lost connection, which libcurl keeps in its text only.
std::optional<int> quotedError(std::string_view text) {
  for (const int error : lostConnectionErrors) {
    if (text.find(systemMessage(error)) != std::string_view::npos) return error;
  }
  return std::nullopt;
}

// ": " and what stands in `text` behind the last `mark`, or nothing.
std::string textBehind(std::string_view text, std::string_view mark) {
  const std::size_t at = text.rfind(mark);
  return at == std::string_view::npos ? "" : fmt::format(": {}", text.substr(at + mark.size()));
}

bool isProxyNamed() {
  constexpr std::array names = {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"};
  return std::ranges::any_of(names,
                             [](const char* name) { return nonEmptyEnvironmentVariable(name).has_value(); });
}

}  // namespace

NetworkError urlError(Code code, std::string_view text, const RemoteUrl& url, const std::string& reason) {
  return {code, fmt::format(fmt::runtime(text), url.authority(), reason, redactRemoteURL(url))};
}

NetworkError noAnswer(const RemoteUrl& url, std::chrono::duration<double> idleTimeout) {
  return {Code::timedOut, fmt::format("no answer from {} for {} seconds ({})", url.host(),
                                      idleTimeout.count(), redactRemoteURL(url))};
}

NetworkError headTooLarge(const RemoteUrl& url) {
  return urlError(Code::other, "the head of the answer of {0} is too large ({2})", url);
}

NetworkError CurlFailure::networkError(const RemoteUrl& url) const {
  if (proxyStatus >= 300) {
    return urlError(RemoteRetryPolicy::isRetryableStatus(proxyStatus) ? Code::cannotConnect : Code::other,
                    proxyRefusal, url, fmt::format(" with status {}", proxyStatus));
  }
  if (code == CURLE_COULDNT_CONNECT && isOutOfResources(socketError)) {
    return urlError(Code::resourceUnavailable, noSocket, url, ": " + systemMessage(socketError));
  }
  if (code == CURLE_COULDNT_CONNECT && isProxyNamed()) {
    return urlError(Code::cannotConnect, unreachedWithProxy, url, reason());
  }
  if (code == CURLE_OPERATION_TIMEDOUT) return noAnswer(url, idleTimeout);
  // So libcurl reports a single header line beyond its own limit.
  if (code == CURLE_OUT_OF_MEMORY && isWithinHead) return headTooLarge(url);
  const CURLcode shown = isCutOffHandshake() ? CURLE_SEND_ERROR : code;
  const auto known = std::ranges::find(failureTexts, shown, &FailureText::curlCode);
  if (known != failureTexts.end()) return urlError(known->code, known->text, url, reason());
  return urlError(Code::other, otherFailure, url, fmt::format(": {}", curl_easy_strerror(code)));
}

std::string CurlFailure::reason() const {
  if (code == CURLE_COULDNT_CONNECT) {
    return connectError == 0 ? "" : ": " + systemMessage(static_cast<int>(connectError));
  }
  if (code == CURLE_SSL_CACERT_BADFILE) return caFile.empty() ? "" : " from " + caFile;
  if (code == CURLE_PEER_FAILED_VERIFICATION) return textBehind(text, ": ");
  const auto error = quotedError(text);
  if (error) return ": " + systemMessage(*error);
  return code == CURLE_SSL_CONNECT_ERROR ? textBehind(text, "::") : "";
}

// A connection that ends within the TLS handshake is a lost one, though libcurl reports a failed handshake.
bool CurlFailure::isCutOffHandshake() const {
  if (code != CURLE_SSL_CONNECT_ERROR) return false;
  return quotedError(text) || std::ranges::any_of(handshakeEndTexts, [&](std::string_view end) {
           return text.find(end) != std::string::npos;
         });
}

}  // namespace vellicor
