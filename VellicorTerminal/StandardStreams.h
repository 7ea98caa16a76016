#pragma once

#include <string_view>

namespace vellicor {

/// Opens those of the descriptors 0 to 2 that are closed on /dev/null. Called before anything else is opened:
/// a file that took the number of a standard stream would receive what is printed.
void openStandardStreams() noexcept;

/// Writes the text to its end, as one write where the system takes it whole, and waits for a descriptor that
/// is non-blocking. Returns 0, or the error number of the write that failed.
int writeAll(int fd, std::string_view text) noexcept;

}  // namespace vellicor
