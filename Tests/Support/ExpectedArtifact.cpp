#include "Tests/Support/ExpectedArtifact.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <set>
#include <span>
#include <string_view>
#include <tuple>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "VellicorRepackCore/Base/Sha256Stream.h"

namespace vellicor::testing {

namespace {

using nlohmann::json;

constexpr std::uint64_t page = 16384;
constexpr const char* knownIndex = "bf198c9f5ea6462addca1966e5dd669c407537a876e82cf06db9084c5c850b13";
constexpr std::array components = {".weight", ".scales", ".biases"};

std::uint64_t toPage(std::uint64_t size) { return (size + page - 1) / page * page; }

void put(std::string& out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out += static_cast<char>(value >> (8 * i) & 0xFF);
}

/// JSON with sorted keys, one member or element per line, and " : " behind a key.
std::string pretty(const json& value, const std::string& indent = "") {
  if (value.is_string()) return "\"" + value.get<std::string>() + "\"";
  if (value.is_number_float()) return fmt::format("{}", value.get<double>());
  if (!value.is_structured()) return value.dump();
  std::string lines;
  for (const auto& [key, member] : value.items()) {
    lines += (lines.empty() ? "\n" : ",\n") + indent + "  ";
    if (value.is_object()) lines += "\"" + key + "\" : ";
    lines += pretty(member, indent + "  ");
  }
  if (lines.empty()) lines = "\n";
  return (value.is_object() ? "{" : "[") + lines + "\n" + indent + (value.is_object() ? "}" : "]");
}

struct Tensor {
  std::string shard;
  std::string dtype;
  std::vector<std::uint64_t> shape;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
};

std::string moduleOf(const std::string& weight) { return weight.substr(0, weight.rfind('.')); }

std::int64_t layerOf(const std::string& name) {
  const std::size_t at = name.find(".layers.");
  return at == std::string::npos ? -1 : std::stoll(name.substr(at + 8));
}

std::int64_t slotOf(const std::string& name) {
  constexpr std::array slots = {"self_attn.q_proj.weight",
                                "self_attn.k_proj.weight",
                                "self_attn.v_proj.weight",
                                "self_attn.o_proj.weight",
                                "self_attn.q_norm.weight",
                                "self_attn.k_norm.weight",
                                "router.proj.weight",
                                "router.scale",
                                "router.per_expert_scale",
                                "mlp.gate_proj.weight",
                                "mlp.up_proj.weight",
                                "mlp.down_proj.weight",
                                "input_layernorm.weight",
                                "post_attention_layernorm.weight",
                                "pre_feedforward_layernorm.weight",
                                "pre_feedforward_layernorm_2.weight",
                                "post_feedforward_layernorm.weight",
                                "post_feedforward_layernorm_1.weight",
                                "post_feedforward_layernorm_2.weight",
                                "layer_scalar"};
  for (std::size_t i = 0; i < slots.size(); ++i) {
    if (name.ends_with(std::string(".") + slots[i])) return static_cast<std::int64_t>(i);
  }
  return 100;
}

auto residentKey(const std::string& name) {
  const std::int64_t layer = layerOf(name);
  int group = layer < 0 ? 2 : 1;
  if (name == "language_model.model.embed_tokens.weight") group = 0;
  if (name == "language_model.model.norm.weight") group = 3;
  return std::tuple(group, group == 1 ? layer : 0, group == 1 ? slotOf(name) : 0, name);
}

class Expectation {
 public:
  explicit Expectation(const SyntheticCheckpoint& checkpoint)
      : checkpoint_(checkpoint),
        config_(json::parse(whole("config.json"))),
        quantization_(config_.at("quantization")),
        text_(config_.at("text_config")),
        experts_(text_.at("num_experts")),
        layers_(text_.at("num_hidden_layers")) {
    std::set<std::string> shards;
    const json index = json::parse(whole("model.safetensors.index.json"));
    for (const json& shard : index.at("weight_map")) shards.insert(shard.get<std::string>());
    for (const std::string& shard : shards) readHeader(shard);
  }

  std::map<std::string, std::string> artifact() {
    files_["model_weights.bin"] = residentFile();
    json layout = {{"numLayers", layers_}, {"expertsPerLayer", experts_}, {"layers", json::array()}};
    for (std::int64_t layer = 0; layer < layers_; ++layer) layout["layers"].push_back(layerFile(layer));
    layout["expertStride"] = stride_;
    files_["packed_experts/layout.json"] = pretty(layout);
    for (const char* sidecar : {"config.json", "tokenizer.json", "tokenizer_config.json",
                                "special_tokens_map.json", "chat_template.jinja", "chat_template.json"}) {
      if (checkpoint_.file(sidecar)) files_[fmt::format("tokenizer/{}", sidecar)] = whole(sidecar);
    }
    files_["manifest.json"] = pretty(manifest());
    return std::move(files_);
  }

