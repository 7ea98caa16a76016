#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace vellicor {

// One kind of units everywhere: decimal, a GB is 10^9 bytes.

/// "512 B", "6.05 MB", "14.2 GB", "142 GB": three digits.
std::string bytesText(double bytes);
std::string bytesText(std::uint64_t bytes);
/// "6.0/14.2 GB": both in the unit and with the digits of the whole.
std::string bytesOfText(std::uint64_t part, std::uint64_t whole);
/// "3.36 MB (3,358,720 bytes)"
std::string exactBytesText(std::uint64_t bytes);
/// "90.2%", and "0.0%" where the whole is zero.
std::string percentText(std::uint64_t part, std::uint64_t whole);

/// "0.4 s", "12 s", "6:54", "1:03:54".
std::string durationText(std::chrono::nanoseconds duration);
/// "0:12", "6:54", "1:03:54", or ">99 h".
std::string clockText(std::chrono::seconds duration);

}  // namespace vellicor
