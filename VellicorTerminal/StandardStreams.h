#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace vellicor {

/// Opens closed descriptors among 0 to 2 on /dev/null. Call it before anything else is opened: a file that
/// took the number of a standard stream would receive the printed text.
void openStandardStreams() noexcept;

/// Writes the whole text, as one write if the system takes it so, and waits for a descriptor that is
/// non-blocking. Returns 0, or the error number of the write that failed.
int writeAll(int fd, std::string_view text) noexcept;

/// The width of the window of a terminal, if `fd` is one that has a window.
std::optional<std::size_t> windowColumns(int fd) noexcept;

}  // namespace vellicor
