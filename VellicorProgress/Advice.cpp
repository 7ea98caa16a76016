#include "VellicorProgress/Advice.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <span>
#include <variant>

#include <fmt/format.h>

#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/NetworkSentences.h"
#include "VellicorTerminal/Escaping.h"
#include "VellicorTerminal/Units.h"

namespace vellicor {

namespace {

constexpr std::string_view installFailed = "install failed: ";
constexpr std::array failureMarks = {installFailed, std::string_view("discard failed: "),
                                     std::string_view("verification failed: ")};

std::string again(const FailureSituation& situation) {
  std::string again = "run the same command again";
  if (situation.isResume || situation.reached == Viewer::Reached::nothing) return again;
  // Before the copying nothing is saved, but the partial directory is in the way.
  return situation.reached == Viewer::Reached::copying
             ? again + " with --resume"
             : "remove the partial download with --discard-partial and " + again;
}

std::optional<std::uint64_t> numberAt(std::string_view text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end == text.data()) return std::nullopt;
  return number;
}

// The number after the last `mark`. The text before it is not trusted.
std::optional<std::uint64_t> numberAfter(std::string_view text, std::string_view mark) {
  const std::size_t at = text.rfind(mark);
  return at == std::string_view::npos ? std::nullopt : numberAt(text.substr(at + mark.size()));
}

// "{}" is what `again` says.
using AdviceText = std::string_view;
constexpr AdviceText afterNetworkError = "check the network, then {}";
constexpr AdviceText afterProxyError = "fix or unset the proxy (see https_proxy and no_proxy), then {}";
constexpr AdviceText afterTlsError = "fix or unset SSL_CERT_FILE and check the clock, then {}";
constexpr AdviceText afterProxyCertificate =
    "add the certificates of the proxy's authority to SSL_CERT_FILE, then {}";
constexpr AdviceText afterLongDelay = "wait as long as the hub asks, then {}";
constexpr AdviceText afterMemoryShortage = "free some memory, then {}";
constexpr AdviceText afterCancellation = "{}";
constexpr AdviceText damagedFiles =
    "another program or a failing disk changed the files: fix the cause, then {}";
constexpr AdviceText whileBusy =
    "another installer is working on this output: wait until it ends, or stop it";
constexpr AdviceText nothingSaved = "there is nothing to continue: run the same command without --resume";
constexpr AdviceText savedDownload =
    "continue the saved download with --resume, or remove it with --discard-partial";
constexpr AdviceText uselessSave =
    "remove the saved download with --discard-partial, then install again without --resume";
constexpr AdviceText halfState =
    "remove the rest with --discard-partial, then install again without --resume, unless --overwrite "
    "has put the new artifact in place already";
constexpr AdviceText oldArtifactStays =
    "the install is done: remove the rest of the old artifact with --discard-partial";
constexpr AdviceText outputExists = "replace the output with --overwrite, or name another --output";
constexpr AdviceText wrongToken = "copy the token into HF_TOKEN again, without white space or line end";
constexpr AdviceText wrongEndpoint = "set HF_ENDPOINT to an https URL, or unset it for the usual hub";

// These depend on the rest of the error's text.
using Advice = std::optional<std::string>;

Advice afterHttpStatus(std::string_view text, const FailureSituation& situation) {
  const std::uint64_t status = numberAt(text).value_or(0);
  if (status == 401 || status == 403) {
    return "set HF_TOKEN to a token with access to the model, then " + again(situation);
  }
  const bool passes = status == 408 || status == 429 || (status >= 500 && status <= 599);
  if (!passes) return std::nullopt;
  return "the hub is busy or out of order: wait a while, then " + again(situation);
}

Advice noAdvice(std::string_view, const FailureSituation&) { return std::nullopt; }

Advice afterShortDisk(std::string_view text, const FailureSituation& situation) {
  const auto required = numberAfter(text, ": required ");
  const auto available = numberAfter(text, ", available ");
  if (!required || !available || *required <= *available) return std::nullopt;
  const std::uint64_t missing = *required - *available;
  const std::string path = escaped(text.substr(0, text.rfind(": required ")));
  return fmt::format("free at least {} bytes ({}) on the disk of {}, then {}", missing, bytesText(missing),
                     path, again(situation));
}

Advice afterSystemError(std::string_view text, const FailureSituation& situation) {
  const auto error = numberAfter(text, "errno ");
  if (!error) return std::nullopt;
  const bool isFull = *error == ENOSPC || *error == EDQUOT;
  if (isFull) return "the disk or its quota is full: free space, then " + again(situation);
  if (*error == EFBIG) return "the limit on file sizes is too low: raise it, then " + again(situation);
  return std::nullopt;
}

Advice afterProxyRefusal(std::string_view text, const FailureSituation& situation) {
  if (numberAfter(text, " with status ") != 407) return fmt::format(afterProxyError, again(situation));
  return "put a user name and password for the proxy into https_proxy, then " + again(situation);
}

Advice noExchange(std::string_view text, const FailureSituation& situation) {
  if (numberAfter(text, "errno ") == EBUSY) {
    return "the output is a mount point and cannot be replaced: name a directory inside it";
  }
  const bool isSaved = situation.isResume || situation.reached == Viewer::Reached::copying;
  return fmt::format(
      "this file system cannot exchange directories: move the old output away, then run {}without "
      "--overwrite",
      isSaved ? "with --resume and " : "");
}

using Answer = std::variant<AdviceText, Advice (*)(std::string_view rest, const FailureSituation& situation)>;

/// A row applies to an error of that format, and of that detail if one is named.
struct AdviceRow {
  std::string_view format;
  Answer advice;
  std::string_view detail{};
};

/// The same for a network error, with another answer when the peer is a proxy or a proxy is on the way.
struct NetworkRow {
  std::string_view format;
  Answer advice;
  Answer proxyAdvice = afterProxyError;
};

namespace sentences = network_sentences;

constexpr std::array networkRows = {
    NetworkRow{sentences::addressNotFound, afterNetworkError},
    NetworkRow{sentences::cannotConnect, afterNetworkError},
    NetworkRow{sentences::noSocket, afterNetworkError},
    NetworkRow{sentences::noNetwork, afterNetworkError},
    NetworkRow{sentences::proxyRefusal, afterProxyError, afterProxyRefusal},
    NetworkRow{sentences::uselessProxy, afterProxyError},
    NetworkRow{sentences::invalidProxy, afterProxyError},
    NetworkRow{sentences::closedBeforeAnswer, afterNetworkError},
    NetworkRow{sentences::closedWithinHead, afterNetworkError},
    NetworkRow{sentences::connectionLost, afterNetworkError},
    NetworkRow{sentences::noAnswer, afterNetworkError},
    NetworkRow{sentences::outOfTime, afterNetworkError},
    NetworkRow{sentences::otherFailure, afterNetworkError},
    NetworkRow{sentences::headTooLarge, noAdvice},
    NetworkRow{sentences::answerTooLarge, noAdvice},
    NetworkRow{sentences::notHttp, noAdvice},
    NetworkRow{sentences::untrusted, afterTlsError, afterProxyCertificate},
    NetworkRow{sentences::noTrustedCertificates, afterTlsError, afterTlsError},
    NetworkRow{sentences::noSecureConnection, afterTlsError},
};

constexpr std::array installRows = {
    AdviceRow{RemoteHTTPResponse::format, afterHttpStatus},
    AdviceRow{RemoteRetryDelayExceeded::format, afterLongDelay},
    AdviceRow{RemoteBodyTruncated::format, afterNetworkError},
    AdviceRow{DiskSpaceInsufficient::format, afterShortDisk},
    AdviceRow{PwriteShort::format, afterSystemError},
    AdviceRow{FtruncateFailed::format, afterSystemError},
    AdviceRow{FsyncFailed::format, afterSystemError},
    AdviceRow{FileOpenFailed::format, afterSystemError},
    AdviceRow{InstallBusy::format, whileBusy},
    AdviceRow{InstallStateMissing::format, nothingSaved},
    AdviceRow{InstallStateIncompatible::format, savedDownload, InstallStateIncompatible::savedDownloadExists},
    AdviceRow{InstallStateIncompatible::format, uselessSave},
    AdviceRow{InstallStateCorrupt::format, damagedFiles, InstallStateCorrupt::rangeChanged},
    AdviceRow{InstallStateCorrupt::format, damagedFiles, InstallStateCorrupt::fileChanged},
    AdviceRow{InstallStateCorrupt::format, damagedFiles, InstallStateCorrupt::paddingChanged},
    AdviceRow{InstallStateCorrupt::format, halfState, InstallStateCorrupt::halfThere},
    AdviceRow{InstallStateCorrupt::format, uselessSave},
    AdviceRow{InstallPathUnsafe::format, oldArtifactStays, InstallPathUnsafe::oldArtifactStays},
    AdviceRow{PromotionUnsupported::format, noExchange},
    AdviceRow{ConfigurationInvalid::format, outputExists, ConfigurationInvalid::outputExists},
    AdviceRow{ConfigurationInvalid::format, wrongEndpoint, ConfigurationInvalid::invalidEndpoint},
    AdviceRow{ConfigurationInvalid::format, wrongToken, ConfigurationInvalid::invalidToken},
    AdviceRow{"not enough memory", afterMemoryShortage},
    AdviceRow{"cancelled", afterCancellation},
};

// A discard and a verification have one cause in common with an install.
constexpr std::array otherRows = {AdviceRow{InstallBusy::format, whileBusy}};

/// Whether the text holds the literal pieces of the format in their order; the rest of the text after the
/// first piece, which it must begin with, or nothing.
std::optional<std::string_view> afterFormat(std::string_view text, std::string_view format) {
  const std::string_view begin = format.substr(0, format.find('{'));
  if (!text.starts_with(begin)) return std::nullopt;
  const std::string_view rest = text.substr(begin.size());
  std::size_t at = 0;
  for (format.remove_prefix(begin.size()); !format.empty();) {
    format.remove_prefix(format.find('}') + 1);
    const std::string_view piece = format.substr(0, format.find('{'));
    at = rest.find(piece, at);
    if (at == std::string_view::npos) return std::nullopt;
    at += piece.size();
    format.remove_prefix(piece.size());
  }
  return rest;
}

bool holdsDetail(std::string_view rest, std::string_view detail) {
  const std::size_t slot = detail.find('{');
  return rest.find(slot == 0 ? detail.substr(detail.find('}') + 1) : detail.substr(0, slot)) !=
         std::string_view::npos;
}

Advice given(const Answer& answer, std::string_view rest, const FailureSituation& situation) {
  if (const auto* advice = std::get_if<AdviceText>(&answer)) {
    return fmt::format(fmt::runtime(*advice), again(situation));
  }
  return std::get<1>(answer)(rest, situation);
}

/// The advice of the first row that applies, if one does.
std::optional<Advice> fromTable(std::span<const AdviceRow> rows, std::string_view text,
                                const FailureSituation& situation) {
  for (const AdviceRow& row : rows) {
    const auto rest = afterFormat(text, row.format);
    if (rest && holdsDetail(*rest, row.detail)) return given(row.advice, *rest, situation);
  }
  return std::nullopt;
}

Advice afterInstall(std::string_view text, const FailureSituation& situation) {
  if (const auto advice = fromTable(installRows, text, situation)) return *advice;
  for (const NetworkRow& row : networkRows) {
    const auto rest = afterFormat(text, row.format);
    if (!rest) continue;
    const bool isProxys = rest->starts_with("the proxy ") || rest->find(" through the proxy ") != rest->npos;
    return given(isProxys ? row.proxyAdvice : row.advice, *rest, situation);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> adviceFor(std::string_view errorLine, const FailureSituation& situation) {
  const auto mark = std::ranges::find_if(
      failureMarks, [&](std::string_view candidate) { return errorLine.starts_with(candidate); });
  if (mark == failureMarks.end()) return std::nullopt;
  const std::string_view text = errorLine.substr(mark->size());
  if (*mark == installFailed) return afterInstall(text, situation);
  return fromTable(otherRows, text, situation).value_or(std::nullopt);
}

std::optional<std::string> adviceAfterSignal(const FailureSituation& situation) {
  if (situation.reached == Viewer::Reached::nothing) return std::nullopt;
  return again(situation);
}

void ErrorLineKeeper::feed(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t end = std::min(bytes.find('\n'), bytes.size());
    line_.append(bytes.substr(0, std::min(end, maximumLineBytes - line_.size())));
    if (end == bytes.size()) return;
    endLine();
    bytes.remove_prefix(end + 1);
  }
}

void ErrorLineKeeper::endLine() {
  const bool saysSo =
      std::ranges::any_of(failureMarks, [&](std::string_view mark) { return line_.starts_with(mark); });
  if (saysSo) kept_ = line_;
  line_.clear();
}

}  // namespace vellicor
