#include "Tests/Support/SampleModel.h"

namespace vellicor::testing {
namespace {

using Dtype = SourceTensor::Dtype;

const std::string invalid = "configuration invalid: ";
const std::string experts = "language_model.layers.0.experts.switch_glu.";
const std::string gate = experts + "gate_proj";
const std::string embed = "language_model.model.embed_tokens";

TEST(RepackPlanner, PlacesEveryTensor) {
  SampleModel model;
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
    return [=](SampleModel& m) { m.add(name, dtype, shape); };
  };
  const std::vector<Bent<SampleModel>> rows = {
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
  expectErrors(SampleModel(), rows, [](const SampleModel& model) { model.plan(); });
}

}  // namespace
}  // namespace vellicor::testing
