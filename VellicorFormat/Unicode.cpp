#include "VellicorFormat/Unicode.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <stdexcept>
#include <vector>

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/stringpiece.h>
#include <unicode/unistr.h>

namespace vellicor {
namespace {

icu::UnicodeString fromUtf8(std::string_view text) {
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()))
    throw std::length_error("text is too long for Unicode processing");
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

void requireSuccess(UErrorCode status) {
  if (status == U_MEMORY_ALLOCATION_ERROR) throw std::bad_alloc();
  if (U_FAILURE(status)) throw std::runtime_error(u_errorName(status));
}

std::string toUtf8(const icu::UnicodeString& text) {
  if (text.isBogus()) throw std::bad_alloc();
  std::string utf8;
  text.toUTF8String(utf8);
  return utf8;
}

/// The longest piece at the head of a text that is one well-formed sequence, or a beginning of one.
struct Utf8Piece {
  std::size_t length;
  bool isWellFormed;
};

/// The bytes that may follow a lead byte: how many, and the range of the first of them (the others are 80
/// to BF).
struct Utf8Tail {
  std::size_t count;
  unsigned char firstLow;
  unsigned char firstHigh;
};

Utf8Tail tailOf(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF) return {1, 0x80, 0xBF};
  if (lead == 0xE0) return {2, 0xA0, 0xBF};
  if (lead == 0xED) return {2, 0x80, 0x9F};
  if (lead >= 0xE1 && lead <= 0xEF) return {2, 0x80, 0xBF};
  if (lead == 0xF0) return {3, 0x90, 0xBF};
  if (lead >= 0xF1 && lead <= 0xF3) return {3, 0x80, 0xBF};
  if (lead == 0xF4) return {3, 0x80, 0x8F};
  return {0, 0, 0};
}

Utf8Piece firstPiece(std::string_view text) {
  const auto byteAt = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
  if (byteAt(0) < 0x80) return {1, true};
  const Utf8Tail tail = tailOf(byteAt(0));
  if (tail.count == 0) return {1, false};
  for (std::size_t i = 1; i <= tail.count; ++i) {
    const unsigned char low = i == 1 ? tail.firstLow : 0x80;
    const unsigned char high = i == 1 ? tail.firstHigh : 0xBF;
    if (i == text.size() || byteAt(i) < low || byteAt(i) > high) return {i, false};
  }
  return {tail.count + 1, true};
}

bool isAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::vector<UChar32> decomposed(const icu::Normalizer2& normalizer, const icu::UnicodeString& text) {
  std::vector<UChar32> points;
  icu::UnicodeString piece;
  const auto append = [&points](const icu::UnicodeString& source) {
    for (std::int32_t i = 0; i < source.length(); i = source.moveIndex32(i, 1))
      points.push_back(source.char32At(i));
  };
  for (std::int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
    const UChar32 point = text.char32At(i);
    if (normalizer.getDecomposition(point, piece)) {
      append(piece);
    } else {
      points.push_back(point);
    }
  }
  return points;
}

/// The text decomposed, with every run of combining marks in canonical order. Normalizing gives the same
/// result as for the text itself, but in linear time: ICU alone moves each mark past all others before it.
icu::UnicodeString inCanonicalOrder(const icu::Normalizer2& normalizer, const icu::UnicodeString& text) {
  std::vector<UChar32> points = decomposed(normalizer, text);
  const auto isMark = [&](UChar32 point) { return normalizer.getCombiningClass(point) != 0; };
  const auto comesFirst = [&](UChar32 a, UChar32 b) {
    return normalizer.getCombiningClass(a) < normalizer.getCombiningClass(b);
  };
  for (auto run = points.begin(); run != points.end();) {
    run = std::find_if(run, points.end(), isMark);
    const auto end = std::find_if_not(run, points.end(), isMark);
    std::stable_sort(run, end, comesFirst);
    run = end;
  }
  return icu::UnicodeString::fromUTF32(points.data(), static_cast<std::int32_t>(points.size()));
}

}  // namespace

std::string canonicalComposition(std::string_view text) {
  if (isAscii(text)) return std::string(text);
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* normalizer = icu::Normalizer2::getNFCInstance(status);
  requireSuccess(status);
  const icu::UnicodeString composed =
      normalizer->normalize(inCanonicalOrder(*normalizer, fromUtf8(text)), status);
  requireSuccess(status);
  return toUtf8(composed);
}

std::string lowercased(std::string_view text) {
  return toUtf8(fromUtf8(text).toLower(icu::Locale("en_US_POSIX")));
}

bool isWellFormedUtf8(std::string_view text) {
  if (isAscii(text)) return true;
  while (!text.empty()) {
    const Utf8Piece piece = firstPiece(text);
    if (!piece.isWellFormed) return false;
    text.remove_prefix(piece.length);
  }
  return true;
}

std::string repairedUtf8(std::string_view text) {
  std::string repaired;
  while (!text.empty()) {
    const Utf8Piece piece = firstPiece(text);
    repaired += piece.isWellFormed ? text.substr(0, piece.length) : std::string_view("\xEF\xBF\xBD");
    text.remove_prefix(piece.length);
  }
  return repaired;
}

}  // namespace vellicor
