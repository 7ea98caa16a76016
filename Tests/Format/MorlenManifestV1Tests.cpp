#include <cmath>

#include "Tests/Format/Samples.h"
#include "VellicorFormat/MorlenManifestV1.h"

namespace vellicor::testing {
namespace {

using M = MorlenManifestV1;

TEST(MorlenManifestV1, GoldenTextBothWays) {
  const std::string text = goldenText("manifest.json");
  EXPECT_EQ(MorlenManifestCodec::encode(sampleManifest()), text);
  EXPECT_EQ(MorlenManifestCodec::decode(text), sampleManifest());
}

TEST(MorlenManifestV1, AbsentFieldsAreLeftOutAndComeBackAbsent) {
  M manifest = sampleManifest();
  manifest.quant.reset();
  manifest.sourceSnapshotHash.reset();
  manifest.bitWidthOverridesHonored.reset();
  manifest.flags.clear();
  const std::string text = MorlenManifestCodec::encode(manifest);
  for (const char* key : {"quant", "sourceSnapshotHash", "bitWidthOverridesHonored", "null"})
    EXPECT_EQ(text.find(key), std::string::npos) << key;
  EXPECT_EQ(MorlenManifestCodec::decode(text), manifest);
}

TEST(MorlenManifestV1, ChangedDocuments) {
  const auto rows =
      expectDocumentRows("manifest_rows.json", goldenText("manifest.json"), MorlenManifestCodec::decode);
  EXPECT_EQ(rows, 74U);
}

TEST(MorlenManifestV1, NumbersThatJsonCannotWriteAreNeverWritten) {
  for (const auto member : {&MorlenManifestArchV1::finalLogitSoftcap, &MorlenManifestArchV1::ropeTheta,
                            &MorlenManifestArchV1::fullRopeTheta, &MorlenManifestArchV1::partialRotaryFactor})
    for (const double number : {HUGE_VAL, -HUGE_VAL, std::nan("")}) {
      M manifest = sampleManifest();
      manifest.arch.*member = number;
      EXPECT_EQ(errorText([&] { MorlenManifestCodec::encode(manifest); }),
                "manifest.arch: invalid architecture values");
    }
}

TEST(MorlenManifestV1, PathOfVeryManyComponentsIsCheckedInTime) {
  M manifest = sampleManifest();
  std::string path = "a";
  for (int i = 0; i < 1000000; ++i) path += "/a";
  manifest.files[path] = {1, std::string(64, '0')};
  EXPECT_EQ(errorText([&] { MorlenManifestCodec::validate(manifest); }), "no error");
}

}  // namespace
}  // namespace vellicor::testing
