#include "Tests/Support/SampleModel.h"
#include "VellicorRepackCore/Output/MorlenJSON.h"
#include "VellicorRepackCore/Output/MorlenLayoutValidator.h"
#include "VellicorRepackCore/Output/ResidentWriter.h"

namespace vellicor::testing {
namespace {

using DType = MorlenFormatV1::DType;

const std::string invalid = "configuration invalid: ";

TEST(ResidentWriter, EncodesNoIndexThatAReaderWouldRefuse) {
  const std::string name(16384 - 24 - 72, 'n');
  const ResidentEntry entry{name, DType::bf16, {1, 0, 0, 0}, 16384, 2, 0, 0, 0, 0, {}, {}, {}, {}};
  const ResidentFilePlan valid{"/f", {entry}, name, {0}, 16384, 2};

  const std::string index = invalid + "resident index ";
  const std::vector<Bent<ResidentFilePlan>> rows = {
      {[](auto&) {}, "no error"},
      {[](auto& p) { p.entries[0].name += 'n'; }, index + "entry 0 name range is invalid"},
      {[](auto& p) { p.stringTableOffsets[0] = ~0U; }, index + "entry 0 name range is invalid"},
      {[](auto& p) { p.entries[0].name.resize(65536); }, index + "entry 0 is not representable"},
      {[](auto& p) { p.entries[0].dtype = DType{4}; }, index + "entry 0 is not representable"},
      {[](auto& p) { p.stringTable += 'n'; }, index + "string table exceeds declared index region"},
      {[](auto& p) { p.indexSize = p.entries[0].fileOffset = 1032192; }, "no error"},
      {[](auto& p) { p.indexSize = 1048576; }, "resident index size 1048576 exceeds limit 1048575"},
      {[](auto& p) { p.indexSize = 16777217; }, index + "size 16777217 exceeds v1 metadata cap"},
      {[](auto& p) { p.stringTableOffsets = {}; }, index + "entry/string offset count mismatch"},
      {[](auto& p) { p.indexSize = 95; }, index + "table exceeds declared index region"},
      {[](auto& p) { p.entries[0].sizeBytes = 0; },
       index + "encoding invalid: resident.entries[0].weights: primary payload is empty"},
  };
  expectErrors(valid, rows, [](const ResidentFilePlan& plan) {
    EXPECT_EQ(ResidentWriter::encodeIndex(plan).size(), plan.indexSize);
  });
}

TEST(MorlenJSON, WritesNoLayoutThatAReaderWouldRefuse) {
  const RepackPlan plan = SampleModel().plan();
  const std::vector<Bent<RepackPlan>> rows = {
      {[](auto& p) { p.layers[1].subTensors[1].dtype = DType::fp16; },
       invalid + "unsupported packed expert dtype fp16 for gate_scales"},
      {[](auto& p) { p.layers[1].subTensors[0].logicalShape[1] = 4294967296; },
       invalid + "packed expert shape[1] exceeds UInt32"},
      {[](auto& p) { p.layers[1].subTensors[3].role = "gate"; },
       invalid + "duplicate packed expert tensor key gate"},
      {[](auto& p) { p.layers[1].expertStride = 0; },
       "expert[0]: offset or size does not match physical rank"},
  };
  expectErrors(plan, rows, [](const RepackPlan& bent) { MorlenJSON::encodeLayout(bent, 16384); });
}

TEST(MorlenLayoutValidator, ComparesTheWrittenLayoutWithThePlan) {
  const TemporaryDirectory directory;
  const std::string path = directory / "layout.json";
  const std::string failed = invalid + "layout.json validation failed: ";
  const RepackPlan written = SampleModel().plan();
  RepackAudit audit;
  const auto validate = [&](const RepackPlan& plan) { MorlenLayoutValidator::validate(path, plan, &audit); };
  EXPECT_EQ(errorText([&] { validate(written); }), failed + "open(" + path + ") failed: errno 2");
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

TEST(MorlenJSON, RefusesAManifestThatMissesASlotOrNamesAFileTwice) {
  std::map<std::string, std::int64_t> widths = {
      {"embedding", 4}, {"attention", 5}, {"router", 8}, {"sharedExpert", 6}, {"routedExpert", 3}};
  std::vector<MorlenJSON::NamedFile> files = {{"b", {7, std::string(64, 'a')}}};
  const auto encode = [&] {
    return MorlenJSON::encodeManifest(SampleModel().plan(), "model", "hash", files, 4, 2, 16384, widths);
  };
  widths.erase("router");
  EXPECT_EQ(errorText(encode), invalid + "missing manifest quant slot bit width for router");
  files.push_back(files[0]);
  EXPECT_EQ(errorText(encode), invalid + "duplicate manifest file entry b");
}

}  // namespace
}  // namespace vellicor::testing
