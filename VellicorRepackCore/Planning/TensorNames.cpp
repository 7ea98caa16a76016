#include "VellicorRepackCore/Planning/TensorNames.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace vellicor {
namespace {

constexpr std::string_view embedName = "language_model.model.embed_tokens.weight";
constexpr std::string_view finalNormName = "language_model.model.norm.weight";

constexpr std::array<std::string_view, 3> excludedPrefixes = {"vision_tower.", "embed_vision.",
                                                              "audio_tower."};

/// What a name holds for each of the roles, in their order.
constexpr std::array<std::string_view, expertRoles.size()> roleMarkers = {".gate_proj.", ".up_proj.",
                                                                          ".down_proj."};

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

std::optional<std::int64_t> layerIndex(std::string_view name) {
  constexpr std::string_view marker = ".layers.";
  const auto found = name.find(marker);
  if (found == std::string_view::npos) return std::nullopt;
  const std::string_view rest = name.substr(found + marker.size());
  const auto dot = rest.find('.');
  if (dot == std::string_view::npos) return std::nullopt;
  std::int64_t index = 0;
  const char* fieldEnd = rest.data() + dot;
  const auto [parsedEnd, error] = std::from_chars(rest.data(), fieldEnd, index);
  if (error != std::errc() || parsedEnd != fieldEnd) return std::nullopt;
  return index;
}

/// The rank of a tensor among those of its layer: the first rule that matches.
int slotRank(std::string_view name) {
  constexpr std::array<std::string_view, 12> containsRules = {
      ".self_attn.q_proj.weight", ".self_attn.k_proj.weight",
      ".self_attn.v_proj.weight", ".self_attn.o_proj.weight",
      ".self_attn.q_norm.weight", ".self_attn.k_norm.weight",
      ".router.proj.weight",      ".router.scale",
      ".router.per_expert_scale", ".mlp.gate_proj.weight",
      ".mlp.up_proj.weight",      ".mlp.down_proj.weight",
  };
  constexpr std::array<std::string_view, 8> endsWithRules = {
      ".input_layernorm.weight",
      ".post_attention_layernorm.weight",
      ".pre_feedforward_layernorm.weight",
      ".pre_feedforward_layernorm_2.weight",
      ".post_feedforward_layernorm.weight",
      ".post_feedforward_layernorm_1.weight",
      ".post_feedforward_layernorm_2.weight",
      ".layer_scalar",
  };
  int rank = 0;
  for (const auto rule : containsRules) {
    if (contains(name, rule)) return rank;
    ++rank;
  }
  for (const auto rule : endsWithRules) {
    if (name.ends_with(rule)) return rank;
    ++rank;
  }
  return 100;
}

}  // namespace

bool isExcludedMultimodal(std::string_view name) {
  return std::any_of(excludedPrefixes.begin(), excludedPrefixes.end(),
                     [&](std::string_view prefix) { return name.starts_with(prefix); });
}

bool isCompanion(std::string_view name) { return name.ends_with(".scales") || name.ends_with(".biases"); }

std::optional<RoutedSlot> routedSlot(std::string_view name, std::int64_t numLayers) {
  if (!contains(name, ".experts.switch_glu.")) return std::nullopt;
  const auto marker = std::find_if(roleMarkers.begin(), roleMarkers.end(),
                                   [&](std::string_view candidate) { return contains(name, candidate); });
  if (marker == roleMarkers.end()) return std::nullopt;
  const auto layer = layerIndex(name);
  if (!layer || *layer < 0 || *layer >= numLayers) return std::nullopt;
  return RoutedSlot{*layer, static_cast<std::size_t>(marker - roleMarkers.begin())};
}

ResidentKey residentKey(std::string_view name) {
  if (name == embedName) return {0, 0, 0, name};
  if (name == finalNormName) return {3, 0, 0, name};
  if (const auto layer = layerIndex(name)) return {1, *layer, slotRank(name), name};
  return {2, 0, 0, name};
}

}  // namespace vellicor
