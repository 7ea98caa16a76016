#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "VellicorArtifact/ArtifactMetadata.h"
#include "VellicorArtifact/MorlenDirectoryAccess.h"
#include "VellicorFormat/MorlenManifestV1.h"
#include "VellicorRepackCore/Base/Cancellation.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/OrderedWork.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"
#include "VellicorRepackCore/Verification/VerifiedInstallReceiptWriter.h"

namespace vellicor {

namespace {

/// Far beyond any artifact's nesting; the walk holds two descriptors a level.
constexpr int maximumWalkDepth = 1024;

using OutputFile = RepackAudit::OutputFile;

/// Sizes and hashes one listed file through a single descriptor; a wrong size is refused before the reading.
OutputFile verifyFile(const MorlenDirectoryAccess& directory, const std::string& path,
                      const MorlenManifestFileV1& entry, const CancellationToken& stop) {
  const FileDescriptor file = directory.openFile(path);
  const std::uint64_t size = directory.fileSize(file.get(), path);
  requireListedSize(path, size, entry);
  std::string sha256 = directory.hash(file.get(), path, MorlenDirectoryAccess::PageCache::bypass, stop);
  requireListedDigest(path, sha256, entry);
  return {.relativePath = path, .size = size, .sha256 = std::move(sha256)};
}

/// Every file that the manifest lists, in ascending order of paths; some are read side by side.
std::vector<OutputFile> verifyListedFiles(const MorlenDirectoryAccess& directory,
                                          const ArtifactMetadata& metadata, std::size_t workers,
                                          std::uint64_t& bytesVerified) {
  const MorlenManifestV1& manifest = metadata.manifest;
  std::vector<OutputFile> verified;
  for (const auto& [path, entry] : manifest.files) verified.push_back({path, entry.size, {}});
  OrderedWork work(verified.size(), workers, {}, [&](std::size_t item, const CancellationToken& stop) {
    const std::string& path = verified[item].relativePath;
    // The layout has been read and digested already.
    verified[item] = path == MorlenFormatV1::layoutPath
                         ? OutputFile{path, metadata.layoutFile.size, metadata.layoutFile.sha256}
                         : verifyFile(directory, path, manifest.files.at(path), stop);
  });
  for (const OutputFile& file : verified) {
    work.next();
    if (file.size > std::numeric_limits<std::uint64_t>::max() - bytesVerified) {
      throw RepackError(ConfigurationInvalid{"verified byte count exceeds UInt64"});
    }
    bytesVerified += file.size;
  }
  return verified;
}

bool isIn(std::string_view entry, std::string_view directory) {
  return entry.starts_with(directory) && (entry.size() == directory.size() || entry[directory.size()] == '/');
}

/// Entries other than the artifact's files, the directories that hold them, and those that a desktop or a
/// tokenizer adds.
std::vector<std::string> unexpectedEntries(const MorlenDirectoryAccess& directory,
                                           const MorlenManifestV1& manifest) {
  std::set<std::string> expected = {MorlenFormatV1::manifestPath, MorlenFormatV1::receiptPath};
  int maxDepth = MorlenDirectoryAccess::defaultMaxDepth;
  for (const auto& [path, entry] : manifest.files) {
    expected.insert(path);
    const auto components = std::ranges::count(path, '/') + 1;
    maxDepth = std::max(maxDepth, static_cast<int>(std::min<std::ptrdiff_t>(components, maximumWalkDepth)));
  }
  const auto isExpected = [&](const std::string& entry) {
    if (entry == ".DS_Store" || isIn(entry, MorlenFormatV1::tokenizerDirectory)) return true;
    if (expected.contains(entry)) return true;
    const auto inside = expected.lower_bound(entry + "/");
    return inside != expected.end() && isIn(*inside, entry);
  };

  std::vector<std::string> entries = directory.relativeEntries(maxDepth);
  std::erase_if(entries, isExpected);
  return entries;
}

struct Verification {
  VerifyInstallResult result;
  std::string receipt;
};

Verification verify(const MorlenDirectoryAccess& directory, const VerifyInstallOptions& options) {
  const ArtifactMetadata metadata = ArtifactMetadata::read(directory);
  VerifyInstallResult result;
  result.bytesVerified = metadata.manifestFile.size;
  const std::vector<OutputFile> files = verifyListedFiles(
      directory, metadata, options.workers.value_or(Posix::availableProcessors()), result.bytesVerified);
  result.receiptPath = joinPath(directory.rootPath(), MorlenFormatV1::receiptPath);
  result.fileCount = static_cast<std::int64_t>(files.size()) + 1;
  result.unexpectedEntries = unexpectedEntries(directory, metadata.manifest);
  return {std::move(result),
          VerifiedInstallReceiptWriter::encode(
              directory.rootPath(), metadata.manifestFile.sha256, metadata.manifestFile.size, std::nullopt,
              metadata.manifest.sourceSnapshotHash, VerifiedInstallReceiptWriter::verifyToolVersion, files)};
}

}  // namespace

VerifyInstallResult VerifiedInstallTool::run(const VerifyInstallOptions& options) {
  const MorlenDirectoryAccess directory(options.inputMorlen);
  Verification verification = verify(directory, options);
  directory.atomicWrite(verification.receipt, MorlenFormatV1::receiptPath);
  return std::move(verification.result);
}

VerifyInstallResult VerifiedInstallTool::check(const VerifyInstallOptions& options) {
  return verify(MorlenDirectoryAccess(options.inputMorlen), options).result;
}

}  // namespace vellicor
