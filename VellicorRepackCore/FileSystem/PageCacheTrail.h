#pragma once

#include <cstdint>

namespace vellicor {

/// Clears the page cache behind a reader that goes through a file once, so that a pass over an artifact does
/// not push out what others have there. Steps are large enough to cost next to nothing, and for the cache to
/// let go of them. Holds no descriptor of its own.
class PageCacheTrail {
 public:
  static constexpr std::uint64_t stepBytes = 8388608;

  /// Which steps go: the reader's own, which were not wholly cached before it came as far as the system tells
  /// (of another user's file it does not), or all.
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
