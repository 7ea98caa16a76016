#include "VellicorRepackCore/Source/ArchInfo.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "VellicorFormat/JsonReading.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {
namespace {

/// A member of a JSON object, or nullptr when it is absent or `object` is no object.
const nlohmann::json* memberOf(const nlohmann::json* object, std::string_view key) {
  if (object == nullptr || !object->is_object()) return nullptr;
  const auto member = object->find(key);
  return member == object->end() ? nullptr : &*member;
}

std::optional<double> numberOf(const nlohmann::json* value) {
  if (value == nullptr || !value->is_number()) return std::nullopt;
  return value->get<double>();
}

/// Any JSON number, truncated toward zero; nothing when it does not fit. Whole numbers were read as integers,
/// so any other one that looks whole was rounded to that; one of 2^53 or more always looks so.
std::optional<std::int64_t> truncatedIntegerOf(const nlohmann::json* value) {
  if (value == nullptr || !value->is_number()) return std::nullopt;
  if (!value->is_number_float()) return exactInteger(*value);
  const auto number = value->get<double>();
  const double truncated = std::trunc(number);
  const bool isRounded = truncated == number && number != 0;
  if (isRounded) return std::nullopt;
  return static_cast<std::int64_t>(truncated);
}

/// true and 1 are true, everything else is false.
bool flagOf(const nlohmann::json* value) {
  if (value == nullptr) return false;
  if (value->is_boolean()) return value->get<bool>();
  return value->is_number() && exactInteger(*value) == 1;
}

std::vector<std::uint8_t> fullAttentionMask(const nlohmann::json* layerTypes) {
  if (layerTypes == nullptr || !layerTypes->is_array()) return {};
  if (!std::all_of(layerTypes->begin(), layerTypes->end(),
                   [](const auto& type) { return type.is_string(); })) {
    return {};
  }
  std::vector<std::uint8_t> mask;
  mask.reserve(layerTypes->size());
  for (const auto& type : *layerTypes)
    mask.push_back(type.get_ref<const std::string&>() == "full_attention" ? 1 : 0);
  return mask;
}

void readOptionalSettings(const nlohmann::json* text, ArchInfo& arch) {
  arch.fullAttentionLayerMask = fullAttentionMask(memberOf(text, "layer_types"));

  const nlohmann::json* rope = memberOf(text, "rope_parameters");
  const nlohmann::json* full = memberOf(rope, "full_attention");
  const nlohmann::json* sliding = memberOf(rope, "sliding_attention");
  arch.partialRotaryFactor =
      numberOf(memberOf(full, "partial_rotary_factor")).value_or(arch.partialRotaryFactor);
  arch.fullRopeTheta = numberOf(memberOf(full, "rope_theta")).value_or(arch.fullRopeTheta);
  arch.ropeTheta = numberOf(memberOf(sliding, "rope_theta")).value_or(arch.ropeTheta);

  arch.attentionKEqV = flagOf(memberOf(text, "attention_k_eq_v"));
  arch.tieWordEmbeddings = flagOf(memberOf(text, "tie_word_embeddings"));

  const nlohmann::json* activation = memberOf(text, "hidden_activation");
  if (activation != nullptr && activation->is_string())
    arch.hiddenActivation = activation->get<std::string>();
}

void readRequiredNumbers(const std::string& configPath, const nlohmann::json* text, ArchInfo& arch) {
  const auto required = [&](const auto& value, const char* key) {
    if (!value)
      throw RepackError(ConfigJsonInvalid{.path = configPath, .detail = std::string("missing ") + key});
    return *value;
  };
  const auto integer = [&](const char* key) {
    return required(truncatedIntegerOf(memberOf(text, key)), key);
  };

  arch.hiddenSize = integer("hidden_size");
  arch.intermediateSize = integer("intermediate_size");
  arch.moeIntermediateSize = integer("moe_intermediate_size");
  arch.numHeads = integer("num_attention_heads");
  arch.numKVHeads = integer("num_key_value_heads");
  arch.numFullKVHeads = integer("num_global_key_value_heads");
  arch.headDim = integer("head_dim");
  arch.fullHeadDim = integer("global_head_dim");
  arch.vocabSize = integer("vocab_size");
  arch.slidingWindow = integer("sliding_window");
  arch.finalLogitSoftcap =
      required(numberOf(memberOf(text, "final_logit_softcapping")), "final_logit_softcapping");
  arch.numLayers = integer("num_hidden_layers");
  arch.numExperts = integer("num_experts");
  arch.topKExperts = integer("top_k_experts");
}

}  // namespace

ArchInfo ArchInfo::load(const std::string& configPath) {
  const JsonTree config = parseJson(Posix::readWholeFile(configPath));
  const nlohmann::json* text = memberOf(&config.root, "text_config");
  if (text == nullptr || !text->is_object())
    throw RepackError(ConfigJsonInvalid{.path = configPath, .detail = "no text_config"});

  ArchInfo arch;
  readOptionalSettings(text, arch);
  readRequiredNumbers(configPath, text, arch);
  return arch;
}

}  // namespace vellicor
