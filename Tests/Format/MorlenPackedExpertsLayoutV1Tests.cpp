#include "Tests/Format/Samples.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"

namespace vellicor::testing {
namespace {

using Codec = MorlenPackedExpertsLayoutCodec;

TEST(MorlenPackedExpertsLayoutV1, GoldenTextBothWays) {
  const std::map<std::string, MorlenSubTensorV1> tensors{{"up", {0, 8, "U32", {1, 16}, 4}},
                                                         {"up_biases", {8, 2, "BF16", {1}, {}}}};
  const MorlenPackedExpertsLayoutV1 layout{16384, 1, 1, {{0, "l.bin", {{{}, 0, 0, 16384, tensors}}}}};
  const std::string text = goldenText("layout.json");
  EXPECT_EQ(Codec::encode(layout), text);
  EXPECT_EQ(Codec::decode(text), layout);
  EXPECT_EQ(Codec::decode(Codec::encode(sampleLayout())), sampleLayout());
}

TEST(MorlenPackedExpertsLayoutV1, ChangedDocuments) {
  const std::string text = Codec::encode(sampleLayout());
  EXPECT_EQ(expectDocumentRows("layout_rows.json", text, Codec::decode), 50U);
}

TEST(MorlenPackedExpertsLayoutV1, TextsThatNoTreeHolds) {
  const std::string text = goldenText("layout.json");
  const std::string where = "packed_experts/layout.json: ";
  const std::string tensor = where + "layers[0].experts[0].tensors.up.";
  const std::string deep = std::string(511, '[') + std::string(511, ']');
  const std::tuple<const char*, std::string, std::string, std::string> rows[] = {
      {"the last of a key counts", "\"numLayers\"", R"("numLayers":7,"numLayers")", "no error"},
      {"and forgets the earlier", "\"layers\"", R"("layers":[{"layer":7,"file":"","experts":[]}],"layers")",
       "no error"},
      {"null for an optional", "\"physicalRank\" : 0", "\"physicalRank\" : null", "no error"},
      {"keys with escapes", "numLayers", "num\\u004cayers", "no error"},
      {"unknown keys", "\"layers\"", R"("x":{"layers":[{"y":[]},{}],"numLayers":"z"},"layers")", "no error"},
      {"null for a required", "\"size\" : 8", "\"size\" : null",
       tensor + "size: expected an unsigned integer"},
      {"a container for a number", "\"size\" : 8", "\"size\" : [1,[2]]",
       tensor + "size: expected an unsigned integer"},
      {"a fraction", "\"size\" : 8", "\"size\" : 8.5", tensor + "size: expected an unsigned integer"},
      {"a rounded integer", "\"size\" : 8", "\"size\" : 9007199254740993.0",
       tensor + "size: expected an unsigned integer"},
      {"an object among dimensions", "16\n", "{}\n", tensor + "shape: expected an array of integers"},
      {"NUL after it", "8,", std::string("8,\0", 3), where + "JSON with a NUL byte"},
      {"malformed", "\"layers\" : [", "\"layers\" : [}", where + "[json.exception.parse_error.101]"},
      {"deep, ignored", "\"layers\"", "\"x\":" + deep + ",\"layers\"", "no error"},
      {"too deep, ignored", "\"layers\"", "\"x\":[" + deep + "],\"layers\"",
       where + "JSON nested deeper than 512 levels"},
  };
  for (const auto& [name, from, to, expected] : rows) {
    SCOPED_TRACE(name);
    const std::string outcome = errorText([&] { Codec::decode(replaced(text, from, to)); });
    EXPECT_EQ(outcome.substr(0, expected.size()), expected);
  }
  EXPECT_EQ(errorText([] { Codec::decode("[]"); }), where + "document: expected an object");
}

TEST(MorlenPackedExpertsLayoutV1, InvalidLayoutIsNotWritten) {
  MorlenPackedExpertsLayoutV1 layout = sampleLayout();
  layout.layers.pop_back();
  EXPECT_EQ(errorText([&] { Codec::encode(layout); }), "layout: invalid dimensions or stride");
}

TEST(MorlenPackedExpertsLayoutV1, CrossValidation) {
  using M = MorlenManifestV1;
  using L = MorlenPackedExpertsLayoutV1;
  const char* const dims = "manifest/layout: dimension mismatch";
  const char* const size = "manifest.files.packed_experts/layer_01.bin: missing or wrong layer size";
  const std::tuple<const char*, void (*)(M&, L&), std::string> rows[] = {
      {"untouched", [](M&, L&) {}, "no error"},
      {"layers", [](M& m, L&) { m.numLayers = 3; }, dims},
      {"experts", [](M& m, L&) { m.expertsPerLayer = 3; }, dims},
      {"stride", [](M& m, L&) { m.expertStride = 16384; }, dims},
      {"wraps", [](M& m, L& l) { m.expertStride = l.expertStride = 1ULL << 62; },
       "layout.layerSize: arithmetic overflow"},
      {"missing", [](M& m, L&) { m.files.erase("packed_experts/layer_01.bin"); }, size},
      {"size", [](M& m, L&) { m.files["packed_experts/layer_01.bin"].size += 1; }, size},
  };
  for (const auto& [name, mutate, expected] : rows) {
    SCOPED_TRACE(name);
    M manifest = sampleManifest();
    L layout = sampleLayout();
    mutate(manifest, layout);
    EXPECT_EQ(errorText([&] { MorlenV1StructuralValidator::crossValidate(manifest, layout); }), expected);
  }
}

}  // namespace
}  // namespace vellicor::testing
