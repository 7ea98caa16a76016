#include "VellicorRepackCore/Remote/HuggingFaceRemote.h"

#include <algorithm>
#include <limits>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "VellicorRepackCore/Base/AsciiText.h"
#include "VellicorRepackCore/Base/Random.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/FileSystem/RemovedUnlessKept.h"
#include "VellicorRepackCore/Remote/RemoteHeaders.h"
#include "VellicorRepackCore/Source/IndexLoader.h"

namespace vellicor {
namespace {

constexpr std::size_t fullCommitLength = 40;

/// The pieces between slashes, without the empty ones.
std::vector<std::string_view> pathPieces(std::string_view path) {
  std::vector<std::string_view> pieces;
  while (!path.empty()) {
    const std::string_view piece = path.substr(0, path.find('/'));
    if (!piece.empty()) pieces.push_back(piece);
    path.remove_prefix(std::min(piece.size() + 1, path.size()));
  }
  return pieces;
}

bool holdsTwoDots(std::string_view text) { return text.find("..") != std::string_view::npos; }

void validateRepoID(const std::string& repoID) {
  const auto pieces = pathPieces(repoID);
  if (pieces.size() == 2 && std::none_of(pieces.begin(), pieces.end(), holdsTwoDots)) return;
  throw RepackError(ConfigurationInvalid{"invalid repo id " + repoID});
}

void validateFilename(const std::string& filename) {
  const bool valid = !filename.empty() && !filename.starts_with('/') && !holdsTwoDots(filename) &&
                     filename.find_first_of("?#") == std::string::npos;
  if (!valid) throw RepackError(ConfigurationInvalid{"invalid remote filename " + filename});
}

RemoteUrl appendingPieces(RemoteUrl url, std::string_view path) {
  for (const std::string_view piece : pathPieces(path)) url = url.appendingPathComponent(piece);
  return url;
}

bool isVisibleASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= '!' && c <= '~'; });
}

std::uint64_t remoteSize(const HttpResponseHead& head, const std::string& filename) {
  const auto number = [&](std::string_view name) {
    return parseUnsignedDecimal(remoteHeader(head, name).value_or(""));
  };
  if (const auto linked = number("X-Linked-Size")) return *linked;
  if (head.status >= 200 && head.status <= 299) {
    if (const auto length = number("Content-Length")) return *length;
  }
  throw RepackError(RemoteProtocolInvalid{"missing remote size for " + filename});
}

/// The last byte of a range of at least one byte, which must lie within the file.
std::uint64_t lastOfRange(const std::string& filename, const RemoteFileInfo& info, std::uint64_t offset,
                          std::uint64_t length) {
  if (length - 1 > std::numeric_limits<std::uint64_t>::max() - offset) {
    throw RepackError(
        RemoteProtocolInvalid{fmt::format("range of {} bytes from {} exceeds {}", length, offset, filename)});
  }
  const std::uint64_t last = offset + (length - 1);
  if (last >= info.size) {
    throw RepackError(RemoteProtocolInvalid{fmt::format("range {}-{} exceeds {}", offset, last, filename)});
  }
  return last;
}

/// Moves a complete download into place, over a regular file or nothing.
void installDownload(const std::string& temporaryPath, const std::string& outputPath) {
  Posix::mkdir(parentPath(outputPath));
  const Posix::EntryKind kind = Posix::entryKind(outputPath);
  if (kind != Posix::EntryKind::absent && kind != Posix::EntryKind::regular) {
    throw RepackError(
        InstallPathUnsafe{.path = outputPath, .detail = "metadata destination has the wrong entry type"});
  }
  Posix::rename(temporaryPath, outputPath);
}

}  // namespace

HuggingFaceRemoteSource HuggingFaceRemoteSource::pinned(const std::string& commit) const {
  HuggingFaceRemoteSource copy = *this;
  copy.resolvedCommit = commit;
  return copy;
}

RemoteUrl HuggingFaceRemoteSource::fileURL(const std::string& filename) const {
  validateRepoID(repoID);
  validateFilename(filename);
  const RemoteUrl revision = appendingPieces(baseURL, repoID)
                                 .appendingPathComponent("resolve")
                                 .appendingPathComponent(resolvedCommit.value_or(requestedRevision));
  return appendingPieces(revision, filename);
}

void HuggingFaceRemoteSource::applyHeaders(HttpRequest& request) const {
  request.headers.set("Accept-Encoding", "identity");
  if (!token || token->empty()) return;
  if (!isVisibleASCII(*token)) {
    throw RepackError(ConfigurationInvalid{std::string(ConfigurationInvalid::invalidToken)});
  }
  if (request.url.host() == baseURL.host()) request.headers.set("Authorization", "Bearer " + *token);
}

void HuggingFaceRemoteSource::requireUsable() const {
  HttpRequest request{.url = fileURL(IndexLoader::indexFilename), .headers = {}};
  applyHeaders(request);
}

