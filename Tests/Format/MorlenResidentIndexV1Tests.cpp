#include "Tests/Support/Expect.h"
#include "VellicorFormat/MorlenResidentIndexV1.h"

namespace vellicor::testing {
namespace {

using Codec = MorlenResidentIndexCodec;

constexpr std::size_t alphaAt = 24;
constexpr std::size_t betaAt = 24 + 72;
constexpr std::size_t namesAt = 24 + 2 * 72;

/// An index region under attack: bytes and header change independently of each other.
struct R {
  MorlenResidentIndexHeaderV1 header{16384, 180, 2};
  std::vector<std::byte> bytes = std::vector<std::byte>(16384);

  void put(std::size_t offset, std::uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) bytes[offset + i] = std::byte(value >> (8 * i) & 0xFF);
  }
  std::vector<MorlenResidentIndexEntryV1> decode() const { return Codec::decodeRegion(bytes, header); }
};

/// Weights, scales and biases without gaps, and then weights up to the end of the payload.
const std::vector<MorlenResidentIndexEntryV1> sampleEntries{
    {"alpha", 0, 16384, 100, {4, 2, 3, 5}, 16484, 20, 16504, 10},
    {"beta", 3, 16514, 50, {25, 0, 0, 0}, 0, 0, 0, 0}};

/// The region of `sampleEntries`, put together byte by byte.
R sampleRegion() {
  R region;
  std::size_t at = 0;
  const auto append = [&](std::uint64_t value, std::size_t width) {
    region.put(at, value, width), at += width;
  };
  append(16384, 8), append(180, 8), append(2, 8);
  std::uint64_t nameAt = namesAt;
  for (const auto& entry : sampleEntries) {
    append(nameAt, 4), append(entry.name.size(), 2), append(entry.dtype, 1), append(0, 1);
    append(entry.fileOffset, 8), append(entry.sizeBytes, 8);
    for (const std::uint32_t dimension : entry.shape) append(dimension, 4);
    append(entry.scaleOffset, 8), append(entry.scaleSize, 8);
    append(entry.biasOffset, 8), append(entry.biasSize, 8);
    for (const char c : entry.name) region.bytes[nameAt++] = std::byte(c);
  }
  return region;
}

TEST(MorlenResidentIndexV1, EncodesAndDecodesEveryByte) {
  const R region = sampleRegion();
  EXPECT_EQ(Codec::decodeHeader(region.bytes), region.header);
  EXPECT_EQ(region.decode(), sampleEntries);
  std::vector<std::byte> written(namesAt, std::byte{0xEE});
  Codec::writeHeader(written, region.header);
  Codec::writeEntry(std::span(written).subspan(alphaAt), sampleEntries[0], namesAt);
  Codec::writeEntry(std::span(written).subspan(betaAt), sampleEntries[1], namesAt + 5);
  EXPECT_TRUE(std::equal(written.begin(), written.end(), region.bytes.begin()));
  const auto cut = std::span(region.bytes).first(23);
  EXPECT_EQ(errorText([&] { Codec::decodeHeader(cut); }), "resident.header: truncated");
}

TEST(MorlenResidentIndexV1, RegionChecks) {
  const std::string alpha = "resident.entries[0].";
  const std::string beta = "resident.entries[1].";
  const std::string outsideTable = "name: range outside string table";
  const std::string badName = "name: invalid UTF-8 or duplicate";
  const std::string trailing = "shape: zero dimensions must be trailing";
  const std::string outside = ": range outside resident payload";
  const std::string absent = ": absent payload offset must be zero";
  const char* const fine = "no error";
  const char* const truncated = "resident.index: truncated";
  const char* const cap = "resident.indexSize: exceeds v1 metadata cap";
  const char* const table = "resident.entryTable: arithmetic overflow";
  const std::tuple<const char*, void (*)(R&), std::string> rows[] = {
      {"above the cap", [](R& r) { r.header.indexSize = 16777217; }, cap},
      {"cap, bytes missing", [](R& r) { r.header.indexSize = 16777216; }, truncated},
      {"size 16383", [](R& r) { r.header.indexSize = 16383; }, truncated},
      {"size 16400", [](R& r) { r.header.indexSize = 16400, r.bytes.resize(16400); }, truncated},
      {"size 0", [](R& r) { r.header.indexSize = 0; }, truncated},
      {"a byte short", [](R& r) { r.bytes.pop_back(); }, truncated},
      {"no entries", [](R& r) { r.header.entryCount = 0; }, fine},
      {"table product", [](R& r) { r.header.entryCount = 256204778801521551; }, table},
      {"table sum", [](R& r) { r.header.entryCount = 256204778801521550; }, table},
      {"table beyond", [](R& r) { r.header.entryCount = 228; }, "resident.entryTable: outside index"},
      {"table to the end",
       [](R& r) {
         r.header = {98304, 0, 1365}, r.bytes.resize(98304);
       },
       alpha + outsideTable},
      {"payload", [](R& r) { r.header.residentSize = ~16383ULL; }, "resident.payload: arithmetic overflow"},
      {"reserved", [](R& r) { r.put(alphaAt + 7, 1, 1); }, alpha + "reserved: must be zero"},
      {"name in the table", [](R& r) { r.put(alphaAt, namesAt - 1, 4); }, alpha + outsideTable},
      {"name beyond", [](R& r) { r.put(betaAt, 16381, 4); }, beta + outsideTable},
      {"name at the end", [](R& r) { r.put(betaAt, 16380, 4); }, fine},
      {"name empty", [](R& r) { r.put(alphaAt + 4, 0, 2); }, alpha + badName},
      {"name twice", [](R& r) { r.put(betaAt, namesAt, 4), r.put(betaAt + 4, 5, 2); }, beta + badName},
      {"name overlong", [](R& r) { r.put(namesAt, 0x80C0, 2); }, alpha + badName},
      {"dtype 4", [](R& r) { r.put(alphaAt + 6, 4, 1); }, alpha + "dtype: unknown dtype"},
      {"shape 0", [](R& r) { r.put(alphaAt + 24, 0, 4); }, alpha + "shape: first dimension must be positive"},
      {"shape gap", [](R& r) { r.put(betaAt + 32, 2, 4); }, beta + trailing},
      {"shape last gap", [](R& r) { r.put(alphaAt + 32, 0, 4); }, alpha + trailing},
      {"weights empty", [](R& r) { r.put(alphaAt + 16, 0, 8); }, alpha + "weights: primary payload is empty"},
      {"weights wrap", [](R& r) { r.put(alphaAt + 8, ~98ULL, 8); }, alpha + "weights: arithmetic overflow"},
      {"weights early", [](R& r) { r.put(alphaAt + 8, 16383, 8); }, alpha + "weights" + outside},
      {"weights late", [](R& r) { r.put(betaAt + 16, 51, 8); }, beta + "weights" + outside},
      {"scales absent", [](R& r) { r.put(betaAt + 40, 16384, 8); }, beta + "scales" + absent},
      {"biases absent", [](R& r) { r.put(betaAt + 56, 1, 8); }, beta + "biases" + absent},
      {"scales early", [](R& r) { r.put(alphaAt + 40, 0, 8); }, alpha + "scales" + outside},
      {"biases wrap", [](R& r) { r.put(alphaAt + 64, ~0ULL, 8); }, alpha + "biases: arithmetic overflow"},
      {"gap", [](R& r) { r.put(alphaAt + 16, 99, 8); }, fine},
      {"overlap", [](R& r) { r.put(betaAt + 8, 16503, 8); }, beta + "weights: overlaps " + alpha + "scales"},
      {"inner overlap", [](R& r) { r.put(alphaAt + 56, 16400, 8); },
       alpha + "biases: overlaps " + alpha + "weights"},
  };
  for (const auto& [name, mutate, expected] : rows) {
    SCOPED_TRACE(name);
    R region = sampleRegion();
    mutate(region);
    EXPECT_EQ(errorText([&] { region.decode(); }), expected);
  }
}

TEST(MorlenResidentIndexV1, NamesThatShareBytesDoNotMultiplyMemory) {
  R region{{98304, 300, 300}, std::vector<std::byte>(98304)};
  std::uint32_t noise = 1;
  for (std::byte& byte : region.bytes) byte = std::byte('a' + (noise = noise * 1664525 + 1013904223) % 26);
  const std::string name(65535, 'a');
  for (std::uint32_t i = 0; i < 300; ++i)
    Codec::writeEntry(std::span(region.bytes).subspan(24 + 72 * i),
                      {name, 1, 98304 + i, 1, {1, 0, 0, 0}, 0, 0, 0, 0}, 24 + 72 * 300 + i);
  EXPECT_EQ(errorText([&] { region.decode(); }), "resident.entries[256].name: exceeds v1 metadata cap");
}

}  // namespace
}  // namespace vellicor::testing
