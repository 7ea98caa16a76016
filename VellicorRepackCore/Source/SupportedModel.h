#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace vellicor {

/// All that the installer knows about one model: where it comes from, what its tensors are called, and which
/// of its small files belong into the artifact. A second model is a second value of this type.
struct SupportedModel {
  /// A file that is copied into the artifact's tokenizer directory.
  struct Sidecar {
    const char* name;
    std::uint64_t maximumBytes;
    /// Whether the install fails when the repository does not hold it.
    bool isRequired;
  };

  /// A slot of the manifest's bit widths, and the tensor whose width fills it.
  struct BitWidthSlot {
    const char* slot;
    /// The end of the tensor's name; empty for the slot of the routed experts.
    std::string_view nameEnd;
    std::int64_t defaultBits;
  };

  const char* displayName;
  const char* repoID;
  /// A full commit id, so the whole install is pinned.
  const char* revision;
  /// SHA-256 of the shard index, lower-case hexadecimal.
  const char* indexSHA256;
  std::uint64_t approximateDownloadBytes;
  std::uint64_t installedBytes;

  /// The names of all tensors of the language model begin so.
  std::string_view namePrefix;
  /// The names of the vision and audio tensors, which no artifact holds, begin with one of these.
  std::span<const std::string_view> excludedPrefixes;
  std::string_view embeddingName;
  std::string_view finalNormName;
  /// The name of a routed expert's stacked weight holds this, and the marker of its projection.
  std::string_view routedMarker;
  /// Gate, up and down.
  std::array<std::string_view, 3> projectionMarkers;
  /// The order of a layer's tensors: names that hold one of the first come first, names that end with one of
  /// the second follow.
  std::span<const std::string_view> layerOrderMarkers;
  std::span<const std::string_view> layerOrderEnds;

  std::span<const Sidecar> sidecars;
  std::span<const BitWidthSlot> bitWidthSlots;
};

namespace gemma4_26b_a4b_4bit {

inline constexpr std::uint64_t mebibyte = 1048576;
inline constexpr std::array<std::string_view, 3> excludedPrefixes = {"vision_tower.", "embed_vision.",
                                                                     "audio_tower."};
inline constexpr std::array<std::string_view, 12> layerOrderMarkers = {
    ".self_attn.q_proj.weight", ".self_attn.k_proj.weight",
    ".self_attn.v_proj.weight", ".self_attn.o_proj.weight",
    ".self_attn.q_norm.weight", ".self_attn.k_norm.weight",
    ".router.proj.weight",      ".router.scale",
    ".router.per_expert_scale", ".mlp.gate_proj.weight",
    ".mlp.up_proj.weight",      ".mlp.down_proj.weight",
};
inline constexpr std::array<std::string_view, 8> layerOrderEnds = {
    ".input_layernorm.weight",
    ".post_attention_layernorm.weight",
    ".pre_feedforward_layernorm.weight",
    ".pre_feedforward_layernorm_2.weight",
    ".post_feedforward_layernorm.weight",
    ".post_feedforward_layernorm_1.weight",
    ".post_feedforward_layernorm_2.weight",
    ".layer_scalar",
};
inline constexpr std::array<SupportedModel::Sidecar, 5> sidecars = {{
    {"tokenizer.json", 64 * mebibyte, true},
    {"tokenizer_config.json", 4 * mebibyte, true},
    {"special_tokens_map.json", 1 * mebibyte, false},
    {"chat_template.jinja", 4 * mebibyte, false},
    {"chat_template.json", 4 * mebibyte, false},
}};
inline constexpr std::array<SupportedModel::BitWidthSlot, 5> bitWidthSlots = {{
    {"embedding", "language_model.model.embed_tokens.weight", 4},
    {"attention", ".self_attn.q_proj.weight", 4},
    {"router", ".router.proj.weight", 8},
    {"sharedExpert", ".mlp.gate_proj.weight", 8},
    {"routedExpert", "", 4},
}};

}  // namespace gemma4_26b_a4b_4bit

/// The model that this build installs.
inline constexpr SupportedModel supportedModel = {
    .displayName = "Gemma 4 26B-A4B IT 4-bit",
    .repoID = "mlx-community/gemma-4-26b-a4b-it-4bit",
    .revision = "0d77464eeb233a2da68ebf9d7dc4edaac7db956d",
    .indexSHA256 = "bf198c9f5ea6462addca1966e5dd669c407537a876e82cf06db9084c5c850b13",
    .approximateDownloadBytes = 14620479420,
    .installedBytes = 14291921884,
    .namePrefix = "language_model.",
    .excludedPrefixes = gemma4_26b_a4b_4bit::excludedPrefixes,
    .embeddingName = "language_model.model.embed_tokens.weight",
    .finalNormName = "language_model.model.norm.weight",
    .routedMarker = ".experts.switch_glu.",
    .projectionMarkers = {".gate_proj.", ".up_proj.", ".down_proj."},
    .layerOrderMarkers = gemma4_26b_a4b_4bit::layerOrderMarkers,
    .layerOrderEnds = gemma4_26b_a4b_4bit::layerOrderEnds,
    .sidecars = gemma4_26b_a4b_4bit::sidecars,
    .bitWidthSlots = gemma4_26b_a4b_4bit::bitWidthSlots,
};

}  // namespace vellicor
