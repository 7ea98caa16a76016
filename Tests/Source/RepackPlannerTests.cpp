#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Tests/Source/TinyModel.h"

namespace vellicor {
namespace {

using namespace vellicor::testing;
using ::testing::ElementsAre;
using Dtype = SourceTensor::Dtype;

const std::string experts = "language_model.layers.0.experts.switch_glu.";
const std::string gate = experts + "gate_proj";
const std::string embed = "language_model.model.embed_tokens";

TEST(RepackPlanner, OrdersResidentTensorsByGroupLayerSlotAndName) {
  const std::vector<std::string> expected = {embed + ".weight",
                                             "language_model.layers.2.self_attn.q_proj.weight",
                                             "language_model.layers.2.self_attn.k_proj.weight",
                                             "language_model.layers.2.router.scale",
                                             "language_model.layers.2.input_layernorm.weight",
                                             "language_model.layers.2.layer_scalar",
                                             "language_model.layers.2.a_stranger",
                                             "language_model.layers.2.b_stranger",
                                             "language_model.layers.10.self_attn.q_proj.weight",
                                             "language_model.a.layers.x.weight",
                                             "language_model.layers.7",
                                             "language_model.model.norm.weight"};
  TinyModel model;
  model.header.tensors.clear();
  for (auto name = expected.rbegin(); name != expected.rend(); ++name) model.add(*name, Dtype::bf16, {1});
  std::vector<std::string> planned;
  for (const auto& entry : model.plan().resident.entries) planned.push_back(entry.name);
  EXPECT_EQ(planned, expected);
}

TEST(RepackPlanner, PacksResidentTensorsWithoutPadding) {
  TinyModel model;
  model.add("language_model.zz.table", Dtype::u32, {2, 3});
  const RepackPlan plan = model.plan("/out/p/");
  EXPECT_EQ(plan.resident.path, "/out/p/model_weights.bin");
  EXPECT_EQ(plan.resident.indexSize, 16384U);
  std::vector<std::string> entries;
  for (const ResidentEntry& e : plan.resident.entries) {
    entries.push_back(fmt::format("{} [{}x{}] {}+{} {}+{} {}+{} {} bits", e.name, e.logicalShape4[0],
                                  e.logicalShape4[1], e.fileOffset, e.sizeBytes, e.scaleOffset, e.scaleSize,
                                  e.biasOffset, e.biasSize, e.quantSpec.value_or(QuantSpec{}).bits));
  }
  EXPECT_THAT(
      entries,
      ElementsAre(embed + ".weight [32x64] 16384+1024 17408+64 17472+64 4 bits",
                  "language_model.layers.0.router.proj.weight [4x64] 17536+256 17792+8 17800+8 8 bits",
                  "language_model.layers.0.input_layernorm.weight [64x0] 17808+128 0+0 0+0 0 bits",
                  "language_model.layers.1.input_layernorm.weight [64x0] 17936+128 0+0 0+0 0 bits",
                  "language_model.zz.table [2x3] 18064+24 0+0 0+0 0 bits",
                  "language_model.model.norm.weight [64x0] 18088+128 0+0 0+0 0 bits"));
  EXPECT_EQ(plan.resident.residentSize, 18088U + 128 - 16384);
  EXPECT_THAT(
      plan.excludedMultimodalTensorNames,
      ElementsAre("vision_tower.patch.biases", "vision_tower.patch.scales", "vision_tower.patch.weight"));
}

TEST(RepackPlanner, LaysOutOneBlobPerExpert) {
  TinyModel model;
  model.arch.numLayers = 101;
  const std::vector<LayerFilePlan> layers = model.plan().layers;
  EXPECT_EQ(layers.at(1).path, "/out/p/packed_experts/layer_01.bin");
  EXPECT_EQ(layers.at(100).path, "/out/p/packed_experts/layer_100.bin");
  EXPECT_EQ(layers[1].expertsPerLayer, 4);
  EXPECT_EQ(layers[100].expertsPerLayer, 0);
  EXPECT_EQ(layers[1].expertStride, 16384U);
  std::string slices;
  for (const auto& s : layers[0].subTensors) {
    slices += fmt::format("{} {}+{} [{}x{}] {}; ", s.sourceTensor.name.substr(experts.size()),
                          s.offsetInExpertBlob, s.sourceOffsetPerExpert, s.logicalShape.at(0),
                          s.logicalShape.at(1), s.bitsForWeights.value_or(0));
  }
  EXPECT_EQ(
      slices,
      "gate_proj.weight 0+64 [2x64] 4; gate_proj.scales 64+4 [2x1] 0; gate_proj.biases 68+4 [2x1] 0; "
      "up_proj.weight 72+64 [2x64] 4; up_proj.scales 136+4 [2x1] 0; up_proj.biases 140+4 [2x1] 0; "
      "down_proj.weight 144+64 [2x64] 4; down_proj.scales 208+4 [2x1] 0; down_proj.biases 212+4 [2x1] 0; ");
  model.arch.numLayers = 1;
  EXPECT_EQ(model.plan().resident.entries.size(), 5U + 3U) << "experts of an unknown layer stay resident";
}

TEST(RepackPlanner, RefusesWhatItCannotPlace) {
  const std::string config = "configuration invalid: ";
  const std::string badGate = "shape mismatch for " + gate + ".weight: ";
  const std::string badX = "shape mismatch for language_model.x: ";
  const std::string quantised = "quantized tensor ";
  const std::string expertRange = " experts in each of 2 layers is outside 1 to 131072";
  const std::string noFit = " is not representable as four 32-bit dimensions";
  const std::vector<Bent<TinyModel>> rows = {
      {[](auto& m) { m.add("orphaned.scales", Dtype::bf16, {1}); }, "no error"},
      {[](auto& m) { m.add("lm_head.x", Dtype::bf16, {1}); }, "unknown tensor prefix: lm_head.x"},
      {[](auto& m) {
         m.add(gate + ".extra", Dtype::u32, {4, 2, 8});
       },
       config + "two routed-expert tensors for layer 0 role gate"},
      {[](auto& m) { m.remove(experts + "up_proj.weight"); },
       config + "layer 0 routed-expert bundle incomplete: [\"gate\": \"" + gate + ".weight\", \"down\": \"" +
           experts + "down_proj.weight\"]"},
      {[](auto& m) { m.arch.numExperts = 2; },
       badGate + "expected U32 rank-3 with leading 2, got u32 [4, 2, 8]"},
      {[](auto& m) { m.remove(gate + ".scales"); }, quantised + gate + ".weight missing .scales companion"},
      {[](auto& m) { m.remove(embed + ".biases"); }, quantised + embed + ".weight missing .biases companion"},
      {[](auto& m) { m.find(gate + ".biases")->dtype = Dtype::fp16; },
       "dtype mismatch for " + gate + ".weight: expected BF16 scales/biases, got bf16/fp16"},
      {[](auto& m) { m.find(gate + ".scales")->sizeBytes = 6; },
       badGate + "source bytes not evenly divisible by 4 experts"},
      {[](auto& m) { m.find(gate + ".scales")->shape = {}; },
       badGate + gate + ".scales has no expert dimension"},
      {[](auto& m) { m.meta.baseBits = 0; }, config + "bit width 0 of " + embed + " is outside 1 to 32"},
      {[](auto& m) { m.meta.baseBits = 33; }, config + "bit width 33 of " + embed + " is outside 1 to 32"},
      {[](auto& m) { m.meta.bitsOverrides[gate].bits = 3; },
       badGate + "8 packed words do not hold whole 3-bit weights"},
      {[](auto& m) {
         m.add("language_model.x", Dtype::bf16, {1, 1, 1, 1, 1});
       },
       badX + "[1, 1, 1, 1, 1]" + noFit},
      {[](auto& m) { m.add("language_model.x", Dtype::bf16, {4294967296}); }, badX + "[4294967296]" + noFit},
      {[](auto& m) { m.arch.numExperts = 0; }, config + "0" + expertRange},
      {[](auto& m) { m.arch.numExperts = 131073; }, config + "131073" + expertRange},
      {[](auto& m) { m.arch.numLayers = -1; }, config + "-1 layers is outside 0 to 65536"},
      {[](auto& m) { m.arch.numLayers = 65537; }, config + "65537 layers is outside 0 to 65536"},
  };
  expectErrors(TinyModel(), rows, [](const TinyModel& model) { model.plan(); });
}

}  // namespace
}  // namespace vellicor
