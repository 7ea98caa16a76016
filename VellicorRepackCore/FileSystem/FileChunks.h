#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {

/// How much of a file is in memory at a time.
inline constexpr std::size_t fileChunkBytes = 524288;

/// Reads [begin, begin + size) of a file in order, in pieces of at most the buffer's length, and calls
/// `visit(offset, bytes)` for each. Throws `PreadShort`, and what `visit` throws.
template <typename Visit>
void forEachChunk(int fd, const std::string& path, std::uint64_t begin, std::uint64_t size,
                  std::span<std::byte> buffer, Visit&& visit) {
  for (std::uint64_t done = 0; done < size;) {
    const std::uint64_t length = std::min<std::uint64_t>(buffer.size(), size - done);
    Posix::preadAll(fd, path, buffer.data(), static_cast<std::int64_t>(length), begin + done);
    visit(begin + done, std::span<const std::byte>(buffer.first(static_cast<std::size_t>(length))));
    done += length;
  }
}

}  // namespace vellicor
