#pragma once

#include <string_view>

// The sentences of `NetworkError`, as formats: {0} is the peer, a server or "the proxy HOST:PORT"; {1} the
// reason, ": ..." or nothing; {2} the redacted URL; {3} the server's host and port; {4} " through the proxy "
// and its name, or nothing.
namespace vellicor::network_sentences {

inline constexpr std::string_view addressNotFound = "could not find the address of {0} ({2})";
inline constexpr std::string_view cannotConnect = "could not connect to {0}{1} ({2})";
inline constexpr std::string_view noSocket = "could not open a connection to {0}{1} ({2})";
inline constexpr std::string_view noNetwork = "there is no network to reach {0} ({2})";
inline constexpr std::string_view proxyRefusal = "{0} refused a connection to {3}{1} ({2})";
inline constexpr std::string_view uselessProxy = "{0} could not be used to connect to {3} ({2})";
inline constexpr std::string_view closedBeforeAnswer = "{0} closed the connection without an answer ({2})";
inline constexpr std::string_view closedWithinHead =
    "{0} closed the connection within its answer's head ({2})";
inline constexpr std::string_view connectionLost = "the connection to {0} was lost{1} ({2})";
/// {1} is a number of seconds here.
inline constexpr std::string_view noAnswer = "no answer from {0} for {1} seconds ({2})";
inline constexpr std::string_view outOfTime = "the exchange with {0} did not end within its time ({2})";
inline constexpr std::string_view otherFailure = "the exchange with {0} failed{1} ({2})";
inline constexpr std::string_view noMemory = "not enough memory for the answer of {0} ({2})";
inline constexpr std::string_view headTooLarge = "the head of the answer of {0} is too large ({2})";
inline constexpr std::string_view answerTooLarge = "the answer of {0} is too large ({2})";
inline constexpr std::string_view notHttp = "{0} gave an answer that is not HTTP ({2})";
inline constexpr std::string_view untrusted = "the certificate of {0}{4} is not trusted{1} ({2})";
inline constexpr std::string_view noTrustedCertificates =
    "the certificates to trust could not be read{1} ({2})";
inline constexpr std::string_view noSecureConnection =
    "no secure connection to {0} could be agreed on{1} ({2})";
inline constexpr std::string_view asksForCertificate = "{0} asks for a certificate of this side ({2})";
inline constexpr std::string_view onlyHttps = "only HTTPS addresses are fetched ({2})";
/// {0} is an environment variable here, and {1} the redacted URL.
inline constexpr std::string_view invalidProxy = "{0} names no proxy that can be used ({1})";

}  // namespace vellicor::network_sentences
