#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <stop_token>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "VellicorFormat/MorlenFormatV1.h"
#include "VellicorFormat/MorlenManifestV1.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"
#include "VellicorFormat/UnicodeText.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/OrderedWork.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/FileSystem/MorlenDirectoryAccess.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Reporting/RepackAudit.h"
#include "VellicorRepackCore/Verification/VerifiedInstallReceiptWriter.h"

namespace vellicor {

namespace {

constexpr const char* manifestName = "manifest.json";
constexpr const char* layoutPath = "packed_experts/layout.json";
constexpr const char* receiptName = VerifiedInstallReceiptWriter::receiptFilename;

/// Far beyond any artifact's nesting; the walk holds two descriptors a level.
constexpr int maximumWalkDepth = 1024;

using OutputFile = RepackAudit::OutputFile;

[[noreturn]] void refuse(std::string detail) { throw RepackError::configurationInvalid(std::move(detail)); }

/// What `operation` returns; the format library's error becomes "<prefix>: <its text>".
template <typename Operation>
auto withFormatErrors(std::string_view prefix, Operation&& operation) {
  try {
    return operation();
  } catch (const MorlenFormatError& error) {
    refuse(fmt::format("{}: {}", prefix, error.description()));
  }
}

/// A small JSON file of the artifact, whole, with the record of what was read.
struct MetadataFile {
  std::string content;
  OutputFile record;
};

MetadataFile readMetadataFile(const MorlenDirectoryAccess& directory, const std::string& path,
                              std::uint64_t maximumBytes) {
  const FileDescriptor file = directory.openFile(path);
  Posix::bypassPageCache(file.get());
  std::string content = directory.readMetadata(file.get(), path, maximumBytes);
  OutputFile record{.relativePath = path, .size = content.size(), .sha256 = hashData(content)};
  return {.content = std::move(content), .record = std::move(record)};
}

void checkSize(const std::string& path, std::uint64_t size, const MorlenManifestFileV1& entry) {
  if (size != entry.size) refuse(fmt::format("{} size {} != manifest {}", path, size, entry.size));
}

void checkDigest(const std::string& path, const std::string& sha256, const MorlenManifestFileV1& entry) {
  if (sha256 != lowercased(entry.sha256)) refuse(path + " SHA mismatch");
}

/// Sizes and hashes one listed file through a single descriptor; a wrong size is refused before the reading.
OutputFile verifyFile(const MorlenDirectoryAccess& directory, const std::string& path,
                      const MorlenManifestFileV1& entry, const std::stop_token& stop) {
  const FileDescriptor file = directory.openFile(path);
  const std::uint64_t size = directory.fileSize(file.get(), path);
  checkSize(path, size, entry);
  std::string sha256 = directory.hash(file.get(), path, MorlenDirectoryAccess::PageCache::bypass, stop);
  checkDigest(path, sha256, entry);
  return {.relativePath = path, .size = size, .sha256 = std::move(sha256)};
}

void checkLayerFile(const MorlenManifestV1& manifest, const MorlenLayerV1& layer,
                    std::uint64_t expectedSize) {
  const std::string path = "packed_experts/" + layer.file;
  const auto entry = manifest.files.find(path);
  if (entry == manifest.files.end()) refuse("manifest missing " + path);
  if (entry->second.size != expectedSize) {
    refuse(fmt::format("{} manifest size {} != {}", path, entry->second.size, expectedSize));
  }
  for (std::size_t position = 0; position < layer.experts.size(); ++position) {
    const MorlenExpertV1& expert = layer.experts[position];
    if (expert.offset > expectedSize || expert.size > expectedSize - expert.offset) {
      const std::int64_t id = expert.expert.value_or(static_cast<std::int64_t>(position));
      refuse(fmt::format("{} expert {} range exceeds file size", path, id));
    }
  }
}

void checkLayout(const MorlenManifestV1& manifest, const MorlenPackedExpertsLayoutV1& layout) {
  // Both have passed their own validation, so the count is positive.
  const std::uint64_t layerFileSize = withFormatErrors("packed expert layout does not match manifest", [&] {
    MorlenV1StructuralValidator::crossValidate(manifest, layout);
    return morlenCheckedMultiply(static_cast<std::uint64_t>(layout.expertsPerLayer), layout.expertStride,
                                 "layout.layerSize");
  });
  for (const MorlenLayerV1& layer : layout.layers) checkLayerFile(manifest, layer, layerFileSize);
}

/// Reads and checks the packed-experts layout by itself and against the manifest.
OutputFile verifyLayout(const MorlenDirectoryAccess& directory, const MorlenManifestV1& manifest) {
  const auto entry = manifest.files.find(layoutPath);
  if (entry == manifest.files.end()) refuse(std::string("manifest missing ") + layoutPath);
  MetadataFile file = readMetadataFile(directory, layoutPath, VerifiedInstallTool::maximumLayoutBytes);
  const MorlenPackedExpertsLayoutV1 layout = withFormatErrors("packed_experts/layout.json invalid", [&] {
    return MorlenPackedExpertsLayoutCodec::decode(file.content);
  });
  checkLayout(manifest, layout);
  checkSize(layoutPath, file.record.size, entry->second);
  checkDigest(layoutPath, file.record.sha256, entry->second);
  return std::move(file.record);
}

/// Every file that the manifest lists, in ascending order of paths; some are read side by side.
std::vector<OutputFile> verifyListedFiles(const MorlenDirectoryAccess& directory,
                                          const MorlenManifestV1& manifest, const OutputFile& layout,
                                          std::size_t workers, std::uint64_t& bytesVerified) {
  std::vector<OutputFile> verified;
  for (const auto& [path, entry] : manifest.files) verified.push_back({path, entry.size, {}});
  OrderedWork work(verified.size(), workers, {}, [&](std::size_t item, const std::stop_token& stop) {
    const std::string& path = verified[item].relativePath;
    verified[item] = path == layoutPath ? layout : verifyFile(directory, path, manifest.files.at(path), stop);
  });
  for (const OutputFile& file : verified) {
    work.next();
    if (file.size > std::numeric_limits<std::uint64_t>::max() - bytesVerified) {
      refuse("verified byte count exceeds UInt64");
    }
    bytesVerified += file.size;
  }
  return verified;
}

/// What the directory holds beyond the artifact's files, the directories that hold them, and what a desktop
/// or a tokenizer adds.
std::vector<std::string> unexpectedEntries(const MorlenDirectoryAccess& directory,
                                           const MorlenManifestV1& manifest) {
  std::set<std::string> expected = {manifestName, receiptName};
  int maxDepth = MorlenDirectoryAccess::defaultMaxDepth;
  for (const auto& [path, entry] : manifest.files) {
    expected.insert(path);
    const auto components = std::ranges::count(path, '/') + 1;
    maxDepth = std::max(maxDepth, static_cast<int>(std::min<std::ptrdiff_t>(components, maximumWalkDepth)));
  }
  const auto isExpected = [&](const std::string& entry) {
    if (entry == ".DS_Store" || entry == "tokenizer" || entry.starts_with("tokenizer/")) return true;
    if (expected.contains(entry)) return true;
    const auto inside = expected.lower_bound(entry + "/");
    return inside != expected.end() && inside->starts_with(entry + "/");
  };

  std::vector<std::string> entries = directory.relativeEntries(maxDepth);
  std::erase_if(entries, isExpected);
  return entries;
}

}  // namespace

VerifyInstallResult VerifiedInstallTool::run(const VerifyInstallOptions& options) {
  const MorlenDirectoryAccess directory(options.inputMorlen);
  const MetadataFile manifestFile = readMetadataFile(directory, manifestName, maximumManifestBytes);
  const MorlenManifestV1 manifest = withFormatErrors(
      "manifest.json invalid", [&] { return MorlenManifestCodec::decode(manifestFile.content); });
  const OutputFile layout = verifyLayout(directory, manifest);
  VerifyInstallResult result;
  result.bytesVerified = manifestFile.record.size;
  const std::vector<OutputFile> files =
      verifyListedFiles(directory, manifest, layout, options.workers.value_or(Posix::availableProcessors()),
                        result.bytesVerified);
  result.receiptPath = joinPath(directory.rootPath(), receiptName);
  result.fileCount = static_cast<std::int64_t>(files.size()) + 1;
  result.unexpectedEntries = unexpectedEntries(directory, manifest);
  const std::string receipt = VerifiedInstallReceiptWriter::encode(
      directory.rootPath(), manifestFile.record.sha256, manifestFile.record.size, std::nullopt,
      manifest.sourceSnapshotHash, VerifiedInstallReceiptWriter::verifyToolVersion, files);
  directory.atomicWrite(receipt, receiptName);
  return result;
}

}  // namespace vellicor
