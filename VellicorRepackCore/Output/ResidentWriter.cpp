#include "VellicorRepackCore/Output/ResidentWriter.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include <fmt/format.h>

#include "VellicorFormat/MorlenResidentIndexV1.h"
#include "VellicorRepackCore/Base/BoundedScratch.h"
#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {
namespace {

constexpr std::uint64_t maximumNameBytes = 65535;

RepackError invalid(std::string detail) { return RepackError(ConfigurationInvalid{std::move(detail)}); }

/// Zeroed room for the whole index region.
std::span<std::byte> indexRegion(const ResidentFilePlan& plan, BoundedScratch& scratch) {
  if (plan.indexSize > MorlenFormatV1::residentIndexMaxBytes) {
    throw invalid(fmt::format("resident index size {} exceeds v1 metadata cap", plan.indexSize));
  }
  return scratch.ensure(static_cast<std::int64_t>(plan.indexSize)).first(plan.indexSize);
}

/// Where the entry table ends and the string table starts.
std::uint64_t checkedTableEnd(const ResidentFilePlan& plan) {
  if (plan.entries.size() != plan.stringTableOffsets.size()) {
    throw invalid("resident index entry/string offset count mismatch");
  }
  const std::uint64_t tableBytes =
      morlenCheckedMultiply(plan.entries.size(), MorlenBinary::indexEntryBytes, "resident.entryTable");
  const std::uint64_t tableEnd =
      morlenCheckedAdd(tableBytes, MorlenBinary::indexHeaderBytes, "resident.entryTable");
  if (tableEnd > plan.indexSize) throw invalid("resident index table exceeds declared index region");
  return tableEnd;
}

/// The absolute offset of an entry's name.
std::uint32_t checkedNameOffset(const ResidentFilePlan& plan, std::size_t index, std::uint64_t tableEnd) {
  const ResidentEntry& entry = plan.entries[index];
  const bool isKnownDtype = MorlenFormatV1::dtypeFromRaw(static_cast<std::uint8_t>(entry.dtype)).has_value();
  if (entry.name.size() > maximumNameBytes || !isKnownDtype) {
    throw invalid(fmt::format("resident index entry {} is not representable", index));
  }
  const std::uint64_t offset = tableEnd + plan.stringTableOffsets[index];
  if (offset > std::numeric_limits<std::uint32_t>::max() || offset > plan.indexSize ||
      entry.name.size() > plan.indexSize - offset) {
    throw invalid(fmt::format("resident index entry {} name range is invalid", index));
  }
  return static_cast<std::uint32_t>(offset);
}

MorlenResidentIndexEntryV1 indexEntry(const ResidentEntry& entry) {
  return {.name = entry.name,
          .dtype = static_cast<std::uint8_t>(entry.dtype),
          .fileOffset = entry.fileOffset,
          .sizeBytes = entry.sizeBytes,
          .shape = entry.logicalShape4,
          .scaleOffset = entry.scaleOffset,
          .scaleSize = entry.scaleSize,
          .biasOffset = entry.biasOffset,
          .biasSize = entry.biasSize};
}

void proveReadable(std::span<const std::byte> region) {
  try {
    MorlenResidentIndexCodec::decodeRegion(region, MorlenResidentIndexCodec::decodeHeader(region));
  } catch (const MorlenFormatError& error) {
    throw invalid(fmt::format("resident index encoding invalid: {}", error.description()));
  }
}

}  // namespace

std::vector<std::byte> ResidentWriter::encodeIndex(const ResidentFilePlan& plan) {
  BoundedScratch scratch;
  const std::span<std::byte> bytes = indexRegion(plan, scratch);
  const std::uint64_t tableEnd = checkedTableEnd(plan);
  std::vector<std::uint32_t> nameOffsets;
  nameOffsets.reserve(plan.entries.size());
  for (std::size_t index = 0; index < plan.entries.size(); ++index) {
    nameOffsets.push_back(checkedNameOffset(plan, index, tableEnd));
  }
  if (plan.stringTable.size() > plan.indexSize - tableEnd) {
    throw invalid("resident index string table exceeds declared index region");
  }

  MorlenResidentIndexCodec::writeHeader(
      bytes,
      {.indexSize = plan.indexSize, .residentSize = plan.residentSize, .entryCount = plan.entries.size()});
  for (std::size_t index = 0; index < plan.entries.size(); ++index) {
    const auto slot = bytes.subspan(MorlenBinary::indexHeaderBytes + index * MorlenBinary::indexEntryBytes,
                                    MorlenBinary::indexEntryBytes);
    MorlenResidentIndexCodec::writeEntry(slot, indexEntry(plan.entries[index]), nameOffsets[index]);
  }
  std::memcpy(bytes.data() + tableEnd, plan.stringTable.data(), plan.stringTable.size());
  proveReadable(bytes);
  return {bytes.begin(), bytes.end()};
}

void ResidentWriter::writeIndex(const ResidentFilePlan& plan, int fd, RepackAudit& audit) {
  const std::vector<std::byte> region = encodeIndex(plan);
  const auto length = static_cast<std::int64_t>(region.size());
  audit.largestScratchBytes = std::max(audit.largestScratchBytes, length);
  Posix::pwriteAll(fd, plan.path, region.data(), length, 0);
}

FileDescriptor ResidentWriter::createAndWriteIndex(const ResidentFilePlan& plan, RepackAudit& audit) {
  Posix::mkdir(parentPath(plan.path));
  FileDescriptor file = Posix::openCreateRWNoFollow(plan.path);
  Posix::ftruncate(file.get(), plan.path,
                   morlenCheckedAdd(plan.indexSize, plan.residentSize, "resident file size"));
  writeIndex(plan, file.get(), audit);
  return file;
}

}  // namespace vellicor
