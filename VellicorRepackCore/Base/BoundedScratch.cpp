#include "VellicorRepackCore/Base/BoundedScratch.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {

namespace {

constexpr std::int64_t initialBytes = 16384;

std::byte* allocateZeroed(std::size_t size) {
  constexpr std::size_t step = AlignedBuffer::alignment;
  if (size > std::numeric_limits<std::size_t>::max() - step) throw std::bad_alloc();
  // aligned_alloc takes whole multiples of the alignment, and at least one.
  const std::size_t rounded = std::max(step, (size + step - 1) / step * step);
  void* memory = std::aligned_alloc(step, rounded);
  if (memory == nullptr) throw std::bad_alloc();
  std::memset(memory, 0, size);
  return static_cast<std::byte*>(memory);
}

}  // namespace

AlignedBuffer::AlignedBuffer(std::size_t size) : data_(allocateZeroed(size)), size_(size) {}

BoundedScratch::BoundedScratch(std::int64_t limitBytes)
    : limitBytes_(limitBytes), largestEverBytes_(initialBytes), buffer_(initialBytes) {}

std::span<std::byte> BoundedScratch::ensure(std::int64_t bytes) {
  if (bytes > limitBytes_) throw RepackError(ScratchExceeded{.requested = bytes, .limit = limitBytes_});
  const auto capacity = static_cast<std::int64_t>(buffer_.size());
  if (bytes <= capacity) return buffer_.bytes();

  const std::int64_t doubled = capacity > limitBytes_ - capacity ? limitBytes_ : capacity * 2;
  const std::int64_t grown = std::max(doubled, bytes);
  buffer_ = AlignedBuffer(static_cast<std::size_t>(grown));
  largestEverBytes_ = std::max(largestEverBytes_, grown);
  return buffer_.bytes();
}

}  // namespace vellicor
