#include "VellicorRepackCore/Verification/VerifiedInstallReceiptWriter.h"

#include <ctime>
#include <map>
#include <utility>

#include <fmt/chrono.h>

#include "VellicorFormat/CanonicalJson.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {

namespace {

struct FileRecord {
  std::uint64_t size = 0;
  std::string sha256;
};

void writeFiles(CanonicalJson& json, const std::map<std::string, FileRecord>& files) {
  json.key("files").beginObject();
  for (const auto& [path, file] : files) {
    json.key(path).beginObject().member("sha256", file.sha256).member("size", file.size).endObject();
  }
  json.endObject();
}

}  // namespace

std::string VerifiedInstallReceiptWriter::encode(
    const std::string& outputDir, const std::string& manifestSha256, std::uint64_t manifestSize,
    const std::optional<std::string>& sourceRepoID, const std::optional<std::string>& sourceRevision,
    const std::string& toolVersion, const std::vector<RepackAudit::OutputFile>& files) {
  std::map<std::string, FileRecord> records;
  for (const RepackAudit::OutputFile& file : files) records[file.relativePath] = {file.size, file.sha256};
  records["manifest.json"] = {manifestSize, manifestSha256};

  CanonicalJson json(CanonicalJson::Layout::pretty, CanonicalJson::Slashes::plain);
  json.beginObject();
  writeFiles(json, records);
  json.member("manifestSha256", manifestSha256);
  json.member("modelDirectoryPath", standardizedPath(outputDir));
  json.member("schemaVersion", std::uint64_t{1});
  if (sourceRepoID) json.member("sourceRepoID", *sourceRepoID);
  if (sourceRevision) json.member("sourceRevision", *sourceRevision);
  json.member("toolVersion", toolVersion);
  json.member("verificationTimestamp", fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::time(nullptr))));
  json.endObject();
  return std::move(json).take();
}

}  // namespace vellicor
