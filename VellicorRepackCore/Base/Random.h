#pragma once

#include <span>
#include <string>

namespace vellicor {

/// Fills `bytes` from the secure random source. Throws `std::runtime_error` when there is none.
void fillRandom(std::span<unsigned char> bytes);

/// A random version 4 UUID (RFC 9562) in its 36-character upper-case text form.
std::string randomUuid();

}  // namespace vellicor
