#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>

namespace vellicor::bench {

/// What this program has taken with `operator new` and not given back: bytes asked for, without the
/// allocator's own. What libraries in C take is not counted, nor are buffers of special alignment.
struct CountedMemory {
  static inline std::atomic<std::size_t> live = 0;
  static inline std::atomic<std::size_t> peak = 0;

  /// By how much `work` raises the bytes taken at its highest point, its result included.
  template <typename Work>
  static double peakGrowth(Work&& work) {
    const std::size_t before = live;
    peak = before;
    static_cast<void>(work());
    return static_cast<double>(peak - before);
  }
};

}  // namespace vellicor::bench
