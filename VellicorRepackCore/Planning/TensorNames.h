#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <tuple>

#include "VellicorRepackCore/Source/SupportedModel.h"

namespace vellicor {

// Classifies source tensors by their names alone.

/// The projections of a routed expert, in blob order.
inline constexpr std::array<std::string_view, 3> expertRoles = {"gate", "up", "down"};

/// Which layer and which of `expertRoles` the stacked weight of a routed expert belongs to.
struct RoutedSlot {
  std::int64_t layer;
  std::size_t role;
};

/// The sort key of resident tensors: group, layer, slot, name. Refers to the name it was made from.
using ResidentKey = std::tuple<int, std::int64_t, int, std::string_view>;

/// Whether the tensor belongs to the vision and audio parts, which no artifact holds.
bool isExcludedMultimodal(const SupportedModel& model, std::string_view name);

/// Whether these are scales or biases, which are found through their weight.
bool isCompanion(std::string_view name);

/// Nothing for other tensors than those of routed experts, and for a layer beyond the model's.
std::optional<RoutedSlot> routedSlot(const SupportedModel& model, std::string_view name,
                                     std::int64_t numLayers);

/// The embedding first, then layer by layer, then the others, the final norm last.
ResidentKey residentKey(const SupportedModel& model, std::string_view name);

}  // namespace vellicor
