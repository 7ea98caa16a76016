#include "VellicorRepackCore/Verification/VerifiedInstallReceiptWriter.h"

#include <ctime>
#include <map>
#include <utility>

#include <fmt/chrono.h>

#include "VellicorFormat/CanonicalJson.h"
#include "VellicorFormat/MorlenManifestV1.h"
#include "VellicorFormat/Unicode.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {

std::string VerifiedInstallReceiptWriter::encode(
    const std::string& outputDir, const std::string& manifestSha256, std::uint64_t manifestSize,
    const std::optional<std::string>& sourceRepoID, const std::optional<std::string>& sourceRevision,
    const std::string& toolVersion, const std::vector<RepackAudit::OutputFile>& files) {
  std::map<std::string, MorlenManifestFileV1> records;
  for (const RepackAudit::OutputFile& file : files) records[file.relativePath] = {file.size, file.sha256};
  records[MorlenFormatV1::manifestPath] = {manifestSize, manifestSha256};

  CanonicalJson json(CanonicalJson::Layout::pretty, CanonicalJson::Slashes::plain);
  json.beginObject();
  writeManifestFiles(json.key("files"), records);
  json.member("manifestSha256", manifestSha256);
  json.member("modelDirectoryPath", repairedUtf8(standardizedPath(outputDir)));
  json.member("schemaVersion", std::uint64_t{1});
  if (sourceRepoID) json.member("sourceRepoID", *sourceRepoID);
  if (sourceRevision) json.member("sourceRevision", *sourceRevision);
  json.member("toolVersion", toolVersion);
  json.member("verificationTimestamp", fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::time(nullptr))));
  json.endObject();
  return std::move(json).take();
}

}  // namespace vellicor
