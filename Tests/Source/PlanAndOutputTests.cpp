#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "Tests/Source/TinyModel.h"
#include "VellicorLab/TemporaryDirectory.h"
#include "VellicorRepackCore/Output/MorlenJSON.h"
#include "VellicorRepackCore/Output/MorlenLayoutValidator.h"
#include "VellicorRepackCore/Output/ResidentWriter.h"

namespace vellicor {
namespace {

using namespace vellicor::testing;
using Dtype = SourceTensor::Dtype;
using DType = MorlenFormatV1::DType;

const std::string invalid = "configuration invalid: ";
const std::string experts = "language_model.layers.0.experts.switch_glu.";
const std::string gate = experts + "gate_proj";
const std::string embed = "language_model.model.embed_tokens";

TEST(RepackPlanner, PlacesEveryTensor) {
  TinyModel model;
  model.arch.numLayers = 101;
  model.add("language_model.zz.table", Dtype::u32, {2, 3});
  model.add("language_model.layers.10.self_attn.q_proj.weight", Dtype::bf16, {1, 1, 1, 1});
  for (const char* name : {"layers.2.b", "layers.2.a", "layers.2.input_layernorm.weight",
                           "layers.2.self_attn.k_proj.weight", "a.layers.x.weight"})
    model.add(std::string("language_model.") + name, Dtype::bf16, {1});
  const RepackPlan plan = model.plan("/out/p/");
  std::vector<std::string> names;
  for (const ResidentEntry& entry : plan.resident.entries) names.push_back(entry.name.substr(15));
  EXPECT_EQ(fmt::format("{}", fmt::join(names, ", ")),
            "model.embed_tokens.weight, layers.0.router.proj.weight, layers.0.input_layernorm.weight, "
            "layers.1.input_layernorm.weight, layers.2.self_attn.k_proj.weight, "
            "layers.2.input_layernorm.weight, layers.2.a, layers.2.b, layers.10.self_attn.q_proj.weight, "
            "a.layers.x.weight, zz.table, model.norm.weight");
  EXPECT_EQ(plan.excludedMultimodalTensorNames.at(2), "vision_tower.patch.weight");
  EXPECT_EQ(plan.layers.at(100).path, "/out/p/packed_experts/layer_100.bin");
  EXPECT_EQ(plan.layers[100].expertsPerLayer, 0);
  model.arch.numLayers = 1;
  EXPECT_EQ(model.plan().resident.entries.size(), 12U + 3U) << "experts of an unknown layer stay resident";
}

TEST(RepackPlanner, RefusesWhatItCannotPlace) {
  const std::string bad = "shape mismatch for " + gate + ".weight: ";
  const std::string badX = "shape mismatch for language_model.x: ";
  const std::string quantised = "quantized tensor ";
  const std::string expertRange = " experts in each of 2 layers is outside 1 to 4096";
  const std::string noFit = " is not representable as four 32-bit dimensions";
  const auto adding = [](const char* name, Dtype dtype, const std::vector<std::uint64_t>& shape) {
    return [=](TinyModel& m) { m.add(name, dtype, shape); };
  };
  const std::vector<Bent<TinyModel>> rows = {
      {adding("orphaned.scales", Dtype::bf16, {1}), "no error"},
      {adding("lm_head.x", Dtype::bf16, {1}), "unknown tensor prefix: lm_head.x"},
      {adding("language_model.x", Dtype::bf16, {1, 1, 1, 1, 1}), badX + "[1, 1, 1, 1, 1]" + noFit},
      {adding("language_model.x", Dtype::bf16, {4294967296}), badX + "[4294967296]" + noFit},
      {adding("language_model.layers.1.experts.switch_glu.up_proj.x", Dtype::u32, {4, 2, 8}),
       invalid + "two routed-expert tensors for layer 1 role up"},
      {[](auto& m) { m.remove(experts + "up_proj.weight"); },
       invalid + "layer 0 routed-expert bundle incomplete: [\"gate\": \"" + gate + ".weight\", \"down\": \"" +
           experts + "down_proj.weight\"]"},
      {[](auto& m) { m.arch.numExperts = 2; }, bad + "expected U32 rank-3 with leading 2, got u32 [4, 2, 8]"},
      {[](auto& m) { m.remove(gate + ".scales"); }, quantised + gate + ".weight missing .scales companion"},
      {[](auto& m) { m.remove(embed + ".biases"); }, quantised + embed + ".weight missing .biases companion"},
      {[](auto& m) { m.find(gate + ".biases")->dtype = Dtype::fp16; },
       "dtype mismatch for " + gate + ".weight: expected BF16 scales/biases, got bf16/fp16"},
      {[](auto& m) { m.find(gate + ".scales")->sizeBytes = 6; },
       bad + "source bytes not evenly divisible by 4 experts"},
      {[](auto& m) { m.find(gate + ".scales")->shape = {}; }, bad + gate + ".scales has no expert dimension"},
      {[](auto& m) { m.meta.baseBits = 0; }, invalid + "bit width 0 of " + embed + " is outside 1 to 32"},
      {[](auto& m) { m.meta.bitsOverrides[gate].bits = 3; },
       bad + "8 packed words do not hold whole 3-bit weights"},
      {[](auto& m) { m.arch.numExperts = 0; }, invalid + "0" + expertRange},
      {[](auto& m) { m.arch.numExperts = 4097; }, invalid + "4097" + expertRange},
      {[](auto& m) { m.arch.numLayers = 65537; }, invalid + "65537 layers is outside 0 to 65536"},
  };
  expectErrors(TinyModel(), rows, [](const TinyModel& model) { model.plan(); });
}

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
  const RepackPlan plan = TinyModel().plan();
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
  const RepackPlan written = TinyModel().plan();
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
    return MorlenJSON::encodeManifest(TinyModel().plan(), "model", "hash", files, 4, 2, 16384, widths);
  };
  widths.erase("router");
  EXPECT_EQ(errorText(encode), invalid + "missing manifest quant slot bit width for router");
  files.push_back(files[0]);
  EXPECT_EQ(errorText(encode), invalid + "duplicate manifest file entry b");
}

}  // namespace
}  // namespace vellicor
