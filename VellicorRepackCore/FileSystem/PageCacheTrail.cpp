#include "VellicorRepackCore/FileSystem/PageCacheTrail.h"

#include <utility>

#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {

PageCacheTrail::PageCacheTrail(int fd, Drops drops)
    : fd_(fd), drops_(drops), stays_(staysAt(0)), nextStays_(staysAt(stepBytes)) {
  Posix::bypassPageCache(fd);
}

bool PageCacheTrail::staysAt(std::uint64_t step) const {
  return drops_ == Drops::ownPages && Posix::isCached(fd_, step, stepBytes);
}

void PageCacheTrail::advanceTo(std::uint64_t position) {
  while (position - step_ >= stepBytes) {
    if (!stays_) Posix::dropCachedPages(fd_, step_, stepBytes);
    step_ += stepBytes;
    stays_ = std::exchange(nextStays_, staysAt(step_ + stepBytes));
  }
}

void PageCacheTrail::finishAt(std::uint64_t position) const {
  if (!stays_ && position > step_) Posix::dropCachedPages(fd_, step_, position - step_);
}

}  // namespace vellicor
