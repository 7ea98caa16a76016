#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"

#include <algorithm>
#include <limits>
#include <new>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "VellicorFormat/CanonicalJson.h"
#include "VellicorFormat/JsonReading.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {
namespace {

constexpr std::size_t digestCharacters = 64;
constexpr std::size_t commitCharacters = 40;

/// Unicode scalars of well-formed UTF-8.
std::size_t characterCount(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
  }));
}

/// The sum of one field over all ranges, or nothing when it does not fit.
std::optional<std::uint64_t> total(const std::vector<RemoteCompletedRange>& ranges,
                                   std::uint64_t RemoteCompletedRange::*field) {
  std::uint64_t sum = 0;
  for (const RemoteCompletedRange& range : ranges) {
    if (range.*field > std::numeric_limits<std::uint64_t>::max() - sum) return std::nullopt;
    sum += range.*field;
  }
  return sum;
}

bool hasValidIdentity(const RemoteInstallCheckpoint& checkpoint) {
  return checkpoint.schema == RemoteInstallCheckpoint::schemaVersion && !checkpoint.repoID.empty() &&
         !checkpoint.requestedRevision.empty() &&
         characterCount(checkpoint.resolvedCommit) == commitCharacters &&
         characterCount(checkpoint.sourceIndexSHA256) == digestCharacters &&
         characterCount(checkpoint.planFingerprint) == digestCharacters && checkpoint.totalSourceBytes > 0;
}

bool hasDistinctIds(const std::vector<RemoteCompletedRange>& ranges) {
  std::set<std::string_view> ids;
  return std::all_of(ranges.begin(), ranges.end(),
                     [&](const RemoteCompletedRange& range) { return ids.insert(range.id).second; });
}

bool isValidRange(const RemoteCompletedRange& range) {
  return !range.id.empty() && characterCount(range.destinationDigest) == digestCharacters &&
         range.sourceBytes > 0 && range.destinationBytes > 0;
}

RemoteCompletedRange decodeRange(const nlohmann::json& element, std::size_t index) {
  const JsonObject range(element, fmt::format("completedRanges[{}]", index));
  return {.id = range.string("id"),
          .destinationDigest = range.string("destinationDigest"),
          .sourceBytes = range.unsignedInteger("sourceBytes"),
          .destinationBytes = range.unsignedInteger("destinationBytes")};
}

RemoteInstallCheckpoint decodeFields(std::string_view json) {
  const JsonTree parsed = parseJson(json);
  const JsonObject document(parsed.root, "");
  RemoteInstallCheckpoint checkpoint;
  checkpoint.schema = document.integer("schema");
  checkpoint.repoID = document.string("repoID");
  checkpoint.requestedRevision = document.string("requestedRevision");
  checkpoint.resolvedCommit = document.string("resolvedCommit");
  checkpoint.sourceIndexSHA256 = document.string("sourceIndexSHA256");
  checkpoint.planFingerprint = document.string("planFingerprint");
  checkpoint.totalSourceBytes = document.unsignedInteger("totalSourceBytes");
  const nlohmann::json& ranges = document.array("completedRanges");
  checkpoint.completedRanges.reserve(ranges.size());
  for (const auto& element : ranges) {
    checkpoint.completedRanges.push_back(decodeRange(element, checkpoint.completedRanges.size()));
  }
  return checkpoint;
}

}  // namespace

RemoteInstallCheckpoint RemoteInstallCheckpoint::load(const std::string& path) {
  return decode(Posix::readBoundedData(path, maximumBytes), path);
}

void RemoteInstallCheckpoint::write(const std::string& path, const std::string& parentDirectory) const {
  validate(path);
  const std::string content = encoded();
  if (content.size() > maximumBytes) {
    throw RepackError(InstallStateCorrupt{
        .path = path, .detail = fmt::format("checkpoint exceeds {}-byte cap", maximumBytes)});
  }
  Posix::atomicWrite(content, path, parentDirectory, Posix::FileMode::ownerOnly);
}

std::string RemoteInstallCheckpoint::encoded() const {
  constexpr std::size_t fixedPartBytes = 512;
  constexpr std::size_t rangeBytes = 176;
  CanonicalJson json(CanonicalJson::Layout::compact, CanonicalJson::Slashes::escaped);
  json.reserve(fixedPartBytes + rangeBytes * completedRanges.size());
  json.beginObject().key("completedRanges").beginArray();
  for (const RemoteCompletedRange& range : completedRanges) {
    json.beginObject()
        .member("destinationBytes", range.destinationBytes)
        .member("destinationDigest", range.destinationDigest)
        .member("id", range.id)
        .member("sourceBytes", range.sourceBytes)
        .endObject();
  }
  json.endArray()
      .member("planFingerprint", planFingerprint)
      .member("repoID", repoID)
      .member("requestedRevision", requestedRevision)
      .member("resolvedCommit", resolvedCommit)
      .member("schema", schema)
      .member("sourceIndexSHA256", sourceIndexSHA256)
      .member("totalSourceBytes", totalSourceBytes)
      .endObject();
  return std::move(json).take();
}

RemoteInstallCheckpoint RemoteInstallCheckpoint::decode(std::string_view json, const std::string& path) {
  RemoteInstallCheckpoint checkpoint;
  try {
    checkpoint = decodeFields(json);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    throw RepackError(InstallStateCorrupt{.path = path, .detail = error.what()});
  }
  checkpoint.validate(path);
  return checkpoint;
}

bool RemoteInstallCheckpoint::matches(const std::string& otherRepoID, const std::string& otherRevision,
                                      const std::string& otherIndexSHA256,
                                      const std::string& otherFingerprint) const {
  return repoID == otherRepoID && requestedRevision == otherRevision &&
         sourceIndexSHA256 == otherIndexSHA256 && planFingerprint == otherFingerprint;
}

std::uint64_t RemoteInstallCheckpoint::validatedDestinationBytes(std::uint64_t maximum,
                                                                 const std::string& path) const {
  validate(path);
  const auto bytes = total(completedRanges, &RemoteCompletedRange::destinationBytes);
  if (!bytes || *bytes > maximum) {
    throw RepackError(InstallStateCorrupt{
        .path = path, .detail = "completed destination bytes exceed the installed model"});
  }
  return *bytes;
}

void RemoteInstallCheckpoint::record(RemoteCompletedRange range) {
  std::erase_if(completedRanges, [&](const RemoteCompletedRange& earlier) { return earlier.id == range.id; });
  completedRanges.push_back(std::move(range));
  std::sort(completedRanges.begin(), completedRanges.end(),
            [](const auto& left, const auto& right) { return left.id < right.id; });
}

void RemoteInstallCheckpoint::validate(const std::string& path) const {
  const auto require = [&](bool holds, const char* detail) {
    if (!holds) throw RepackError(InstallStateCorrupt{.path = path, .detail = detail});
  };
  require(hasValidIdentity(*this), "invalid checkpoint identity");
  require(hasDistinctIds(completedRanges), "invalid completed range");
  require(std::all_of(completedRanges.begin(), completedRanges.end(), isValidRange),
          "invalid completed range");
  const auto sourceBytes = total(completedRanges, &RemoteCompletedRange::sourceBytes);
  const auto destinationBytes = total(completedRanges, &RemoteCompletedRange::destinationBytes);
  require(sourceBytes && destinationBytes && *sourceBytes <= totalSourceBytes,
          "completed range byte totals are invalid");
}

}  // namespace vellicor
