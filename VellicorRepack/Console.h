#pragma once

#include <string_view>

namespace vellicor {

enum class ConsoleStream { standardOutput, standardError };

/// Writes the text as one write, so that lines of several writers do not mix. What cannot be written is
/// dropped: nothing on disk depends on it.
void writeToConsole(ConsoleStream stream, std::string_view text) noexcept;

}  // namespace vellicor
