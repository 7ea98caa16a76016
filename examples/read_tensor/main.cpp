// read_tensor ARTIFACT TENSOR ROW: prints one row of a resident tensor, a number to a line.
//
// An engine opens an artifact so: check the manifest, map model_weights.bin, decode its index once, and
// then turn stored integers into weights where it needs them. Nothing in the files is trusted; docs/format.md
// has the rules.

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <VellicorFormat/MorlenManifestV1.h>
#include <VellicorFormat/MorlenResidentIndexV1.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Bytes = std::span<const std::byte>;
using Entry = vellicor::MorlenResidentIndexEntryV1;

void require(bool holds, const std::string& reason) {
  if (!holds) throw std::runtime_error(reason);
}

/// A whole file, mapped for reading as long as the object lives.
class MappedFile {
 public:
  explicit MappedFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), path);
    struct stat status {};
    const bool isUsable = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
    size_ = isUsable ? static_cast<std::size_t>(status.st_size) : 0;
    start_ = isUsable ? ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0) : MAP_FAILED;
    ::close(fd);
    require(start_ != MAP_FAILED, path + ": cannot be mapped");
  }
  ~MappedFile() { ::munmap(start_, size_); }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  Bytes bytes() const { return {static_cast<const std::byte*>(start_), size_}; }
  std::string_view text() const { return {static_cast<const char*>(start_), size_}; }

 private:
  void* start_ = MAP_FAILED;
  std::size_t size_ = 0;
};

/// The index, once it is sure that it describes exactly this file. Every payload range then lies inside.
std::vector<Entry> decodeIndex(Bytes weights) {
  const auto header = vellicor::MorlenResidentIndexCodec::decodeHeader(weights);
  std::vector<Entry> entries = vellicor::MorlenResidentIndexCodec::decodeRegion(weights, header);
  require(header.residentSize == weights.size() - header.indexSize,
          "model_weights.bin has another size than its index");
  return entries;
}

float bfloat16(Bytes values, std::uint64_t index) {
  const auto low = std::to_integer<std::uint32_t>(values[2 * index]);
  const auto high = std::to_integer<std::uint32_t>(values[2 * index + 1]);
  return std::bit_cast<float>(high << 24 | low << 16);
}

/// Rows and columns of a tensor; rows run over all dimensions but the last.
struct Extent {
  std::uint64_t rows = 1;
  std::uint64_t columns = 1;
};

Extent extentOf(const Entry& entry) {
  const auto end = std::find(entry.shape.begin(), entry.shape.end(), 0U);
  Extent extent{.columns = *(end - 1)};
  for (auto dimension = entry.shape.begin(); dimension != end - 1; ++dimension)
    extent.rows = vellicor::morlenCheckedMultiply(extent.rows, *dimension, entry.name);
  return extent;
}

std::vector<float> plainRow(Bytes values, Extent extent, std::uint64_t row) {
  require(values.size() / 2 / extent.columns == extent.rows && values.size() % (2 * extent.columns) == 0,
          "size and shape of the tensor differ");
  std::vector<float> result(extent.columns);
  for (std::uint64_t column = 0; column < extent.columns; ++column)
    result[column] = bfloat16(values, row * extent.columns + column);
  return result;
}

/// At 4 or 8 bits no value straddles bytes, and in little-endian words the bytes come in the order of the
/// values.
std::vector<float> packedRow(Bytes values, Bytes scales, Bytes biases, Extent extent, std::uint64_t row) {
  const std::uint64_t count = vellicor::morlenCheckedMultiply(extent.rows, extent.columns, "shape");
  const std::uint64_t bits = values.size() == count ? 8 : 4;
  const std::uint64_t perByte = 8 / bits;
  require(extent.columns % (32 / bits) == 0 && values.size() == count / perByte,
          "the tensor is not of 4 or 8 bits");
  const std::uint64_t groups = scales.size() / 2 / extent.rows;
  require(groups > 0 && extent.columns % groups == 0 && scales.size() == 2 * groups * extent.rows &&
              biases.size() == scales.size(),
          "scales or biases do not fit the tensor's shape");
  const std::uint64_t groupSize = extent.columns / groups;

  std::vector<float> result(extent.columns);
  for (std::uint64_t column = 0; column < extent.columns; ++column) {
    const std::uint64_t group = row * groups + column / groupSize;
    const auto byte = std::to_integer<std::uint32_t>(values[(row * extent.columns + column) / perByte]);
    const std::uint32_t stored = byte >> (column % perByte * bits) & ((1U << bits) - 1);
    result[column] = bfloat16(scales, group) * static_cast<float>(stored) + bfloat16(biases, group);
  }
  return result;
}

std::vector<float> readRow(Bytes weights, const Entry& entry, std::uint64_t row) {
  const Extent extent = extentOf(entry);
  require(row < extent.rows, "the tensor has " + std::to_string(extent.rows) + " rows");
  const auto dtype = vellicor::MorlenFormatV1::dtypeFromRaw(entry.dtype);
  const Bytes values = weights.subspan(entry.fileOffset, entry.sizeBytes);
  if (dtype == vellicor::MorlenFormatV1::DType::bf16) return plainRow(values, extent, row);
  require(dtype == vellicor::MorlenFormatV1::DType::u32, "the tensor is neither packed nor bfloat16");
  return packedRow(values, weights.subspan(entry.scaleOffset, entry.scaleSize),
                   weights.subspan(entry.biasOffset, entry.biasSize), extent, row);
}

void printRow(const std::string& artifact, std::string_view tensor, std::uint64_t row) {
  const MappedFile manifestFile(artifact + "/manifest.json");
  require(manifestFile.bytes().size() <= 4U << 20, "manifest.json is too large");
  const auto manifest = vellicor::MorlenManifestCodec::decode(manifestFile.text());
  const MappedFile weights(artifact + "/model_weights.bin");
  const auto listed = manifest.files.find("model_weights.bin");
  require(listed != manifest.files.end() && listed->second.size == weights.bytes().size(),
          "model_weights.bin has not the size that the manifest says");

  const std::vector<Entry> entries = decodeIndex(weights.bytes());
  const auto entry = std::find_if(entries.begin(), entries.end(),
                                  [&](const Entry& candidate) { return candidate.name == tensor; });
  require(entry != entries.end(), "no resident tensor has that name");
  for (const float value : readRow(weights.bytes(), *entry, row))
    std::printf("%.9g\n", static_cast<double>(value));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    std::uint64_t row = 0;
    const std::string_view number = argc == 4 ? argv[3] : "";
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), row);
    if (number.empty() || error != std::errc() || end != number.data() + number.size()) {
      std::fprintf(stderr, "usage: read_tensor ARTIFACT TENSOR ROW\n");
      return 2;
    }
    printRow(argv[1], argv[2], row);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "read_tensor: %s\n", error.what());
    return 1;
  }
}
