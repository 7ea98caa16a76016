#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vellicor {

/// One range request whose bytes are in place, durable, and identified by a digest.
struct RemoteCompletedRange {
  /// The request's id in the plan.
  std::string id;
  /// 64 lower-case hexadecimal digits over the copy's mapping and the bytes it wrote.
  std::string destinationDigest;
  std::uint64_t sourceBytes = 0;
  std::uint64_t destinationBytes = 0;
  bool operator==(const RemoteCompletedRange&) const = default;
};

// <output>.resume.json: which source and which plan the partial directory belongs to, and every range
// finished so far. One compact JSON object with sorted keys and escaped slashes, replaced atomically after
// every range.
struct RemoteInstallCheckpoint {
  static constexpr std::int64_t schemaVersion = 1;
  /// The largest checkpoint that is read or written.
  static constexpr std::uint64_t maximumBytes = 8388608;

  std::int64_t schema = schemaVersion;
  std::string repoID;
  std::string requestedRevision;
  /// The 40-character commit that the download is pinned to.
  std::string resolvedCommit;
  std::string sourceIndexSHA256;
  std::string planFingerprint;
  /// The sum of all range request sizes.
  std::uint64_t totalSourceBytes = 0;
  /// Sorted by id, each id once.
  std::vector<RemoteCompletedRange> completedRanges;

  bool operator==(const RemoteInstallCheckpoint&) const = default;

  /// Throws the file errors of a bounded read, or `installStateCorrupt`.
  static RemoteInstallCheckpoint load(const std::string& path);

  /// Validates, then replaces the file atomically and durably; a failed write leaves the previous file in
  /// place.
  void write(const std::string& path, const std::string& parentDirectory) const;

  /// The file's content, without validation.
  std::string encoded() const;
  /// Parses and validates; `path` names the file in errors.
  static RemoteInstallCheckpoint decode(std::string_view json, const std::string& path);

  bool matches(const std::string& otherRepoID, const std::string& otherRevision,
               const std::string& otherIndexSHA256, const std::string& otherFingerprint) const;

  /// The sum of `destinationBytes`. Throws `installStateCorrupt` when it overflows or exceeds `maximum`.
  std::uint64_t validatedDestinationBytes(std::uint64_t maximum, const std::string& path) const;

  /// Adds a range, replacing an earlier one of the same id, and keeps the order.
  void record(RemoteCompletedRange range);

  /// Throws `installStateCorrupt` naming `path`.
  void validate(const std::string& path) const;
};

}  // namespace vellicor
