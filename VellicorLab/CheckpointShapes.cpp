#include "VellicorLab/CheckpointShapes.h"

#include <array>
#include <string_view>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace vellicor {

namespace {

constexpr std::int64_t baseBits = 4;
constexpr std::int64_t routerBits = 8;
constexpr std::int64_t bitsPerWord = 32;

/// Adds tensors whose names begin with one module path.
class TensorList {
 public:
  TensorList(std::vector<NamedShape>& tensors, std::int64_t groupSize, std::string prefix)
      : tensors_(tensors), groupSize_(groupSize), prefix_(std::move(prefix)) {}

  void vector(std::string_view name, std::int64_t length) { add(name, "BF16", {length}); }

  void quantised(const std::string& module, std::int64_t outputs, std::int64_t inputs,
                 std::int64_t bits = baseBits) {
    quantised(module, std::vector{outputs}, inputs, bits);
  }

  void stacked(const std::string& module, std::int64_t count, std::int64_t outputs, std::int64_t inputs) {
    quantised(module, std::vector{count, outputs}, inputs, baseBits);
  }

 private:
  void quantised(const std::string& module, std::vector<std::int64_t> shape, std::int64_t inputs,
                 std::int64_t bits) {
    shape.push_back(inputs * bits / bitsPerWord);
    add(module + ".weight", "U32", shape);
    shape.back() = inputs / groupSize_;
    add(module + ".scales", "BF16", shape);
    add(module + ".biases", "BF16", shape);
  }

  void add(std::string_view name, const char* dtype, const std::vector<std::int64_t>& shape) {
    tensors_.push_back({fmt::format("{}{}", prefix_, name), dtype, {shape.begin(), shape.end()}});
  }

  std::vector<NamedShape>& tensors_;
  std::int64_t groupSize_;
  std::string prefix_;
};

constexpr std::array<const char*, 7> layerNorms = {"input_layernorm",
                                                   "post_attention_layernorm",
                                                   "pre_feedforward_layernorm",
                                                   "pre_feedforward_layernorm_2",
                                                   "post_feedforward_layernorm",
                                                   "post_feedforward_layernorm_1",
                                                   "post_feedforward_layernorm_2"};

void addAttention(TensorList& layer, const CheckpointDimensions& d, bool full) {
  const std::int64_t headDim = full ? d.fullHeadDim : d.headDim;
  const std::int64_t queries = d.heads * headDim;
  const std::int64_t keys = (full ? d.fullKVHeads : d.kvHeads) * headDim;
  layer.quantised("self_attn.q_proj", queries, d.hidden);
  layer.quantised("self_attn.k_proj", keys, d.hidden);
  if (!full) layer.quantised("self_attn.v_proj", keys, d.hidden);
  layer.quantised("self_attn.o_proj", d.hidden, queries);
  layer.vector("self_attn.q_norm.weight", headDim);
  layer.vector("self_attn.k_norm.weight", headDim);
}

void addFeedForward(TensorList& layer, const CheckpointDimensions& d) {
  layer.quantised("mlp.gate_proj", d.intermediate, d.hidden);
  layer.quantised("mlp.up_proj", d.intermediate, d.hidden);
  layer.quantised("mlp.down_proj", d.hidden, d.intermediate);
  layer.quantised("router.proj", d.experts, d.hidden, routerBits);
  layer.vector("router.scale", d.hidden);
  layer.vector("router.per_expert_scale", d.experts);
  layer.stacked("experts.switch_glu.gate_proj", d.experts, d.moeIntermediate, d.hidden);
  layer.stacked("experts.switch_glu.up_proj", d.experts, d.moeIntermediate, d.hidden);
  layer.stacked("experts.switch_glu.down_proj", d.experts, d.hidden, d.moeIntermediate);
}

nlohmann::json quantization(const CheckpointDimensions& d) {
  nlohmann::json object = {{"group_size", d.groupSize}, {"bits", baseBits}, {"mode", "affine"}};
  for (std::int64_t layer = 0; layer < d.layers; ++layer) {
    object[fmt::format("language_model.model.layers.{}.router.proj", layer)] = {{"group_size", d.groupSize},
                                                                                {"bits", routerBits}};
  }
  return object;
}

nlohmann::json textConfig(const CheckpointDimensions& d) {
  nlohmann::json layerTypes = nlohmann::json::array();
  for (std::int64_t layer = 0; layer < d.layers; ++layer) {
    layerTypes.push_back(d.isFullAttention(layer) ? "full_attention" : "sliding_attention");
  }
  return {{"hidden_size", d.hidden},
          {"num_hidden_layers", d.layers},
          {"intermediate_size", d.intermediate},
          {"moe_intermediate_size", d.moeIntermediate},
          {"num_experts", d.experts},
          {"top_k_experts", d.topKExperts},
          {"num_attention_heads", d.heads},
          {"num_key_value_heads", d.kvHeads},
          {"num_global_key_value_heads", d.fullKVHeads},
          {"head_dim", d.headDim},
          {"global_head_dim", d.fullHeadDim},
          {"vocab_size", d.vocab},
          {"sliding_window", 1024},
          {"final_logit_softcapping", 30.0},
          {"tie_word_embeddings", true},
          {"attention_k_eq_v", true},
          {"hidden_activation", "gelu_pytorch_tanh"},
          {"layer_types", layerTypes},
          {"rope_parameters",
           {{"full_attention", {{"rope_theta", 1000000.0}, {"partial_rotary_factor", 0.25}}},
            {"sliding_attention", {{"rope_theta", 10000.0}}}}}};
}

}  // namespace

