#include "Tests/Support/SampleModel.h"
#include "VellicorLab/SupportedModelData.h"
#include "VellicorLab/SyntheticCheckpoint.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/Install/RangeCopyPlanner.h"
#include "VellicorRepackCore/Install/SourceByteProvider.h"

namespace vellicor::testing {
namespace {

constexpr std::uint64_t maximumU64 = ~std::uint64_t{0};
const std::string invalid = "configuration invalid: ";

RangeCopy copyOf(std::uint64_t sourceOffset, std::uint64_t size, const std::string& shard = "s") {
  return {shard, sourceOffset, size, "/p/" + shard, sourceOffset};
}

TEST(RangeCopyPlanner, CutsAndGroupsCopiesIntoRequests) {
  const struct {
    const char* name;
    std::vector<RangeCopy> copies;
    std::int64_t chunk;
    std::string requests;
  } rows[] = {
      {"a long copy is cut", {copyOf(100, 10)}, 4, "0:s[100+4]1 1:s[104+4]1 2:s[108+2]1 "},
      {"a gap within the chunk", {copyOf(0, 10), copyOf(100, 10)}, 110, "0:s[0+110]2 "},
      {"a gap beyond the chunk", {copyOf(0, 10), copyOf(100, 10)}, 109, "0:s[0+10]1 1:s[100+10]1 "},
      {"a copy inside another joins", {copyOf(0, 10), copyOf(2, 3)}, 12, "0:s[0+10]2 "},
      {"shards stay apart, in order", {copyOf(5, 5, "t"), copyOf(0, 5)}, 20, "0:s[0+5]1 1:t[5+5]1 "},
      {"no request for nothing", {copyOf(0, 0)}, 20, ""},
      {"no chunk", {copyOf(0, 1)}, 0, invalid + "rangeChunkBytes must be positive"},
      {"too many pieces", {copyOf(0, 4194305)}, 1, invalid + "copy plan needs more than 4194304 pieces"},
      {"beyond 64 bits", {copyOf(maximumU64, 2)}, 9, "copy source range: arithmetic overflow"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::string requests;
    const std::string error = errorText([&] {
      for (const auto& request : RangeCopyPlanner::coalesce(row.copies, row.chunk))
        requests += fmt::format("{}:{}[{}+{}]{} ", std::stoi(request.id.substr(6)), request.shardID.text(),
                                request.sourceOffset, request.size, request.destinations.size());
    });
    EXPECT_EQ(error == "no error" ? requests : error, row.requests);
  }
}

TEST(RangeCopyPlanner, NamesDestinationsRelativeToTheOutput) {
  const auto relative = [](const std::string& path, const std::string& root = "/out/p") {
    std::string name;
    const std::string error = errorText([&] { name = RangeCopyPlanner::normalizedRelativePath(path, root); });
    return name.empty() ? error : name;
  };
  EXPECT_EQ(relative("/out/p/x.bin", "/out/p/"), "x.bin");
  EXPECT_EQ(relative("/out/p/a/e\u0301"), "a/\u00e9");
  EXPECT_EQ(relative("/x.bin", "/"), "x.bin");
  EXPECT_EQ(relative("/out/px", "/out/p/"), invalid + "destination /out/px is outside partial output /out/p");
  for (const std::string bad : {"", "/x", "a//b", "a/", "./a", "a/.."})
    EXPECT_EQ(relative("/out/p/" + bad), invalid + "invalid relative destination path " + bad);
}

TEST(RangeCopyPlanner, RefusesOverlappingDestinations) {
  const RangeCopy valid{"s", 0, 8, "/p/f", 0};
  const auto error = [&](const RangeCopy& other) {
    return errorText([&] { RangeCopyPlanner::validateDestinationIntervals({other, valid}, "/p"); });
  };
  EXPECT_EQ(error({"s", 0, 8, "/p/f", 8}), "no error");
  EXPECT_EQ(error({"s", 0, 0, "/p/f", 8}), "no error");
  EXPECT_EQ(error({"s", 0, 8, "/p/g", 0}), "no error");
  EXPECT_EQ(error({"s", 0, 2, "/p/f", 7}), invalid + "overlapping destination ranges in f");
  EXPECT_EQ(error({"s", 0, 0, "/p/f", 4}), invalid + "overlapping destination ranges in f");
  EXPECT_EQ(error({"s", 0, 2, "/p/f", maximumU64}), invalid + "destination range overflows f");
}

std::string item(std::uint64_t number) {
  std::string bytes;
  for (int shift = 0; shift < 64; shift += 8) bytes += static_cast<char>(number >> shift & 0xff);
  return bytes;
}
std::string item(const std::string& text) { return item(std::uint64_t{text.size()}) + text; }

TEST(RangeCopyPlanner, FingerprintIsTheDigestOfItsCanonicalItems) {
  const std::string items = item("Vellicor.RemoteInstallPlan.v1") + item(1) + item(0) + item(64) +
                            item("identity") + item("order") + item("index") + item(1) + item("f.bin") +
                            item(300) + item(1) + item("range-00000000") + item("\u00e9") + item(100) +
                            item(30) + item(1) + item("d/f") + item(7) + item(10) + item(20);
  EXPECT_EQ(RangeCopyPlanner::canonicalFingerprint(
                {{"range-00000000", "e\u0301", 100, 30, {{"e\u0301", 110, 20, "/o/p/d/f", 7}}}}, "/o/p", 64,
                "identity", "order", "index", {{"f.bin", 300}}),
            hashData(items));
}

TEST(DestinationDigest, IsWhatAnotherProgramReckoned) {
  const TemporaryDirectory directory;
  writeFile(directory / "a.bin", "0123456789");
  writeFile(directory / "d/b.bin", "abcdefghij");
  const CoalescedRangeCopy copy{
      "range-00000007",
      "s",
      100,
      35,
      {{"s", 130, 5, directory / "a.bin", 2}, {"s", 100, 7, directory / "d/b.bin", 0}}};
  std::array<std::byte, 3> scratch{};
  for (const std::span<std::byte> buffer : {std::span<std::byte>(), std::span<std::byte>(scratch)}) {
    EXPECT_EQ(HTTPRangeSourceByteProvider::destinationDigest(copy, directory.path(), buffer),
              "d74c6b0e9f755ce4b2795d9e42f90f0a3a6bfda95ed645a37778fb6859ff9b8a");
  }
}

TEST(RangeCopyPlanner, FingerprintIdentifiesThePlanAndNotItsPlace) {
  const auto plan = [](const RepackPlan& from, std::int64_t chunk = 512) {
    return RangeCopyPlanner::plan(from, chunk, "identity", std::nullopt);
  };
  const std::string here = plan(SampleModel().plan("/here/p")).canonicalFingerprint;
  RepackPlan bent = SampleModel().plan("/elsewhere/deeper/q/");
  EXPECT_EQ(plan(bent).canonicalFingerprint, here);
  EXPECT_NE(plan(bent, 511).canonicalFingerprint, here);
  bent.layers[1].subTensors[0].sourceTensor.absoluteOffset += 1;
  EXPECT_NE(plan(bent).canonicalFingerprint, here);

  for (auto& entry : bent.resident.entries) entry.sourceWeight.absoluteOffset = 1000;
  EXPECT_EQ(plan(bent, 64).remoteGapBytesDownloaded, 0U) << "copies that share source bytes leave no gap";
  bent.layers[0].path = "/x";
  EXPECT_EQ(errorText([&] { plan(bent, 0); }),
            invalid + "destination /x is outside partial output /elsewhere/deeper/q");
}

TEST(SupportedModel, PlansToItsKnownFigures) {
  const TemporaryDirectory directory;
  writeFile(directory / "model.safetensors.index.json", SupportedModelData::indexJson());
  writeFile(directory / "config.json", contentOf(*SyntheticCheckpoint::fullSize(1)->file("config.json")));
  const auto meta = IndexLoader::load(directory.path());
  std::vector<Safetensors::Header> headers;
  for (const std::string_view header : SupportedModelData::shardHeaders()) {
    const std::string shard = fmt::format("model-{:05}-of-00003.safetensors", headers.size() + 1);
    std::uint64_t fileSize = 0;
    for (const auto& tensor : Safetensors::parseHeaderBytes(shard, maximumU64, header).tensors)
      fileSize = std::max(fileSize, tensor.absoluteOffset + tensor.sizeBytes);
    headers.push_back(Safetensors::parseHeaderBytes(shard, fileSize, header));
  }
  const RepackPlan plan =
      RepackPlanner::plan(meta, ArchInfo::load(meta.configPath), headers, directory / "out.partial");
  EXPECT_EQ(plan.matchedModelID, "mlx-community/gemma-4-26b-a4b-it-4bit");
  EXPECT_EQ(plan.bitsOverrideCount, 30);
  EXPECT_THAT(plan.resident.entries, SizeIs(597));
  EXPECT_THAT(plan.excludedMultimodalTensorNames, SizeIs(358));
  EXPECT_EQ(plan.resident.indexSize, 81920U);
  EXPECT_EQ(plan.layers.at(29).expertStride, 3358720U);

  const RangeCopyPlan ranges = RangeCopyPlanner::plan(plan, 67108864, "identity", std::nullopt);
  EXPECT_THAT(ranges.coalescedCopies, SizeIs(223));
  EXPECT_EQ(ranges.remoteBytesToDownload, 14620479420U);
  EXPECT_EQ(ranges.remoteGapBytesDownloaded, 420423552U);
  EXPECT_EQ(ranges.expectedOutputs.at(0), (RemoteExpectedOutput{"model_weights.bin", 1353771068}));
  EXPECT_EQ(ranges.expectedOutputs.at(30), (RemoteExpectedOutput{"packed_experts/layer_29.bin", 429916160}));
  // Reckoned by another program from the same headers: they pin every offset of the artifact.
  EXPECT_EQ(ranges.residentIndexSha256, "0c99c7dffed86d99ba1756854b130e8b9f721d4483a410ece99f9dc134fcd293");
  EXPECT_EQ(ranges.canonicalFingerprint, "e325a32938f9858715369aff63484730c8d3f863aaa9b98279efac353cd21c47");
}

}  // namespace
}  // namespace vellicor::testing