 private:
  std::string bytes(const std::string& file, std::uint64_t offset, std::uint64_t size) const {
    std::string text(size, '\0');
    checkpoint_.file(file)->read(offset, std::as_writable_bytes(std::span(text)));
    return text;
  }
  std::string whole(const std::string& file) const { return bytes(file, 0, checkpoint_.file(file)->size()); }
  std::string bytes(const Tensor& tensor) const { return bytes(tensor.shard, tensor.offset, tensor.size); }

  void readHeader(const std::string& shard) {
    std::uint64_t length = 0;
    const std::string prefix = bytes(shard, 0, 8);
    for (std::size_t i = 8; i-- > 0;) length = length << 8 | static_cast<unsigned char>(prefix[i]);
    const json header = json::parse(bytes(shard, 8, length));
    for (const auto& [name, entry] : header.items()) {
      if (name == "__metadata__") continue;
      const std::vector<std::uint64_t> range = entry.at("data_offsets");
      tensors_[name] = {shard, entry.at("dtype"), entry.at("shape"), 8 + length + range[0],
                        range[1] - range[0]};
    }
  }

  std::uint64_t bitsOf(const std::string& module) const {
    const auto found = quantization_.find(module);
    return (found != quantization_.end() ? *found : quantization_).at("bits");
  }

  /// The shape in elements of a packed weight, or the stored one.
  std::vector<std::uint64_t> logicalShape(const std::string& name) const {
    std::vector<std::uint64_t> shape = tensors_.at(name).shape;
    if (tensors_.at(name).dtype == "U32") shape.back() *= 32 / bitsOf(moduleOf(name));
    return shape;
  }

  std::vector<std::string> residentNames() const {
    std::vector<std::string> names;
    for (const auto& [name, tensor] : tensors_) {
      const bool isCompanion = name.ends_with(".scales") || name.ends_with(".biases");
      const bool isRouted = name.find(".experts.switch_glu.") != std::string::npos;
      if (name.starts_with("language_model.") && !isCompanion && !isRouted) names.push_back(name);
    }
    std::sort(names.begin(), names.end(),
              [](const std::string& a, const std::string& b) { return residentKey(a) < residentKey(b); });
    return names;
  }

  std::string residentFile() const {
    const std::vector<std::string> names = residentNames();
    const std::uint64_t tableEnd = 24 + 72 * names.size();
    std::string strings;
    for (const std::string& name : names) strings += name;
    const std::uint64_t indexSize = toPage(tableEnd + strings.size());

    std::string entries;
    std::string payload;
    std::uint64_t nameOffset = tableEnd;
    for (const std::string& name : names) {
      const bool isQuantised = tensors_.at(name).dtype == "U32";
      std::vector<std::uint64_t> shape = logicalShape(name);
      shape.resize(4);
      put(entries, nameOffset, 4);
      put(entries, name.size(), 2);
      put(entries, isQuantised ? 0 : 1, 2);
      nameOffset += name.size();
      for (std::size_t part = 0; part < 3; ++part) {
        const bool isPresent = part == 0 || isQuantised;
        const std::string data =
            isPresent ? bytes(tensors_.at(part == 0 ? name : moduleOf(name) + components[part])) : "";
        put(entries, isPresent ? indexSize + payload.size() : 0, 8);
        put(entries, data.size(), 8);
        payload += data;
        if (part > 0) continue;
        for (std::uint64_t dimension : shape) put(entries, dimension, 4);
      }
    }
    std::string file;
    put(file, indexSize, 8);
    put(file, payload.size(), 8);
    put(file, names.size(), 8);
    file += entries + strings;
    file.resize(indexSize);
    return file + payload;
  }

  /// Adds the layer's file and returns its member of the layout.
  json layerFile(std::int64_t layer) {
    const std::string fileName = fmt::format("layer_{:02}.bin", layer);
    json parts = json::object();
    std::vector<std::string> blobs(experts_);
    for (const std::string role : {"gate", "up", "down"}) {
      const std::string module =
          fmt::format("language_model.model.layers.{}.experts.switch_glu.{}_proj", layer, role);
      for (const std::string component : components) {
        const Tensor& tensor = tensors_.at(module + component);
        const bool isWeight = component == ".weight";
        std::vector<std::uint64_t> shape = logicalShape(module + component);
        shape.erase(shape.begin());
        const std::uint64_t size = tensor.size / experts_;
        json part = {{"offset", blobs[0].size()}, {"size", size}, {"shape", shape}, {"dtype", tensor.dtype}};
        if (isWeight) part["bits"] = bitsOf(module);
        parts[isWeight ? role : role + "_" + component.substr(1)] = part;
        for (std::uint64_t expert = 0; expert < experts_; ++expert) {
          blobs[expert] += bytes(tensor.shard, tensor.offset + expert * size, size);
        }
      }
    }
    stride_ = toPage(blobs[0].size());
    std::string& file = files_["packed_experts/" + fileName];
    json experts = json::array();
    for (std::uint64_t expert = 0; expert < experts_; ++expert) {
      experts.push_back({{"expert", expert}, {"offset", file.size()}, {"size", stride_}, {"tensors", parts}});
      file += blobs[expert];
      file.resize(stride_ * (expert + 1));
    }
    return {{"layer", layer}, {"file", fileName}, {"experts", experts}};
  }

