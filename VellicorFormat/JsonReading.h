#pragma once

// Internal to the project: not installed with the library, because it speaks the parser's types.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "VellicorFormat/MorlenFormatV1.h"

namespace vellicor {

/// A member of parsed JSON is missing or has another type than expected; the text names the key.
class JsonDecodingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A parsed document. Unlike that of its root, whose destructor takes memory, its end always succeeds.
struct JsonTree {
  JsonTree() = default;
  JsonTree(JsonTree&&) noexcept = default;
  JsonTree& operator=(JsonTree&& other) noexcept;
  ~JsonTree();

  nlohmann::json root;
};

inline constexpr std::size_t maximumJsonDepth = 512;
/// The error for deeper texts.
JsonDecodingError jsonTooDeep();
/// The parser's own words for malformed text, without the megabytes that it may quote.
JsonDecodingError jsonMalformed(const nlohmann::json::exception& error);
/// Throws `JsonDecodingError` for a text with a NUL byte anywhere: the parser takes one for the text's end.
void requireNoNul(std::string_view text);
/// The value of a JSON number written with a fraction or an exponent, if that is exactly an integer of less
/// than 2^53: from there on the parser's doubles do not tell neighbouring integers apart. Nothing for -0.0.
std::optional<std::int64_t> exactIntegerOf(std::string_view number);

/// Receives the parser's events, which have the parser's names, and hands them to `Reader`:
///   void scalar(nlohmann::json value); void open(nlohmann::json::value_t form); void close();
///   void key(std::string& name);
/// A number that `exactIntegerOf` knows arrives as an integer, also where it was written as 3.0.
template <typename Reader>
class JsonEvents {
 public:
  explicit JsonEvents(Reader& reader) : reader_(reader) {}

  bool null() { return scalar(nullptr); }
  bool boolean(bool value) { return scalar(value); }
  bool number_integer(std::int64_t value) { return scalar(value); }
  bool number_unsigned(std::uint64_t value) { return scalar(value); }
  bool number_float(double value, const std::string& number) {
    const std::optional<std::int64_t> integer = exactIntegerOf(number);
    return integer ? scalar(*integer) : scalar(value);
  }
  bool string(std::string& value) { return scalar(std::move(value)); }
  bool binary(nlohmann::json::binary_t&) { std::abort(); }  // JSON texts have none.

  bool start_object(std::size_t) { return reader_.open(nlohmann::json::value_t::object), true; }
  bool end_object() { return reader_.close(), true; }
  bool start_array(std::size_t) { return reader_.open(nlohmann::json::value_t::array), true; }
  bool end_array() { return reader_.close(), true; }
  bool key(std::string& name) { return reader_.key(name), true; }

  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception& error) {
    throw jsonMalformed(error);
  }

 private:
  bool scalar(nlohmann::json value) { return reader_.scalar(std::move(value)), true; }

  Reader& reader_;
};

/// Parses one JSON document (RFC 8259, strict UTF-8, nothing but white space after it). Nesting deeper than
/// `maximumJsonDepth` is refused before anything is built, so hostile brackets cost no memory. A number that
/// `exactIntegerOf` knows becomes an integer, also where it was written as 3.0. Throws `JsonDecodingError`
/// with the parser's own words, shortened where it quotes megabytes.
JsonTree parseJson(std::string_view text);

/// Five times what the largest record of this system holds. At up to 160 bytes each, the tree of a text stays
/// below 256 MiB.
inline constexpr std::size_t maximumJsonValues = 1500000;

/// Typed access to the members of one JSON object; `where` names the object in messages ("" for the
/// document). Every accessor throws `JsonDecodingError` when the member is missing or of another type.
/// Numbers are exact: an integer accessor takes an integer that fits, or what `exactIntegerOf` knows as one
/// (3.0 counts as 3), never a fraction and nothing that was rounded.
class JsonObject {
 public:
  /// Throws `JsonDecodingError` when `value` is not an object. Keeps a reference to `value`.
  JsonObject(const nlohmann::json& value, std::string where);

  const nlohmann::json& member(std::string_view key) const;
  /// Absent and null both give nothing.
  const nlohmann::json* optionalMember(std::string_view key) const;

  std::string string(std::string_view key) const;
  bool boolean(std::string_view key) const;
  std::int64_t integer(std::string_view key) const;
  std::uint64_t unsignedInteger(std::string_view key) const;
  double number(std::string_view key) const;
  JsonObject object(std::string_view key) const;
  const nlohmann::json& array(std::string_view key) const;
  std::vector<std::int64_t> integerArray(std::string_view key) const;

  std::optional<std::string> optionalString(std::string_view key) const;
  std::optional<std::int64_t> optionalInteger(std::string_view key) const;

  /// "<where>.<key>", for messages.
  std::string path(std::string_view key) const;
  const nlohmann::json& json() const { return *value_; }

 private:
  [[noreturn]] void refuse(std::string_view key, std::string_view expected) const;

  const nlohmann::json* value_;
  std::string where_;
};

/// The integer that a parsed value is, or nothing for any other value or one that does not fit.
std::optional<std::int64_t> exactInteger(const nlohmann::json& value);
std::optional<std::uint64_t> exactUnsigned(const nlohmann::json& value);

/// Returns what `work` returns. An exception becomes a `MorlenFormatError` invalid(field, <its text>), except
/// `std::bad_alloc`, which says nothing about the record.
template <typename Work>
auto asFormatRecord(std::string_view field, Work&& work) {
  try {
    return std::forward<Work>(work)();
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    throw MorlenFormatError::invalid(std::string(field), error.what());
  }
}

}  // namespace vellicor
