#include "VellicorLab/PredictedArtifact.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "VellicorLab/FolderRepository.h"
#include "VellicorLab/Removals.h"

namespace vellicor {

namespace {

using nlohmann::json;
using StoredTensor = SyntheticCheckpoint::StoredTensor;

constexpr std::uint64_t page = 16384;
constexpr std::uint64_t indexHeaderBytes = 24;
constexpr std::uint64_t indexEntryBytes = 72;
constexpr const char* indexName = "model.safetensors.index.json";
constexpr const char* supportedIndex = "bf198c9f5ea6462addca1966e5dd669c407537a876e82cf06db9084c5c850b13";
constexpr const char* receiptName = "verified-install.json";
constexpr std::array sidecars = {"config.json",           "tokenizer.json",
                                 "tokenizer_config.json", "special_tokens_map.json",
                                 "chat_template.jinja",   "chat_template.json"};

/// The order of the resident tensors inside a layer.
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

std::uint64_t toPage(std::uint64_t size) { return (size + page - 1) / page * page; }

void put(std::string& out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out += static_cast<char>(value >> (8 * i) & 0xFF);
}

JoinedBytes textFile(std::string text) {
  JoinedBytes file;
  file.add(std::move(text));
  return file;
}

/// JSON with sorted keys, one member or element per line, and " : " after a key.
std::string pretty(const json& value, const std::string& indent = "") {
  if (value.is_number_float()) return fmt::format("{}", value.get<double>());
  if (!value.is_structured()) return value.dump();
  std::string lines;
  for (const auto& [key, member] : value.items()) {
    lines += (lines.empty() ? "\n" : ",\n") + indent + "  ";
    if (value.is_object()) lines += "\"" + key + "\" : ";
    lines += pretty(member, indent + "  ");
  }
  if (lines.empty()) lines += '\n';
  return (value.is_object() ? "{" : "[") + lines + "\n" + indent + (value.is_object() ? "}" : "]");
}

std::string moduleOf(const std::string& tensor) { return tensor.substr(0, tensor.rfind('.')); }

bool isQuantised(const StoredTensor& tensor) { return tensor.dtype == "U32"; }

bool isResident(const std::string& name) {
  return name.starts_with("language_model.") && !name.ends_with(".scales") && !name.ends_with(".biases") &&
         name.find(".experts.switch_glu.") == std::string::npos;
}

/// The sort key of resident tensors: the embedding, then the layers, then the others, the final norm last.
std::tuple<int, std::int64_t, std::ptrdiff_t, std::string> residentKey(const std::string& name) {
  if (name == "language_model.model.embed_tokens.weight") return {0, 0, 0, name};
  if (name == "language_model.model.norm.weight") return {3, 0, 0, name};
  constexpr std::string_view layers = ".layers.";
  const std::size_t at = name.find(layers);
  if (at == std::string::npos) return {2, 0, 0, name};
  const auto slot = std::ranges::find_if(
      slots, [&](const char* suffix) { return name.ends_with(std::string(".") + suffix); });
  return {1, std::stoll(name.substr(at + layers.size())), slot - slots.begin(), name};
}

class Prediction {
 public:
  explicit Prediction(const SyntheticCheckpoint& checkpoint)
      : checkpoint_(checkpoint),
        tensors_(checkpoint.tensors()),
        config_(json::parse(contentOf(*checkpoint.file("config.json")))),
        quantization_(config_.at("quantization")),
        text_(config_.at("text_config")),
        experts_(text_.at("num_experts")),
        layers_(text_.at("num_hidden_layers")) {}

  std::map<std::string, JoinedBytes> files() {
    files_["model_weights.bin"] = residentFile();
    json layout = {{"numLayers", layers_}, {"expertsPerLayer", experts_}, {"layers", json::array()}};
    for (std::int64_t layer = 0; layer < layers_; ++layer) layout["layers"].push_back(layerFile(layer));
    layout["expertStride"] = stride_;
    files_["packed_experts/layout.json"] = textFile(pretty(layout));
    for (const char* name : sidecars) {
      const auto file = checkpoint_.file(name);
      if (file) files_[fmt::format("tokenizer/{}", name)].add(file);
    }
    files_["manifest.json"] = textFile(pretty(manifest()));
    return std::move(files_);
  }

 private:
  std::uint64_t bitsOf(const std::string& module) const {
    const auto found = quantization_.find(module);
    return (found != quantization_.end() ? *found : quantization_).at("bits");
  }

