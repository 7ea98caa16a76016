#pragma once

#include <cstdint>

namespace vellicor {

/// Drops the cached pages of a file while it is read once from start to end, so that reading an artifact does
/// not push other programs' pages out of the cache. Works in steps: small ones cost time, and the kernel may
/// keep pages that a step covers only in part. Does not own the descriptor.
class PageCacheTrail {
 public:
  static constexpr std::uint64_t stepBytes = 8388608;

  /// Which pages to drop: only those that were not cached before this pass (unknown for the files of other
  /// users), or all.
  enum class Drops { ownPages, allPages };

  /// To be made before anything is read through the descriptor, which from then on bypasses the cache where
  /// it can be told to.
  PageCacheTrail(int fd, Drops drops);

  /// The reader has come to `position`.
  void advanceTo(std::uint64_t position);
  /// The reader is done at `position`.
  void finishAt(std::uint64_t position) const;

 private:
  bool staysAt(std::uint64_t step) const;

  int fd_;
  Drops drops_;
  std::uint64_t step_ = 0;
  /// Whether the pages of this step and of the next one stay. The system reads some way ahead, so a step is
  /// looked at before the reader enters the one in front of it.
  bool stays_;
  bool nextStays_;
};

}  // namespace vellicor
