#include "VellicorLab/ByteSource.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "VellicorRepackCore/Base/Sha256Stream.h"

namespace vellicor {

namespace {

/// Sources are walked in pieces of this size.
constexpr std::uint64_t pieceBytes = 1048576;

std::size_t pieceAt(std::uint64_t offset, std::uint64_t size) {
  return static_cast<std::size_t>(std::min(pieceBytes, size - offset));
}

}  // namespace

void requireInside(std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
  if (offset > size || length > size - offset) {
    throw std::out_of_range(fmt::format("{} bytes at {} of {}", length, offset, size));
  }
}

std::string contentOf(const ByteSource& source) {
  std::string content(source.size(), '\0');
  source.read(0, std::as_writable_bytes(std::span(content)));
  return content;
}

std::string sha256Of(const ByteSource& source) {
  Sha256Stream stream;
  std::vector<std::byte> piece(pieceBytes);
  for (std::uint64_t offset = 0; offset < source.size(); offset += pieceBytes) {
    const auto bytes = std::span(piece).first(pieceAt(offset, source.size()));
    source.read(offset, bytes);
    stream.update(bytes);
  }
  return stream.finalizeHexString();
}

std::optional<std::uint64_t> firstDifference(const ByteSource& a, const ByteSource& b) {
  const std::uint64_t common = std::min(a.size(), b.size());
  std::vector<std::byte> pieceOfA(pieceBytes);
  std::vector<std::byte> pieceOfB(pieceBytes);
  for (std::uint64_t offset = 0; offset < common; offset += pieceBytes) {
    const std::size_t count = pieceAt(offset, common);
    const auto inA = std::span(pieceOfA).first(count);
    const auto inB = std::span(pieceOfB).first(count);
    a.read(offset, inA);
    b.read(offset, inB);
    if (std::ranges::equal(inA, inB)) continue;
    const auto difference = std::ranges::mismatch(inA, inB).in1 - inA.begin();
    return offset + static_cast<std::uint64_t>(difference);
  }
  return a.size() == b.size() ? std::nullopt : std::optional(common);
}

void JoinedBytes::add(std::string text) {
  const std::uint64_t size = text.size();
  add(Segment(std::move(text)), size);
}

void JoinedBytes::add(std::shared_ptr<const ByteSource> source, std::uint64_t offset, std::uint64_t size) {
  requireInside(offset, size, source->size());
  add(SourceRange{std::move(source), offset}, size);
}

void JoinedBytes::padTo(std::uint64_t size) {
  requireInside(size_, 0, size);
  add(Zeros(), size - size_);
}

void JoinedBytes::add(Segment segment, std::uint64_t size) {
  if (size == 0) return;
  segments_.emplace(size_, std::move(segment));
  size_ += size;
}

void JoinedBytes::read(std::uint64_t offset, std::span<std::byte> bytes) const {
  requireInside(offset, bytes.size(), size_);
  auto next = segments_.upper_bound(offset);
  while (!bytes.empty()) {
    const auto& [begin, segment] = *std::prev(next);
    const std::uint64_t end = next == segments_.end() ? size_ : next->first;
    const auto part =
        bytes.first(static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), end - offset)));
    const std::uint64_t inside = offset - begin;
    if (const auto* range = std::get_if<SourceRange>(&segment)) {
      range->source->read(range->offset + inside, part);
    } else if (const auto* text = std::get_if<std::string>(&segment)) {
      std::ranges::copy(std::as_bytes(std::span(*text)).subspan(inside, part.size()), part.begin());
    } else {
      std::ranges::fill(part, std::byte{0});
    }
    offset += part.size();
    bytes = bytes.subspan(part.size());
    if (offset == end && next != segments_.end()) ++next;
  }
}

}  // namespace vellicor
