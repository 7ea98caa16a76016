#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <variant>

namespace vellicor {

/// Bytes that are read or made on demand, as many as a large file's.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual std::uint64_t size() const = 0;
  /// Fills `bytes` with those from `offset` on; the range lies inside. Safe from several threads.
  virtual void read(std::uint64_t offset, std::span<std::byte> bytes) const = 0;
};

/// Throws `std::out_of_range` unless `length` bytes at `offset` lie inside `size` bytes.
void requireInside(std::uint64_t offset, std::uint64_t length, std::uint64_t size);

/// The whole of a source that fits in memory.
std::string contentOf(const ByteSource& source);

/// SHA-256 in lower-case hexadecimal, of a source of any size.
std::string sha256Of(const ByteSource& source);

/// The first offset at which two sources of any size differ; where the shorter one ends if nothing else does,
/// nothing if they are equal.
std::optional<std::uint64_t> firstDifference(const ByteSource& a, const ByteSource& b);

/// Text, ranges of other sources and zeros, one after the other.
class JoinedBytes final : public ByteSource {
 public:
  void add(std::string text);
  /// Throws `std::out_of_range` for a range that is not inside the source.
  void add(std::shared_ptr<const ByteSource> source, std::uint64_t offset, std::uint64_t size);
  void add(const std::shared_ptr<const ByteSource>& whole) { add(whole, 0, whole->size()); }
  /// Adds zeros up to a size that is not below the present one.
  void padTo(std::uint64_t size);

  std::uint64_t size() const override { return size_; }
  void read(std::uint64_t offset, std::span<std::byte> bytes) const override;

 private:
  using Zeros = std::monostate;
  struct SourceRange {
    std::shared_ptr<const ByteSource> source;
    std::uint64_t offset;
  };
  using Segment = std::variant<Zeros, std::string, SourceRange>;

  void add(Segment segment, std::uint64_t size);

  /// By the offset at which each begins; none is empty.
  std::map<std::uint64_t, Segment> segments_;
  std::uint64_t size_ = 0;
};

}  // namespace vellicor