CheckpointDimensions CheckpointDimensions::fullSize() {
  return {.layers = 30,
          .hidden = 2816,
          .intermediate = 2112,
          .moeIntermediate = 704,
          .experts = 128,
          .topKExperts = 8,
          .heads = 16,
          .kvHeads = 8,
          .fullKVHeads = 2,
          .headDim = 256,
          .fullHeadDim = 512,
          .vocab = 262144,
          .groupSize = 64,
          .fullAttentionEvery = 6};
}

CheckpointDimensions CheckpointDimensions::miniature() {
  CheckpointDimensions small = fullSize();
  small.hidden = 128;
  small.intermediate = 192;
  small.moeIntermediate = 64;
  small.experts = 4;
  small.topKExperts = 2;
  small.heads = 4;
  small.kvHeads = 2;
  small.fullKVHeads = 1;
  small.headDim = 16;
  small.fullHeadDim = 32;
  small.vocab = 512;
  return small;
}

CheckpointDimensions CheckpointDimensions::medium() {
  CheckpointDimensions fewer = fullSize();
  fewer.experts = 10;
  return fewer;
}

std::uint64_t NamedShape::byteCount() const {
  std::uint64_t bytes = dtype == "U32" ? 4 : 2;
  for (std::uint64_t dimension : shape) bytes *= dimension;
  return bytes;
}

std::vector<NamedShape> languageTensors(const CheckpointDimensions& d) {
  std::vector<NamedShape> tensors;
  TensorList model(tensors, d.groupSize, "language_model.model.");
  model.quantised("embed_tokens", d.vocab, d.hidden);
  model.vector("norm.weight", d.hidden);
  for (std::int64_t index = 0; index < d.layers; ++index) {
    TensorList layer(tensors, d.groupSize, fmt::format("language_model.model.layers.{}.", index));
    addAttention(layer, d, d.isFullAttention(index));
    addFeedForward(layer, d);
    layer.vector("layer_scalar", 1);
    for (const char* norm : layerNorms) layer.vector(fmt::format("{}.weight", norm), d.hidden);
  }
  return tensors;
}

std::string configJson(const CheckpointDimensions& dimensions) {
  return nlohmann::json{{"quantization", quantization(dimensions)}, {"text_config", textConfig(dimensions)}}
      .dump(4);
}

}  // namespace vellicor
