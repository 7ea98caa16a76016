#include "VellicorFormat/MorlenResidentIndexV1.h"

#include <cassert>
#include <concepts>
#include <cstdlib>
#include <limits>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

#include <fmt/format.h>

#include "VellicorFormat/ByteRanges.h"
#include "VellicorFormat/Unicode.h"

namespace vellicor {
namespace {

enum class Payload { weights, scales, biases };

/// One payload range of one entry; formats its field name only when an error needs it.
struct PayloadOwner {
  std::uint64_t index;
  Payload payload;
};

using PayloadRanges = std::vector<OwnedRange<PayloadOwner>>;

std::string_view name(Payload payload) {
  switch (payload) {
    case Payload::weights:
      return "weights";
    case Payload::scales:
      return "scales";
    case Payload::biases:
      return "biases";
  }
  std::abort();
}

std::string entryField(std::uint64_t index, std::string_view part) {
  return fmt::format("resident.entries[{}].{}", index, part);
}

std::string fieldOf(PayloadOwner owner) { return entryField(owner.index, name(owner.payload)); }

template <std::unsigned_integral T>
void storeLittleEndian(std::span<std::byte> buffer, std::size_t offset, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i)
    buffer[offset + i] = static_cast<std::byte>(value >> (8 * i) & 0xFF);
}

template <std::unsigned_integral T>
T loadLittleEndian(std::span<const std::byte> buffer, std::size_t offset) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i)
    value = static_cast<T>(value | static_cast<T>(std::to_integer<T>(buffer[offset + i]) << (8 * i)));
  return value;
}

/// Decodes one index region whose header has passed the checks of its sizes.
class RegionDecoder {
 public:
  RegionDecoder(std::span<const std::byte> region, std::uint64_t tableEnd, std::uint64_t payloadEnd)
      : region_(region), tableEnd_(tableEnd), payloadEnd_(payloadEnd) {}

  std::vector<MorlenResidentIndexEntryV1> decode(std::uint64_t entryCount) {
    std::vector<MorlenResidentIndexEntryV1> entries;
    entries.reserve(entryCount);
    for (std::uint64_t i = 0; i < entryCount; ++i) entries.push_back(decodeEntry(i));
    if (const auto overlap = firstOverlap(ranges_))
      throw MorlenFormatError::invalid(fieldOf(overlap->second), "overlaps " + fieldOf(overlap->first));
    return entries;
  }

 private:
  MorlenResidentIndexEntryV1 decodeEntry(std::uint64_t index) {
    const auto bytes =
        region_.subspan(MorlenFormatV1::residentHeaderBytes +
                            static_cast<std::size_t>(index) * MorlenFormatV1::residentEntryBytes,
                        MorlenFormatV1::residentEntryBytes);
    if (bytes[7] != std::byte{0})
      throw MorlenFormatError::invalid(entryField(index, "reserved"), "must be zero");

    MorlenResidentIndexEntryV1 entry;
    entry.name = decodeName(bytes, index);
    entry.dtype = loadLittleEndian<std::uint8_t>(bytes, 6);
    if (!MorlenFormatV1::dtypeFromRaw(entry.dtype))
      throw MorlenFormatError::invalid(entryField(index, "dtype"), "unknown dtype");
    for (std::size_t i = 0; i < entry.shape.size(); ++i)
      entry.shape[i] = loadLittleEndian<std::uint32_t>(bytes, 24 + 4 * i);
    MorlenResidentIndexCodec::validateShape(entry.shape, index);

    std::tie(entry.fileOffset, entry.sizeBytes) = decodePayload(bytes, 8, {index, Payload::weights});
    std::tie(entry.scaleOffset, entry.scaleSize) = decodePayload(bytes, 40, {index, Payload::scales});
    std::tie(entry.biasOffset, entry.biasSize) = decodePayload(bytes, 56, {index, Payload::biases});
    return entry;
  }

  std::string_view decodeName(std::span<const std::byte> bytes, std::uint64_t index) {
    const auto offset = loadLittleEndian<std::uint32_t>(bytes, 0);
    const auto length = loadLittleEndian<std::uint16_t>(bytes, 4);
    const auto refuse = [index](const char* reason) {
      return MorlenFormatError::invalid(entryField(index, "name"), reason);
    };
    if (!rangeLiesWithin(offset, length, tableEnd_, region_.size()))
      throw refuse("range outside string table");
    // Names may share bytes of the string table; this keeps a hostile table from multiplying them.
    if (length > MorlenFormatV1::residentIndexMaxBytes - nameBytes_) throw refuse("exceeds v1 metadata cap");
    nameBytes_ += length;

    const auto text = region_.subspan(offset, length);
    const std::string_view name(reinterpret_cast<const char*>(text.data()), text.size());
    if (name.empty() || !isWellFormedUtf8(name) || !names_.insert(name).second)
      throw refuse("invalid UTF-8 or duplicate");
    return name;
  }

