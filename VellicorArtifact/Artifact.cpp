#include "VellicorArtifact/Artifact.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <span>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "VellicorArtifact/FormatErrors.h"
#include "VellicorFormat/JsonReading.h"

namespace vellicor {

namespace {

/// A receipt repeats the manifest's list of files and adds a path.
constexpr std::uint64_t maximumReceiptBytes = 2 * MorlenFormatV1::manifestMaxBytes;

[[noreturn]] void refuse(std::string detail) { throw RepackError(ConfigurationInvalid{std::move(detail)}); }

void checkListedFiles(const MorlenDirectoryAccess& directory, const MorlenManifestV1& manifest) {
  for (const auto& [path, listed] : manifest.files) {
    requireListedSize(path, directory.fileSize(path), listed);
  }
}

/// The first `bytes` of an open file, or all of it if it is shorter.
std::string readHead(const MorlenDirectoryAccess& directory, int fd, std::uint64_t fileSize,
                     std::uint64_t bytes) {
  std::string head(std::min(fileSize, bytes), '\0');
  Posix::preadAll(fd, joinPath(directory.rootPath(), MorlenFormatV1::weightsPath), head.data(),
                  static_cast<std::int64_t>(head.size()), 0);
  return head;
}

void readResidentIndex(Artifact& artifact) {
  const auto listed = artifact.manifest().files.find(MorlenFormatV1::weightsPath);
  if (listed == artifact.manifest().files.end()) {
    refuse(std::string("manifest missing ") + MorlenFormatV1::weightsPath);
  }
  const FileDescriptor file = artifact.directory.openFile(MorlenFormatV1::weightsPath);
  const std::uint64_t size = artifact.directory.fileSize(file.get(), MorlenFormatV1::weightsPath);
  requireListedSize(MorlenFormatV1::weightsPath, size, listed->second);

  const auto read = [&](std::uint64_t bytes) {
    return readHead(artifact.directory, file.get(), size, bytes);
  };
  const std::uint64_t declaredSize =
      withFormatErrors(std::string(MorlenFormatV1::weightsPath) + " invalid", [&] {
        const std::string head = read(MorlenFormatV1::residentHeaderBytes);
        const auto header = MorlenResidentIndexCodec::decodeHeader(std::as_bytes(std::span(head)));
        const std::string region = read(std::min(header.indexSize, MorlenFormatV1::residentIndexMaxBytes));
        artifact.resident = MorlenResidentIndexCodec::decodeRegion(std::as_bytes(std::span(region)), header);
        artifact.indexSize = header.indexSize;
        return morlenCheckedAdd(header.indexSize, header.residentSize, "resident.payload");
      });
  if (size != declaredSize) {
    refuse(fmt::format("{} size {} != resident index {}", MorlenFormatV1::weightsPath, size, declaredSize));
  }
}

void readReceipt(Artifact& artifact) try {
  const JsonTree json =
      parseJson(artifact.directory.readMetadata(MorlenFormatV1::receiptPath, maximumReceiptBytes));
  const JsonObject receipt(json.root, "");
  artifact.receipt = {.sourceRepoID = receipt.optionalString("sourceRepoID"),
                      .sourceRevision = receipt.optionalString("sourceRevision"),
                      .toolVersion = receipt.optionalString("toolVersion"),
                      .verificationTimestamp = receipt.optionalString("verificationTimestamp")};
} catch (const RepackError& error) {
  const auto* failed = error.as<FileStatFailed>();
  const bool isMissing = failed != nullptr && failed->errnoValue == ENOENT;
  artifact.receiptProblem = isMissing ? "there is none" : error.description();
} catch (const JsonDecodingError& error) {
  artifact.receiptProblem = error.what();
}

}  // namespace

std::optional<std::string> Artifact::revision() const {
  if (!receipt || receipt->sourceRevision == manifest().sourceSnapshotHash) return std::nullopt;
  return receipt->sourceRevision;
}

Artifact Artifact::open(const std::string& path) {
  MorlenDirectoryAccess directory(path);
  ArtifactMetadata metadata = ArtifactMetadata::read(directory);
  Artifact artifact{std::move(directory), std::move(metadata)};
  checkListedFiles(artifact.directory, artifact.manifest());
  readResidentIndex(artifact);
  readReceipt(artifact);
  return artifact;
}

}  // namespace vellicor
