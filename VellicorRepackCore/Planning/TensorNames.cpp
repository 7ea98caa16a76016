#include "VellicorRepackCore/Planning/TensorNames.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace vellicor {
namespace {

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
int slotRank(const SupportedModel& model, std::string_view name) {
  constexpr int unknown = 100;
  int rank = 0;
  for (const std::string_view marker : model.layerOrderMarkers) {
    if (contains(name, marker)) return rank;
    ++rank;
  }
  for (const std::string_view end : model.layerOrderEnds) {
    if (name.ends_with(end)) return rank;
    ++rank;
  }
  return unknown;
}

}  // namespace

bool isExcludedMultimodal(const SupportedModel& model, std::string_view name) {
  return std::ranges::any_of(model.excludedPrefixes,
                             [&](std::string_view prefix) { return name.starts_with(prefix); });
}

bool isCompanion(std::string_view name) { return name.ends_with(".scales") || name.ends_with(".biases"); }

std::optional<RoutedSlot> routedSlot(const SupportedModel& model, std::string_view name,
                                     std::int64_t numLayers) {
  if (!contains(name, model.routedMarker)) return std::nullopt;
  const auto& markers = model.projectionMarkers;
  const auto marker =
      std::ranges::find_if(markers, [&](std::string_view candidate) { return contains(name, candidate); });
  if (marker == markers.end()) return std::nullopt;
  const auto layer = layerIndex(name);
  if (!layer || *layer < 0 || *layer >= numLayers) return std::nullopt;
  return RoutedSlot{*layer, static_cast<std::size_t>(marker - markers.begin())};
}

ResidentKey residentKey(const SupportedModel& model, std::string_view name) {
  if (name == model.embeddingName) return {0, 0, 0, name};
  if (name == model.finalNormName) return {3, 0, 0, name};
  if (const auto layer = layerIndex(name)) return {1, *layer, slotRank(model, name), name};
  return {2, 0, 0, name};
}

}  // namespace vellicor
