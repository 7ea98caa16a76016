#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

namespace vellicor {

/// A zero-filled heap buffer of fixed size whose start is aligned to 16384 bytes, for transfers to and from
/// files.
class AlignedBuffer {
 public:
  static constexpr std::size_t alignment = 16384;

  explicit AlignedBuffer(std::size_t size);

  std::span<std::byte> bytes() { return {data_.get(), size_}; }
  std::span<const std::byte> bytes() const { return {data_.get(), size_}; }
  std::byte* data() { return data_.get(); }
  std::size_t size() const { return size_; }

 private:
  struct Free {
    void operator()(std::byte* p) const noexcept { std::free(p); }
  };
  std::unique_ptr<std::byte, Free> data_;
  std::size_t size_;
};

/// A reusable buffer that grows by doubling up to a limit and never beyond. Owned and used by one caller at a
/// time.
class BoundedScratch {
 public:
  /// One byte less than 1 MiB.
  static constexpr std::int64_t defaultLimitBytes = 1048575;

  explicit BoundedScratch(std::int64_t limitBytes = defaultLimitBytes);

  /// The whole current buffer, of at least `bytes`; growing drops the old contents. Throws
  /// `ScratchExceeded` above the limit.
  std::span<std::byte> ensure(std::int64_t bytes);

  /// The current buffer, whatever its size.
  std::span<const std::byte> zeroBuffer() const { return buffer_.bytes(); }

  std::int64_t limitBytes() const { return limitBytes_; }
  /// High-water mark of the buffer's capacity.
  std::int64_t largestEverBytes() const { return largestEverBytes_; }

 private:
  std::int64_t limitBytes_;
  std::int64_t largestEverBytes_;
  AlignedBuffer buffer_;
};

}  // namespace vellicor
