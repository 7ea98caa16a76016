#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "VellicorFormat/MorlenFormatV1.h"

namespace vellicor {

// The binary index at the head of model_weights.bin. All integers are little-endian.
//
//   index region    [0, indexSize)                         header, entry table, string table, zero padding
//   payload region  [indexSize, indexSize + residentSize)  tensor weights, scales and biases
//
// Header, 24 bytes: indexSize u64, residentSize u64, entryCount u64. indexSize is a multiple of 16384 and at
// most 16 MiB. The entry table follows at once, 72 bytes an entry:
//
//    0  u32      name offset (absolute)
//    4  u16      name length (bytes)
//    6  u8       dtype
//    7  u8       zero
//    8  u64      weights offset
//   16  u64      weights size
//   24  4 x u32  shape (unused trailing dimensions are 0)
//   40  u64      scales offset
//   48  u64      scales size
//   56  u64      biases offset
//   64  u64      biases size
//
// Names are UTF-8, not terminated, anywhere between the table's end and indexSize. Payload offsets are
// absolute; absent scales or biases have offset and size 0; no two payload ranges overlap. There is no magic
// number here: the version of an artifact lives in its manifest.

struct MorlenResidentIndexHeaderV1 {
  std::uint64_t indexSize = 0;
  std::uint64_t residentSize = 0;
  std::uint64_t entryCount = 0;
  bool operator==(const MorlenResidentIndexHeaderV1&) const = default;
};

struct MorlenResidentIndexEntryV1 {
  std::string name;
  /// Raw value of `MorlenFormatV1::DType`.
  std::uint8_t dtype = 0;
  std::uint64_t fileOffset = 0;
  std::uint64_t sizeBytes = 0;
  std::array<std::uint32_t, 4> shape{};
  std::uint64_t scaleOffset = 0;
  std::uint64_t scaleSize = 0;
  std::uint64_t biasOffset = 0;
  std::uint64_t biasSize = 0;
  bool operator==(const MorlenResidentIndexEntryV1&) const = default;
};

struct MorlenResidentIndexCodec {
  /// Stores the header in the first 24 bytes of `buffer`, which holds at least as many.
  static void writeHeader(std::span<std::byte> buffer, const MorlenResidentIndexHeaderV1& header);

  /// Stores one entry in the first 72 bytes of `buffer`, which holds at least as many. The name has at most
  /// 65535 bytes.
  static void writeEntry(std::span<std::byte> buffer, const MorlenResidentIndexEntryV1& entry,
                         std::uint32_t nameOffset);

  /// Reads the first 24 bytes and checks nothing else. Throws `MorlenFormatError` truncated.
  static MorlenResidentIndexHeaderV1 decodeHeader(std::span<const std::byte> bytes);

  /// Decodes and fully validates the index region in `bytes`, which start at file offset 0. Entries come back
  /// in table order. Throws the first failing check as a `MorlenFormatError`.
  static std::vector<MorlenResidentIndexEntryV1> decodeRegion(std::span<const std::byte> bytes,
                                                              const MorlenResidentIndexHeaderV1& header);

  /// The first dimension is positive and zero dimensions are trailing. `index` names the entry in the error.
  static void validateShape(const std::array<std::uint32_t, 4>& shape, std::uint64_t index);
};

}  // namespace vellicor
