#include "VellicorProgress/Advice.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <span>
#include <variant>

#include <fmt/format.h>

#include "VellicorTerminal/Escaping.h"
#include "VellicorTerminal/Units.h"

namespace vellicor {

namespace {

constexpr std::string_view installFailed = "install failed: ";
constexpr std::array failureMarks = {installFailed, std::string_view("discard failed: "),
                                     std::string_view("verification failed: ")};

std::string again(const FailureSituation& situation) {
  const std::string again = "run the same command again";
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

/// A row applies to a text that begins with `begins` and holds `holds` after it.
struct AdviceRow {
  std::string_view begins;
  std::string_view holds;
  std::variant<AdviceText, Advice (*)(std::string_view rest, const FailureSituation& situation)> advice;
};

// The first row that applies counts.
constexpr std::array installRows = {
    AdviceRow{"remote HTTP ", "", afterHttpStatus},
    AdviceRow{"remote Retry-After ", "", afterLongDelay},
    AdviceRow{"remote body for ", " was truncated: ", afterNetworkError},
    AdviceRow{"could not find the address of the proxy ", "", afterProxyError},
    AdviceRow{"could not connect to the proxy ", "", afterProxyError},
    AdviceRow{"no answer from the proxy ", "", afterProxyError},
    AdviceRow{"no secure connection to the proxy ", "", afterProxyError},
    AdviceRow{"the head of the answer of the proxy ", "", afterProxyError},
    AdviceRow{"the answer of the proxy ", "", afterProxyError},
    AdviceRow{"the connection to the proxy ", "", afterProxyError},
    AdviceRow{"the proxy ", " refused a connection to ", afterProxyRefusal},
    AdviceRow{"the proxy ", "", afterProxyError},
    AdviceRow{"", " names no proxy that can be used", afterProxyError},
    AdviceRow{"could not find the address of ", "", afterNetworkError},
    AdviceRow{"could not connect to ", "", afterNetworkError},
    AdviceRow{"could not open a connection to ", "", afterNetworkError},
    AdviceRow{"there is no network to reach ", "", afterNetworkError},
    AdviceRow{"the exchange with ", " did not end within its time", afterNetworkError},
    AdviceRow{"the exchange with ", " failed: ", afterNetworkError},
    AdviceRow{"the connection to ", " was lost", afterNetworkError},
    AdviceRow{"no answer from ", " seconds (", afterNetworkError},
    AdviceRow{"", " closed the connection w", afterNetworkError},
    AdviceRow{"the certificate of the proxy ", "", afterProxyCertificate},
    AdviceRow{"the certificate of ", " through the proxy ", afterProxyCertificate},
    AdviceRow{"the certificate of ", "", afterTlsError},
    AdviceRow{"the certificates to trust could not be read", "", afterTlsError},
    AdviceRow{"no secure connection to ", "", afterTlsError},
    AdviceRow{"insufficient disk space for ", ": required ", afterShortDisk},
    AdviceRow{"pwrite(", " short: ", afterSystemError},
    AdviceRow{"ftruncate(", " failed: ", afterSystemError},
    AdviceRow{"fsync(", " failed: ", afterSystemError},
    AdviceRow{"open(", " failed: ", afterSystemError},
    AdviceRow{"another installer holds ", "", whileBusy},
    AdviceRow{"no resumable install state exists for ", "", nothingSaved},
    AdviceRow{"install state is incompatible: saved download exists", "", savedDownload},
    AdviceRow{"install state is incompatible: ", "", uselessSave},
    AdviceRow{"install state at ", " changed after it was ", damagedFiles},
    AdviceRow{"install state at ", " bytes outside every range changed", damagedFiles},
    AdviceRow{"install state at ", " must exist together", halfState},
    AdviceRow{"install state at ", " is corrupt: ", uselessSave},
    AdviceRow{"unsafe installer path ", ": the new artifact is in place, ", oldArtifactStays},
    AdviceRow{"atomic directory promotion is unsupported for ", "", noExchange},
    AdviceRow{"configuration invalid: output directory already exists: ", "", outputExists},
    AdviceRow{"configuration invalid: HF_ENDPOINT ", "", wrongEndpoint},
    AdviceRow{"configuration invalid: the access token contains characters ", "", wrongToken},
    AdviceRow{"not enough memory", "", afterMemoryShortage},
    AdviceRow{"cancelled", "", afterCancellation},
};

// A discard and a verification have one cause in common with an install.
constexpr std::array otherRows = {AdviceRow{"another installer holds ", "", whileBusy}};

Advice fromTable(std::span<const AdviceRow> rows, std::string_view text, const FailureSituation& situation) {
  for (const AdviceRow& row : rows) {
    if (!text.starts_with(row.begins)) continue;
    const std::string_view rest = text.substr(row.begins.size());
    if (rest.find(row.holds) == std::string_view::npos) continue;
    if (const auto* advice = std::get_if<AdviceText>(&row.advice)) {
      return fmt::format(fmt::runtime(*advice), again(situation));
    }
    return std::get<1>(row.advice)(rest, situation);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> adviceFor(std::string_view errorLine, const FailureSituation& situation) {
  const auto mark = std::ranges::find_if(
      failureMarks, [&](std::string_view candidate) { return errorLine.starts_with(candidate); });
  if (mark == failureMarks.end()) return std::nullopt;
  const std::string_view text = errorLine.substr(mark->size());
  if (*mark == installFailed) return fromTable(installRows, text, situation);
  return fromTable(otherRows, text, situation);
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
