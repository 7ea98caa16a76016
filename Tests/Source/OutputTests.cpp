#include <gmock/gmock.h>

#include "Tests/Source/TinyModel.h"
#include "Tests/Support/TemporaryDirectory.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"
#include "VellicorRepackCore/Output/MorlenJSON.h"
#include "VellicorRepackCore/Output/MorlenLayoutValidator.h"
#include "VellicorRepackCore/Output/ResidentWriter.h"

namespace vellicor {
namespace {

using namespace vellicor::testing;
using ::testing::Each;
using ::testing::StartsWith;
using DType = MorlenFormatV1::DType;

const std::string invalid = "configuration invalid: ";

TEST(ResidentWriter, WritesTheIndexBeforeASparsePayload) {
  const TemporaryDirectory directory;
  const ResidentFilePlan plan = TinyModel().plan(directory / "a/b").resident;
  RepackAudit audit;
  ResidentWriter::createAndWriteIndex(plan, audit);
  EXPECT_EQ(audit.largestScratchBytes, 16384);

  const std::string file = readFile(directory / "a/b/model_weights.bin");
  ASSERT_EQ(file.size(), plan.indexSize + plan.residentSize);
  EXPECT_THAT(file.substr(16384), Each('\0'));
  EXPECT_EQ(file.substr(24 + 72 * plan.entries.size(), plan.stringTable.size()), plan.stringTable);
}

TEST(ResidentWriter, EncodesNoIndexThatAReaderWouldRefuse) {
  ResidentFilePlan valid;
  valid.indexSize = 16384;
  valid.residentSize = 2;
  valid.stringTable = std::string(16384 - 24 - 72, 'n');
  valid.stringTableOffsets = {0};
  ResidentEntry& entry = valid.entries.emplace_back();
  entry.name = valid.stringTable;
  entry.logicalShape4 = {1, 0, 0, 0};
  entry.fileOffset = 16384;
  entry.sizeBytes = 2;

  const std::string nameRange = invalid + "resident index entry 0 name range is invalid";
  const std::string notRepresentable = invalid + "resident index entry 0 is not representable";
  const std::vector<Bent<ResidentFilePlan>> rows = {
      {[](auto&) {}, "no error"},
      {[](auto& p) { p.entries[0].name += 'n'; }, nameRange},
      {[](auto& p) { p.stringTableOffsets[0] = ~0U; }, nameRange},
      {[](auto& p) { p.entries[0].name.resize(65536); }, notRepresentable},
      {[](auto& p) { p.entries[0].dtype = DType{4}; }, notRepresentable},
      {[](auto& p) { p.stringTable += 'n'; },
       invalid + "resident index string table exceeds declared index region"},
      {[](auto& p) { p.indexSize = p.entries[0].fileOffset = 1032192; }, "no error"},
      {[](auto& p) { p.indexSize = 1048576; }, "resident index size 1048576 exceeds limit 1048575"},
      {[](auto& p) { p.indexSize = 16777217; },
       invalid + "resident index size 16777217 exceeds v1 metadata cap"},
      {[](auto& p) { p.stringTableOffsets = {}; },
       invalid + "resident index entry/string offset count mismatch"},
      {[](auto& p) { p.indexSize = 95; }, invalid + "resident index table exceeds declared index region"},
      {[](auto& p) { p.entries[0].sizeBytes = 0; },
       invalid + "resident index encoding invalid: resident.entries[0].weights: primary payload is empty"},
  };
  expectErrors(valid, rows, [](const ResidentFilePlan& plan) {
    EXPECT_EQ(ResidentWriter::encodeIndex(plan).size(), plan.indexSize);
  });
}

TEST(MorlenJSON, ListsEveryExpertOfEveryLayer) {
  const RepackPlan plan = TinyModel().plan();
  const auto layout = MorlenPackedExpertsLayoutCodec::decode(MorlenJSON::encodeLayout(plan, 16384));
  EXPECT_EQ(layout.layers.at(1).file, "layer_01.bin");
  MorlenExpertV1 expert = layout.layers[1].experts.at(3);
  EXPECT_EQ(expert.tensors.size(), 9U);
  EXPECT_EQ(expert.tensors.at("up"), (MorlenSubTensorV1{72, 64, "U32", {2, 64}, 4}));
  EXPECT_EQ(expert.tensors.at("down_biases"), (MorlenSubTensorV1{212, 4, "BF16", {2, 1}, std::nullopt}));
  expert.tensors.clear();
  EXPECT_EQ(expert, (MorlenExpertV1{3, std::nullopt, 3 * 16384, 16384, {}}));

  const std::vector<Bent<std::vector<PerExpertTensorSlice>>> rows = {
      {[](auto& s) { s[1].dtype = DType::fp16; },
       invalid + "unsupported packed expert dtype fp16 for gate_scales"},
      {[](auto& s) { s[0].logicalShape[1] = 4294967296; }, invalid + "packed expert shape[1] exceeds UInt32"},
      {[](auto& s) { s[3].role = "gate"; }, invalid + "duplicate packed expert tensor key gate"},
      {[](auto& s) { s[0].sizeInExpertBlob = 0; }, "expert[0].tensors.gate: invalid dtype or shape"},
  };
  expectErrors(plan.layers[0].subTensors, rows, [&](const auto& slices) {
    RepackPlan bent = plan;
    bent.layers[0].subTensors = slices;
    MorlenJSON::encodeLayout(bent, 16384);
  });
}

TEST(MorlenLayoutValidator, ComparesTheWrittenLayoutWithThePlan) {
  const TemporaryDirectory directory;
  const std::string path = directory / "layout.json";
  const std::string failed = invalid + "layout.json validation failed: ";
  const RepackPlan written = TinyModel().plan();
  RepackAudit audit;
  const auto validate = [&](const RepackPlan& plan) { MorlenLayoutValidator::validate(path, plan, &audit); };
  writeFile(path, "{");
  EXPECT_THAT(errorText([&] { validate(written); }), StartsWith(failed + "packed_experts/layout.json: "));
  writeFile(path, MorlenJSON::encodeLayout(written, 16384));
  const std::vector<Bent<RepackPlan>> rows = {
      {[](auto& p) { p.layers.emplace_back().layerIndex = 2; }, failed + "layer count mismatch"},
      {[](auto& p) { p.layers[1].expertStride = 32768; }, failed + "plan mismatch in layer 1"},
      {[](auto& p) { p.layers[0].expertsPerLayer = 3; }, failed + "plan mismatch in layer 0"},
      {[](auto& p) { p.layers.pop_back(); }, failed + "malformed layer"},
  };
  expectErrors(written, rows, validate);
  EXPECT_FALSE(audit.packedExpertLayoutOffsetValidationPassed);
  validate(written);
  EXPECT_TRUE(audit.packedExpertLayoutOffsetValidationPassed);
  EXPECT_EQ(audit.packedExpertLayoutAuditLogicalIDCount, 8);
}

TEST(MorlenJSON, FillsTheManifestFromThePlan) {
  TinyModel model;
  model.arch = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11.5, 12, 13, 0.5, 2, 4, 3, true, false, {0, 1}, "act"};
  std::map<std::string, std::int64_t> widths = {
      {"embedding", 4}, {"attention", 5}, {"router", 8}, {"sharedExpert", 6}, {"routedExpert", 3}};
  std::vector<MorlenJSON::NamedFile> files = {{"b", {7, std::string(64, 'a')}}};
  const auto encode = [&] {
    return MorlenJSON::encodeManifest(model.plan(), "model", "hash", files, 4, 2, 16384, widths);
  };
  const auto slot = [](int bits) { return MorlenManifestQuantSlotV1{bits, "affine", "BF16", "BF16", 64}; };
  const std::map<std::string, bool> flags = {
      {"aneSharedExpert", false}, {"streamingPresent", true}, {"turboQuantKV", false}};
  const MorlenManifestArchV1 arch = {1,  2,  3,   4, 5, 6, 7,    8,     9,     10,    11.5,
                                     12, 13, 0.5, 2, 4, 3, true, false, "act", {0, 1}};
  const MorlenManifestQuantV1 quant = {slot(4), slot(5), slot(8), slot(6), slot(3)};
  const MorlenManifestV1 expected{
      "MORLEN", 1, 0,     flags, "model", "hash", arch, quant, {{"b", {7, std::string(64, 'a')}}},
      4,        2, 16384, 1};
  EXPECT_EQ(MorlenManifestCodec::decode(encode()), expected);
  widths.erase("router");
  EXPECT_EQ(errorText(encode), invalid + "missing manifest quant slot bit width for router");
  files.push_back(files[0]);
  EXPECT_EQ(errorText(encode), invalid + "duplicate manifest file entry b");
}

}  // namespace
}  // namespace vellicor
