#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Remote/RemoteDownloadSession.h"
#include "VellicorRepackCore/Remote/RemoteRetry.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"

namespace vellicor {

/// The hub's answer to a metadata request.
struct RemoteFileInfo {
  /// Repository-relative, as asked for.
  std::string filename;
  /// The full commit that the revision resolved to, 40 characters.
  std::string resolvedCommit;
  std::uint64_t size = 0;
  /// Raw header values, not normalised.
  std::optional<std::string> etag;
  std::optional<std::string> xetHash;
  bool acceptsRanges = false;
  bool operator==(const RemoteFileInfo&) const = default;
};

/// A local file that received one downloaded range.
struct TemporaryRangeFile {
  std::string path;
  std::uint64_t byteCount = 0;
};

/// The client of one hub repository at one revision. A value: copies are cheap and share only the session.
struct HuggingFaceRemoteSource {
  /// Owner and name joined by a slash.
  std::string repoID;
  std::string requestedRevision;
  /// When set, every URL uses it instead of the requested revision.
  std::optional<std::string> resolvedCommit;
  /// Bearer token, sent to the hub's own host only; an empty one counts as absent.
  std::optional<std::string> token;
  std::shared_ptr<RemoteDownloadSession> downloadSession;
  RemoteUrl baseURL;
  /// Where temporary range files are created.
  std::string tempDirectory;
  RemoteRetryPolicy retryPolicy;
  RetryEnvironment retryEnvironment = RetryEnvironment::production();
  CancellationToken stop;

  /// A copy whose URLs name that commit.
  HuggingFaceRemoteSource pinned(const std::string& commit) const;

  /// Throws `configurationInvalid` for a repository id or file name that is not one.
  RemoteUrl fileURL(const std::string& filename) const;

  /// Adds the common headers: no compression, and the token where it may go. Throws `configurationInvalid`
  /// for a token that no header can carry.
  void applyHeaders(HttpRequest& request) const;

  /// Refuses a repository id or a token that no request can carry, before anything is created for one.
  void requireUsable() const;

  /// One metadata request, under the retry policy.
  RemoteFileInfo resolveFileInfo(const std::string& filename, RepackAudit* audit) const;

  /// Downloads the whole file described by `info`, of at most `capBytes`, to `outputPath`, through a
  /// temporary file created with that mode.
  void fetchSmallFile(const std::string& filename, const RemoteFileInfo& info, std::uint64_t capBytes,
                      const std::string& outputPath, Posix::FileMode mode, RepackAudit* audit) const;

  /// Downloads `length` bytes from `offset` into `targetPath`, or into a fresh temporary file, under the
  /// retry policy. `progress`, when given, is called with 0 before every attempt.
  TemporaryRangeFile downloadRangeToTempFile(const std::string& filename, const RemoteFileInfo& info,
                                             std::uint64_t offset, std::int64_t length,
                                             const std::optional<std::string>& targetPath,
                                             const RemoteProgressCallback& progress,
                                             RepackAudit* audit) const;

 private:
  /// The ranged GET of [offset, last] of a file at this source's revision, with every header it needs.
  HttpRequest rangeRequest(const std::string& filename, std::uint64_t offset, std::uint64_t last) const;
  RemoteFileInfo resolveFileInfoOnce(const std::string& filename) const;
  TemporaryRangeFile downloadRangeToTempFileOnce(const std::string& filename, const RemoteFileInfo& info,
                                                 std::uint64_t offset, std::int64_t length,
                                                 const std::optional<std::string>& targetPath,
                                                 const RemoteProgressCallback& progress,
                                                 Posix::FileMode mode) const;
};

}  // namespace vellicor
