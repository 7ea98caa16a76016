#pragma once

// Internal to the format library: the two questions that its decoders ask about byte ranges.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

namespace vellicor {

/// Whether [start, start + size) lies within [low, high), for low <= high. The sum is never formed.
constexpr bool rangeLiesWithin(std::uint64_t start, std::uint64_t size, std::uint64_t low,
                               std::uint64_t high) {
  return start >= low && start <= high && size <= high - start;
}

/// A range and what it belongs to.
template <typename Owner>
struct OwnedRange {
  std::uint64_t start;
  std::uint64_t end;
  Owner owner;
};

/// Sorts the ranges by start, then by end, and returns the owners of the first two neighbours that overlap,
/// the earlier one first. Ranges that touch do not overlap. Takes n log n time.
template <typename Owner>
std::optional<std::pair<Owner, Owner>> firstOverlap(std::vector<OwnedRange<Owner>>& ranges) {
  std::stable_sort(ranges.begin(), ranges.end(), [](const auto& a, const auto& b) {
    return std::tie(a.start, a.end) < std::tie(b.start, b.end);
  });
  const auto earlier = std::adjacent_find(ranges.begin(), ranges.end(),
                                          [](const auto& a, const auto& b) { return b.start < a.end; });
  if (earlier == ranges.end()) return std::nullopt;
  return std::pair(earlier->owner, (earlier + 1)->owner);
}

}  // namespace vellicor