  std::pair<std::uint64_t, std::uint64_t> decodePayload(std::span<const std::byte> bytes, std::size_t at,
                                                        PayloadOwner owner) {
    const auto offset = loadLittleEndian<std::uint64_t>(bytes, at);
    const auto size = loadLittleEndian<std::uint64_t>(bytes, at + 8);
    if (size == 0 && owner.payload == Payload::weights)
      throw MorlenFormatError::invalid(fieldOf(owner), "primary payload is empty");
    if (size == 0 && offset != 0)
      throw MorlenFormatError::invalid(fieldOf(owner), "absent payload offset must be zero");
    if (size == 0) return {0, 0};

    if (size > std::numeric_limits<std::uint64_t>::max() - offset)
      throw MorlenFormatError::overflow(fieldOf(owner));
    if (!rangeLiesWithin(offset, size, region_.size(), payloadEnd_))
      throw MorlenFormatError::invalid(fieldOf(owner), "range outside resident payload");
    ranges_.push_back({offset, offset + size, owner});
    return {offset, size};
  }

  std::span<const std::byte> region_;
  std::uint64_t tableEnd_;
  std::uint64_t payloadEnd_;
  std::uint64_t nameBytes_ = 0;
  std::set<std::string_view> names_;
  PayloadRanges ranges_;
};

}  // namespace

void MorlenResidentIndexCodec::writeHeader(std::span<std::byte> buffer,
                                           const MorlenResidentIndexHeaderV1& header) {
  assert(buffer.size() >= MorlenFormatV1::residentHeaderBytes);
  storeLittleEndian(buffer, 0, header.indexSize);
  storeLittleEndian(buffer, 8, header.residentSize);
  storeLittleEndian(buffer, 16, header.entryCount);
}

void MorlenResidentIndexCodec::writeEntry(std::span<std::byte> buffer,
                                          const MorlenResidentIndexEntryV1& entry, std::uint32_t nameOffset) {
  assert(buffer.size() >= MorlenFormatV1::residentEntryBytes);
  assert(std::in_range<std::uint16_t>(entry.name.size()));
  storeLittleEndian(buffer, 0, nameOffset);
  storeLittleEndian(buffer, 4, static_cast<std::uint16_t>(entry.name.size()));
  storeLittleEndian(buffer, 6, entry.dtype);
  storeLittleEndian(buffer, 7, std::uint8_t{0});
  storeLittleEndian(buffer, 8, entry.fileOffset);
  storeLittleEndian(buffer, 16, entry.sizeBytes);
  for (std::size_t i = 0; i < entry.shape.size(); ++i) storeLittleEndian(buffer, 24 + 4 * i, entry.shape[i]);
  storeLittleEndian(buffer, 40, entry.scaleOffset);
  storeLittleEndian(buffer, 48, entry.scaleSize);
  storeLittleEndian(buffer, 56, entry.biasOffset);
  storeLittleEndian(buffer, 64, entry.biasSize);
}

MorlenResidentIndexHeaderV1 MorlenResidentIndexCodec::decodeHeader(std::span<const std::byte> bytes) {
  if (bytes.size() < MorlenFormatV1::residentHeaderBytes)
    throw MorlenFormatError::truncated("resident.header");
  return {.indexSize = loadLittleEndian<std::uint64_t>(bytes, 0),
          .residentSize = loadLittleEndian<std::uint64_t>(bytes, 8),
          .entryCount = loadLittleEndian<std::uint64_t>(bytes, 16)};
}

std::vector<MorlenResidentIndexEntryV1> MorlenResidentIndexCodec::decodeRegion(
    std::span<const std::byte> bytes, const MorlenResidentIndexHeaderV1& header) {
  if (header.indexSize > MorlenFormatV1::residentIndexMaxBytes)
    throw MorlenFormatError::invalid("resident.indexSize", "exceeds v1 metadata cap");
  if (bytes.size() < header.indexSize || header.indexSize < MorlenFormatV1::residentHeaderBytes ||
      header.indexSize % MorlenFormatV1::alignmentBytes != 0)
    throw MorlenFormatError::truncated("resident.index");
  const std::uint64_t tableBytes =
      morlenCheckedMultiply(MorlenFormatV1::residentEntryBytes, header.entryCount, "resident.entryTable");
  const std::uint64_t tableEnd =
      morlenCheckedAdd(tableBytes, MorlenFormatV1::residentHeaderBytes, "resident.entryTable");
  if (tableEnd > header.indexSize) throw MorlenFormatError::invalid("resident.entryTable", "outside index");
  const std::uint64_t payloadEnd =
      morlenCheckedAdd(header.indexSize, header.residentSize, "resident.payload");

  const auto region = bytes.first(static_cast<std::size_t>(header.indexSize));
  return RegionDecoder(region, tableEnd, payloadEnd).decode(header.entryCount);
}

void MorlenResidentIndexCodec::validateShape(const std::array<std::uint32_t, 4>& shape, std::uint64_t index) {
  if (shape[0] == 0)
    throw MorlenFormatError::invalid(entryField(index, "shape"), "first dimension must be positive");
  for (std::size_t i = 1; i + 1 < shape.size(); ++i) {
    if (shape[i] == 0 && shape[i + 1] != 0)
      throw MorlenFormatError::invalid(entryField(index, "shape"), "zero dimensions must be trailing");
  }
}

}  // namespace vellicor