  json quantSlot(std::uint64_t bits) const {
    return {{"weightBits", bits},
            {"scheme", quantization_.at("mode")},
            {"scaleType", "BF16"},
            {"biasType", "BF16"},
            {"groupSize", quantization_.at("group_size")}};
  }

  json arch() const {
    json mask = json::array();
    for (const json& type : text_.at("layer_types")) mask.push_back(type == "full_attention" ? 1 : 0);
    const json& rope = text_.at("rope_parameters");
    return {{"hiddenSize", text_.at("hidden_size")},
            {"ffnIntermediate", text_.at("intermediate_size")},
            {"moeIntermediateSize", text_.at("moe_intermediate_size")},
            {"numHeads", text_.at("num_attention_heads")},
            {"numKVHeads", text_.at("num_key_value_heads")},
            {"numFullKVHeads", text_.at("num_global_key_value_heads")},
            {"headDim", text_.at("head_dim")},
            {"fullHeadDim", text_.at("global_head_dim")},
            {"vocabSize", text_.at("vocab_size")},
            {"slidingWindow", text_.at("sliding_window")},
            {"finalLogitSoftcap", text_.at("final_logit_softcapping")},
            {"ropeTheta", rope.at("sliding_attention").at("rope_theta")},
            {"fullRopeTheta", rope.at("full_attention").at("rope_theta")},
            {"partialRotaryFactor", rope.at("full_attention").at("partial_rotary_factor")},
            {"numLayers", layers_},
            {"numExperts", experts_},
            {"topKExperts", text_.at("top_k_experts")},
            {"tieWordEmbeddings", text_.at("tie_word_embeddings")},
            {"attentionKEqV", text_.at("attention_k_eq_v")},
            {"hiddenActivation", text_.at("hidden_activation")},
            {"fullAttentionLayerMask", mask}};
  }

  json manifest() const {
    json files = json::object();
    for (const auto& [path, content] : files_) {
      files[path] = {{"size", content.size()}, {"sha256", hashData(content)}};
    }
    // Of several layers the last one counts.
    const std::string layer = fmt::format("language_model.model.layers.{}.", layers_ - 1);
    const std::string indexSha256 = hashData(whole("model.safetensors.index.json"));
    const auto isOverride = [](const json& member) { return member.is_object(); };
    return {
        {"magic", "MORLEN"},
        {"versionMajor", 1},
        {"versionMinor", 0},
        {"flags", {{"streamingPresent", true}, {"turboQuantKV", false}, {"aneSharedExpert", false}}},
        {"modelID", indexSha256 == knownIndex ? "mlx-community/gemma-4-26b-a4b-it-4bit" : "unknown/snapshot"},
        {"sourceSnapshotHash", indexSha256},
        {"arch", arch()},
        {"quant",
         {{"embedding", quantSlot(bitsOf("language_model.model.embed_tokens"))},
          {"attention", quantSlot(bitsOf(layer + "self_attn.q_proj"))},
          {"router", quantSlot(bitsOf(layer + "router.proj"))},
          {"sharedExpert", quantSlot(bitsOf(layer + "mlp.gate_proj"))},
          {"routedExpert", quantSlot(bitsOf("language_model.model.layers.0.experts.switch_glu.gate_proj"))}}},
        {"files", files},
        {"expertsPerLayer", experts_},
        {"numLayers", layers_},
        {"expertStride", stride_},
        {"bitWidthOverridesHonored", std::count_if(quantization_.begin(), quantization_.end(), isOverride)}};
  }

  const SyntheticCheckpoint& checkpoint_;
  json config_;
  json quantization_;
  json text_;
  std::uint64_t experts_;
  std::int64_t layers_;
  std::map<std::string, Tensor> tensors_;
  std::map<std::string, std::string> files_;
  std::uint64_t stride_ = 0;
};

}  // namespace

std::map<std::string, std::string> expectedArtifact(const SyntheticCheckpoint& checkpoint) {
  return Expectation(checkpoint).artifact();
}

}  // namespace vellicor::testing