  /// The shape in elements: of packed words, what is packed in them.
  std::vector<std::uint64_t> logicalShape(const std::string& name) const {
    std::vector<std::uint64_t> shape = tensors_.at(name).shape;
    if (isQuantised(tensors_.at(name))) shape.back() *= 32 / bitsOf(moduleOf(name));
    return shape;
  }

  std::vector<std::string> residentNames() const {
    std::vector<std::string> names;
    for (const auto& [name, tensor] : tensors_) {
      if (isResident(name)) names.push_back(name);
    }
    std::ranges::sort(names, {}, residentKey);
    return names;
  }

  /// The weight, and its scales and biases if it is quantised.
  std::vector<const StoredTensor*> partsOf(const std::string& name) const {
    const StoredTensor& weight = tensors_.at(name);
    if (!isQuantised(weight)) return {&weight};
    const std::string module = moduleOf(name);
    return {&weight, &tensors_.at(module + ".scales"), &tensors_.at(module + ".biases")};
  }

  JoinedBytes residentFile() const {
    const std::vector<std::string> names = residentNames();
    const std::uint64_t tableEnd = indexHeaderBytes + indexEntryBytes * names.size();
    std::string strings;
    for (const std::string& name : names) strings += name;
    const std::uint64_t indexSize = toPage(tableEnd + strings.size());

    std::string entries;
    JoinedBytes payload;
    std::uint64_t nameOffset = tableEnd;
    for (const std::string& name : names) {
      put(entries, nameOffset, 4);
      put(entries, name.size(), 2);
      nameOffset += name.size();
      addResident(name, indexSize, entries, payload);
    }
    std::string header;
    put(header, indexSize, 8);
    put(header, payload.size(), 8);
    put(header, names.size(), 8);
    JoinedBytes file = textFile(header + entries + strings);
    file.padTo(indexSize);
    file.add(std::make_shared<JoinedBytes>(std::move(payload)));
    return file;
  }

  /// Writes an entry after its name and appends the tensor's bytes.
  void addResident(const std::string& name, std::uint64_t indexSize, std::string& entries,
                   JoinedBytes& payload) const {
    const std::vector<const StoredTensor*> parts = partsOf(name);
    std::vector<std::uint64_t> shape = logicalShape(name);
    shape.resize(4);
    put(entries, isQuantised(*parts[0]) ? 0 : 1, 2);
    for (std::size_t i = 0; i < 3; ++i) {
      const bool isPresent = i < parts.size();
      put(entries, isPresent ? indexSize + payload.size() : 0, 8);
      put(entries, isPresent ? parts[i]->size : 0, 8);
      if (isPresent) payload.add(parts[i]->file, parts[i]->offset, parts[i]->size);
      if (i > 0) continue;
      for (std::uint64_t dimension : shape) put(entries, dimension, 4);
    }
  }

  /// The contents of every expert's blob of a layer, and the blobs.
  struct Layer {
    json parts = json::object();
    std::vector<JoinedBytes> blobs;
  };

  /// Appends one stacked tensor, each expert's share to its blob.
  void addStacked(const std::string& name, const std::string& part, Layer& layer) const {
    const StoredTensor& tensor = tensors_.at(name);
    const std::uint64_t size = tensor.size / experts_;
    std::vector<std::uint64_t> shape = logicalShape(name);
    shape.erase(shape.begin());
    layer.parts[part] = {
        {"offset", layer.blobs[0].size()}, {"size", size}, {"shape", shape}, {"dtype", tensor.dtype}};
    if (isQuantised(tensor)) layer.parts[part]["bits"] = bitsOf(moduleOf(name));
    for (std::uint64_t expert = 0; expert < experts_; ++expert) {
      layer.blobs[expert].add(tensor.file, tensor.offset + expert * size, size);
    }
  }

  Layer layerOf(std::int64_t number) const {
    Layer layer{.blobs = std::vector<JoinedBytes>(experts_)};
    for (const std::string role : {"gate", "up", "down"}) {
      const std::string module =
          fmt::format("language_model.model.layers.{}.experts.switch_glu.{}_proj", number, role);
      addStacked(module + ".weight", role, layer);
      addStacked(module + ".scales", role + "_scales", layer);
      addStacked(module + ".biases", role + "_biases", layer);
    }
    return layer;
  }

