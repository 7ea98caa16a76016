#include "VellicorRepackCore/Remote/RemoteRangeTransfer.h"

#include <utility>

#include <fmt/format.h>

#include "VellicorRepackCore/Base/AsciiText.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/FileSystem/RemovedUnlessKept.h"
#include "VellicorRepackCore/Remote/RemoteHeaders.h"

namespace vellicor {
namespace {

constexpr int statusPartialContent = 206;
constexpr std::uint64_t maximumRedirectBodyBytes = 65536;
constexpr std::chrono::seconds progressInterval{1};

/// The two pieces of a text split once at a separator, which is dropped together with any before the first
/// piece; nothing when that leaves fewer than two.
std::optional<std::pair<std::string_view, std::string_view>> splitOnce(std::string_view text,
                                                                       char separator) {
  const std::size_t start = text.find_first_not_of(separator);
  if (start == std::string_view::npos) return std::nullopt;
  text.remove_prefix(start);
  const std::size_t middle = text.find(separator);
  if (middle == std::string_view::npos || middle + 1 == text.size()) return std::nullopt;
  return std::pair(text.substr(0, middle), text.substr(middle + 1));
}

/// Whether "first-last/complete" is exactly the expected range of the expected file.
bool namesExpectedRange(std::string_view text, const RemoteRangeExpectation& expected) {
  const auto rangeAndSize = splitOnce(text, '/');
  if (!rangeAndSize) return false;
  const auto ends = splitOnce(rangeAndSize->first, '-');
  if (!ends) return false;
  const auto first = parseUnsignedDecimal(ends->first);
  const auto last = parseUnsignedDecimal(ends->second);
  const auto complete = parseUnsignedDecimal(rangeAndSize->second);
  return first && last && complete && *first == expected.offset && *last >= *first &&
         *last - *first == expected.length - 1 && *complete == expected.totalSize;
}

/// Breaks off a redirect whose body is too long to be read to its end for the sake of the connection.
struct EnoughOfRedirect {};

}  // namespace

RemoteRangeTransferDelegate::RemoteRangeTransferDelegate(std::string targetPath,
                                                         RemoteRangeExpectation expectation, int fd,
                                                         RemoteProgressCallback progress)
    : targetPath_(std::move(targetPath)),
      expectation_(std::move(expectation)),
      fd_(fd),
      progress_(std::move(progress)) {}

void RemoteRangeTransferDelegate::beginHop() {
  redirect_.reset();
  redirectBodyBytes_ = 0;
}

void RemoteRangeTransferDelegate::onResponse(const HttpResponseHead& head) {
  if (isRedirect(head)) {
    redirect_ = head;
    return;
  }
  validate(head);
  responseAccepted_ = true;
}

void RemoteRangeTransferDelegate::onData(std::span<const std::byte> bytes) {
  if (redirect_) {
    if (bytes.size() > maximumRedirectBodyBytes - redirectBodyBytes_) throw EnoughOfRedirect();
    redirectBodyBytes_ += bytes.size();
    return;
  }
  if (!responseAccepted_) return;
  const std::uint64_t total = receivedBytes_ + bytes.size();
  if (bytes.size() > expectation_.length - receivedBytes_) {
    throw RepackError(
        RemoteBodyExceeded{.path = expectation_.filename, .limit = expectation_.length, .attempted = total});
  }
  Posix::pwriteAll(fd_, targetPath_, bytes.data(), static_cast<std::int64_t>(bytes.size()), receivedBytes_);
  receivedBytes_ = total;
  reportProgress();
}

void RemoteRangeTransferDelegate::reportProgress() {
  const auto now = std::chrono::steady_clock::now();
  const bool complete = receivedBytes_ == expectation_.length;
  if (!complete && lastProgress_ && now - *lastProgress_ < progressInterval) return;
  lastProgress_ = now;
  if (progress_) progress_(receivedBytes_);
}

void RemoteRangeTransferDelegate::validate(const HttpResponseHead& response) const {
  const std::string& filename = expectation_.filename;
  const auto refuse = [](std::string detail) { throw RepackError(RemoteProtocolInvalid{std::move(detail)}); };
  if (response.status != statusPartialContent) {
    throw RepackError(RemoteHTTPResponse{.url = redactRemoteURL(response.url),
                                         .status = response.status,
                                         .retryAfter = remoteHeader(response, "Retry-After")});
  }
  const std::string encoding = remoteHeader(response, "Content-Encoding").value_or("identity");
  if (asciiLowercased(encoding) != "identity") refuse("compressed range response for " + filename);

  const std::string contentLength = remoteHeader(response, "Content-Length").value_or("");
  if (parseUnsignedDecimal(contentLength) != expectation_.length) {
    refuse("wrong Content-Length for " + filename);
  }

  const auto contentRange = remoteHeader(response, "Content-Range");
  if (!contentRange) throw RepackError(RemoteProtocolInvalid{"missing Content-Range for " + filename});
  constexpr std::string_view unit = "bytes ";
  if (!contentRange->starts_with(unit)) refuse("malformed Content-Range " + *contentRange);
  if (!namesExpectedRange(std::string_view(*contentRange).substr(unit.size()), expectation_)) {
    refuse("wrong Content-Range " + *contentRange);
  }

  if (!expectation_.xetHash) return;
  const auto validator = normalizedStrongETag(remoteHeader(response, "ETag"));
  if (validator != asciiLowercased(*expectation_.xetHash)) {
    refuse("final ranged validator differs for " + filename);
  }
}

RemoteRangeTransferResult RemoteRangeTransferDelegate::finish() const {
  if (!responseAccepted_) {
    throw RepackError(RemoteProtocolInvalid{
        fmt::format("range {} completed without an accepted response", expectation_.filename)});
  }
  if (receivedBytes_ != expectation_.length) {
    throw RepackError(RemoteBodyTruncated{
        .path = expectation_.filename, .expected = expectation_.length, .actual = receivedBytes_});
  }
  return {.path = targetPath_, .byteCount = receivedBytes_};
}

RemoteRangeTransferResult RemoteRangeTransfer::run(HttpTransport& transport, const HttpHopLimits& limits,
                                                   const HttpRequest& request, const std::string& targetPath,
                                                   const RemoteRangeExpectation& expectation,
                                                   int maximumRedirects,
                                                   const RemoteProgressCallback& progress,
                                                   const CancellationToken& stop, Posix::FileMode mode) {
  Posix::mkdir(parentPath(targetPath));
  const FileDescriptor fd = Posix::openCreateExclusive(targetPath, mode);
  RemovedUnlessKept target(targetPath);

  RemoteRangeTransferDelegate delegate(targetPath, expectation, fd.get(), progress);
  RemoteRedirectPolicy redirects(request, maximumRedirects);
  HttpRequest hop = request;
  for (;;) {
    throwIfCancelled(stop);
    delegate.beginHop();
    try {
      transport.perform(hop, limits, delegate, stop);
    } catch (const EnoughOfRedirect&) {
      // The head says where to go; only the connection is not kept.
    }
    const auto& redirect = delegate.redirect();
    if (!redirect) break;
    hop = redirects.request(*redirect, redirectTarget(*redirect));
  }
  RemoteRangeTransferResult result = delegate.finish();
  target.keep();
  return result;
}

}  // namespace vellicor