HttpRequest HuggingFaceRemoteSource::rangeRequest(const std::string& filename, std::uint64_t offset,
                                                  std::uint64_t last) const {
  HttpRequest request{.url = fileURL(filename), .method = "GET", .headers = {}};
  request.headers.set("Range", fmt::format("bytes={}-{}", offset, last));
  applyHeaders(request);
  return request;
}

RemoteFileInfo HuggingFaceRemoteSource::resolveFileInfo(const std::string& filename,
                                                        RepackAudit* audit) const {
  return withRemoteRetries(retryPolicy, "resolveFileInfo:" + filename, audit, retryEnvironment, stop,
                           [&] { return resolveFileInfoOnce(filename); });
}

RemoteFileInfo HuggingFaceRemoteSource::resolveFileInfoOnce(const std::string& filename) const {
  HttpRequest request{.url = fileURL(filename), .method = "HEAD", .headers = {}};
  applyHeaders(request);
  const auto answer = downloadSession->response(request, stop);
  if (!answer.head) throw RepackError(RemoteProtocolInvalid{"missing HTTP response for " + filename});
  const HttpResponseHead& head = *answer.head;
  if (head.status < 200 || head.status > 399) {
    throw RepackError(RemoteHTTPResponse{.url = redactRemoteURL(head.url),
                                         .status = head.status,
                                         .retryAfter = remoteHeader(head, "Retry-After")});
  }

  auto commit = remoteHeader(head, "X-Repo-Commit");
  if (!commit) commit = resolvedCommit;
  if (!commit || commit->size() != fullCommitLength || !isVisibleASCII(*commit)) {
    throw RepackError(RemoteProtocolInvalid{"missing full X-Repo-Commit for " + filename});
  }
  const std::uint64_t size = remoteSize(head, filename);
  auto etag = remoteHeader(head, "X-Linked-ETag");
  if (!etag) etag = remoteHeader(head, "ETag");
  const std::string ranges = asciiLowercased(remoteHeader(head, "Accept-Ranges").value_or(""));
  return {.filename = filename,
          .resolvedCommit = *commit,
          .size = size,
          .etag = etag,
          .xetHash = remoteHeader(head, "X-Xet-Hash"),
          .acceptsRanges = ranges.find("bytes") != std::string::npos};
}

void HuggingFaceRemoteSource::fetchSmallFile(const std::string& filename, const RemoteFileInfo& info,
                                             std::uint64_t capBytes, const std::string& outputPath,
                                             Posix::FileMode mode, RepackAudit* audit) const {
  if (info.size > capBytes)
    throw RepackError(RemoteFileTooLarge{.path = filename, .size = info.size, .cap = capBytes});
  withRemoteRetries(retryPolicy, "fetchSmallFile:" + filename, audit, retryEnvironment, stop, [&] {
    RemovedUnlessKept temporary(downloadRangeToTempFileOnce(filename, info, 0,
                                                            static_cast<std::int64_t>(info.size),
                                                            std::nullopt, nullptr, mode)
                                    .path);
    installDownload(temporary.path(), outputPath);
    temporary.keep();
  });
}

TemporaryRangeFile HuggingFaceRemoteSource::downloadRangeToTempFile(
    const std::string& filename, const RemoteFileInfo& info, std::uint64_t offset, std::int64_t length,
    const std::optional<std::string>& targetPath, const RemoteProgressCallback& progress,
    RepackAudit* audit) const {
  constexpr auto mode = Posix::FileMode::ownerOnly;
  return withRemoteRetries(
      retryPolicy, "downloadRangeToTempFile:" + filename, audit, retryEnvironment, stop, [&] {
        if (progress) progress(0);
        return downloadRangeToTempFileOnce(filename, info, offset, length, targetPath, progress, mode);
      });
}

TemporaryRangeFile HuggingFaceRemoteSource::downloadRangeToTempFileOnce(
    const std::string& filename, const RemoteFileInfo& info, std::uint64_t offset, std::int64_t length,
    const std::optional<std::string>& targetPath, const RemoteProgressCallback& progress,
    Posix::FileMode mode) const {
  if (length < 0) throw RepackError(RemoteProtocolInvalid{"negative range length"});
  const std::string target =
      targetPath ? *targetPath : joinPath(tempDirectory, "vellicor-range-" + randomUuid() + ".tmp");
  if (length == 0) {
    Posix::mkdir(parentPath(target));
    Posix::removeTree(target);
    Posix::openCreateExclusive(target, mode);
    return {.path = target, .byteCount = 0};
  }

  const auto count = static_cast<std::uint64_t>(length);
  const std::uint64_t last = lastOfRange(filename, info, offset, count);
  const HttpRequest request = pinned(info.resolvedCommit).rangeRequest(filename, offset, last);
  Posix::mkdir(tempDirectory);
  const RemoteRangeExpectation expectation{.filename = filename,
                                           .offset = offset,
                                           .length = count,
                                           .totalSize = info.size,
                                           .xetHash = info.xetHash};
  const auto result = downloadSession->transfer(request, target, expectation, progress, stop, mode);
  return {.path = result.path, .byteCount = result.byteCount};
}

}  // namespace vellicor
