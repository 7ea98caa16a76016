#pragma once

#include <string>
#include <string_view>

namespace vellicor {

/// Unicode canonical composition (NFC, Unicode Standard Annex #15) of UTF-8 text. Ill-formed sequences become
/// U+FFFD. Throws `std::length_error` for a text of 2 GiB or more.
std::string canonicalComposition(std::string_view text);

/// Locale-independent full lower-casing of UTF-8 text, as the "en_US_POSIX" locale does it.
/// Ill-formed sequences become U+FFFD. Throws `std::length_error` for a text of 2 GiB or more.
std::string lowercased(std::string_view text);

/// Whether the bytes are well-formed UTF-8 (Unicode Standard, table 3-7: no overlong forms, no surrogates).
bool isWellFormedUtf8(std::string_view text);

/// `text` with one U+FFFD in place of every maximal ill-formed piece.
std::string repairedUtf8(std::string_view text);

}  // namespace vellicor
