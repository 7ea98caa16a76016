#include "Tests/Format/Samples.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"

namespace vellicor {
namespace {

using testing::errorText;
using Codec = MorlenPackedExpertsLayoutCodec;

TEST(MorlenPackedExpertsLayoutV1, GoldenTextBothWays) {
  const std::map<std::string, MorlenSubTensorV1> tensors{{"up", {0, 8, "U32", {1, 16}, 4}},
                                                         {"up_biases", {8, 2, "BF16", {1}, {}}}};
  const MorlenPackedExpertsLayoutV1 layout{16384, 1, 1, {{0, "l.bin", {{{}, 0, 0, 16384, tensors}}}}};
  const std::string text = testing::goldenText("layout.json");
  EXPECT_EQ(Codec::encode(layout), text);
  EXPECT_EQ(Codec::decode(text), layout);
  EXPECT_EQ(Codec::decode(Codec::encode(testing::sampleLayout())), testing::sampleLayout());
}

TEST(MorlenPackedExpertsLayoutV1, ChangedDocuments) {
  const std::string text = Codec::encode(testing::sampleLayout());
  EXPECT_EQ(testing::expectDocumentRows("layout_rows.json", text, Codec::decode), 50U);
}

TEST(MorlenPackedExpertsLayoutV1, InvalidLayoutIsNotWritten) {
  MorlenPackedExpertsLayoutV1 layout = testing::sampleLayout();
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
    M manifest = testing::sampleManifest();
    L layout = testing::sampleLayout();
    mutate(manifest, layout);
    EXPECT_EQ(errorText([&] { MorlenV1StructuralValidator::crossValidate(manifest, layout); }), expected);
  }
}

}  // namespace
}  // namespace vellicor