  /// Adds the layer's file and returns its member of the layout.
  json layerFile(std::int64_t number) {
    const std::string fileName = fmt::format("layer_{:02}.bin", number);
    Layer layer = layerOf(number);
    stride_ = toPage(layer.blobs[0].size());
    JoinedBytes& file = files_["packed_experts/" + fileName];
    json experts = json::array();
    for (JoinedBytes& blob : layer.blobs) {
      experts.push_back(
          {{"expert", experts.size()}, {"offset", file.size()}, {"size", stride_}, {"tensors", layer.parts}});
      blob.padTo(stride_);
      file.add(std::make_shared<JoinedBytes>(std::move(blob)));
    }
    return {{"layer", number}, {"file", fileName}, {"experts", experts}};
  }

  json quantSlot(const std::string& module) const {
    return {{"weightBits", bitsOf(module)},
            {"scheme", quantization_.at("mode")},
            {"scaleType", "BF16"},
            {"biasType", "BF16"},
            {"groupSize", quantization_.at("group_size")}};
  }

  json quant() const {
    // The last layer counts.
    const std::string layer = fmt::format("language_model.model.layers.{}.", layers_ - 1);
    return {{"embedding", quantSlot("language_model.model.embed_tokens")},
            {"attention", quantSlot(layer + "self_attn.q_proj")},
            {"router", quantSlot(layer + "router.proj")},
            {"sharedExpert", quantSlot(layer + "mlp.gate_proj")},
            {"routedExpert", quantSlot("language_model.model.layers.0.experts.switch_glu.gate_proj")}};
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
    for (const auto& [path, file] : files_) {
      files[path] = {{"size", file.size()}, {"sha256", sha256Of(file)}};
    }
    const std::string index = sha256Of(*checkpoint_.file(indexName));
    const auto isOverride = [](const json& member) { return member.is_object(); };
    return {
        {"magic", "MORLEN"},
        {"versionMajor", 1},
        {"versionMinor", 0},
        {"flags", {{"streamingPresent", true}, {"turboQuantKV", false}, {"aneSharedExpert", false}}},
        {"modelID", index == supportedIndex ? "mlx-community/gemma-4-26b-a4b-it-4bit" : "unknown/snapshot"},
        {"sourceSnapshotHash", index},
        {"arch", arch()},
        {"quant", quant()},
        {"files", files},
        {"expertsPerLayer", experts_},
        {"numLayers", layers_},
        {"expertStride", stride_},
        {"bitWidthOverridesHonored", std::ranges::count_if(quantization_, isOverride)}};
  }

  const SyntheticCheckpoint& checkpoint_;
  std::map<std::string, StoredTensor> tensors_;
  json config_;
  json quantization_;
  json text_;
  std::uint64_t experts_;
  std::int64_t layers_;
  std::map<std::string, JoinedBytes> files_;
  std::uint64_t stride_ = 0;
};

/// Every entry below a directory as a relative path, links not followed.
std::set<std::string> entriesOf(const std::string& directory) {
  std::set<std::string> entries;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    entries.insert(entry.path().lexically_relative(directory).generic_string());
  }
  return entries;
}

}  // namespace

PredictedArtifact::PredictedArtifact(const SyntheticCheckpoint& checkpoint)
    : files_(Prediction(checkpoint).files()) {}

std::uint64_t PredictedArtifact::byteCount() const {
  std::uint64_t bytes = 0;
  for (const auto& [path, file] : files_) bytes += file.size();
  return bytes;
}

std::map<std::string, std::string> PredictedArtifact::contents() const {
  std::map<std::string, std::string> contents;
  for (const auto& [path, file] : files_) contents[path] = contentOf(file);
  return contents;
}

std::vector<std::string> PredictedArtifact::differences(const std::string& directory) const {
  const FolderRepository folder(directory);
  awaitRemovals(directory);
  std::set<std::string> entries = entriesOf(directory);
  entries.erase(receiptName);
  std::vector<std::string> differences;
  for (const auto& [path, predicted] : files_) {
    const bool isThere = entries.erase(path) > 0;
    const auto found = folder.file(path);
    if (!found) {
      differences.push_back(path + (isThere ? ": not a readable regular file" : ": missing"));
    } else if (const auto offset = firstDifference(predicted, *found)) {
      differences.push_back(fmt::format("{}: differs at byte {} ({} bytes, {} predicted)", path, *offset,
                                        found->size(), predicted.size()));
    }
  }
  for (const std::string& entry : entries) {
    const auto inside = files_.lower_bound(entry + "/");
    const bool isParent = inside != files_.end() && inside->first.starts_with(entry + "/");
    if (!isParent) differences.push_back(entry + ": unexpected");
  }
  return differences;
}

}  // namespace vellicor
