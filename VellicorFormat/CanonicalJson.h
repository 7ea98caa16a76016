#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vellicor {

/// Writes one JSON document (RFC 8259) in the canonical form of this system's records: the caller gives keys
/// in ascending byte order (checked in debug builds), the pretty form has one member per line, two spaces per
/// level and `"key" : value`, an empty array or object in the pretty form is its bracket, an empty line and
/// its closing bracket, and nothing follows the last bracket. Text that is not well-formed UTF-8 is refused
/// with `std::invalid_argument`: a record that must be exact cannot hold it, and `repairedUtf8` serves the
/// others.
class CanonicalJson {
 public:
  enum class Layout { pretty, compact };
  enum class Slashes { plain, escaped };

  CanonicalJson(Layout layout, Slashes slashes) : layout_(layout), slashes_(slashes) {}

  CanonicalJson& beginObject();
  CanonicalJson& endObject();
  CanonicalJson& beginArray();
  CanonicalJson& endArray();
  CanonicalJson& key(std::string_view name);

  CanonicalJson& value(std::string_view text);
  CanonicalJson& value(const char* text) { return value(std::string_view(text)); }
  CanonicalJson& value(bool flag);
  CanonicalJson& value(std::uint64_t number);
  CanonicalJson& value(std::int64_t number);
  /// The shortest decimal form that reads back to the same value. `number` is finite.
  CanonicalJson& value(double number);

  /// key(name) followed by value(v).
  template <typename T>
  CanonicalJson& member(std::string_view name, const T& v) {
    return key(name).value(v);
  }

  /// Grows the output buffer once for a document of about `bytes`.
  void reserve(std::size_t bytes) { text_.reserve(bytes); }

  /// The finished document; the writer is spent.
  std::string take() && { return std::move(text_); }

 private:
  struct Level {
    bool isObject = false;
    bool isEmpty = true;
    /// Kept in debug builds only.
    std::string lastKey;
  };

  void beginValue();
  void beginItem();
  void open(char bracket, bool isObject);
  void close(char bracket);
  void newLine(std::size_t depth);
  void appendString(std::string_view text);

  Layout layout_;
  Slashes slashes_;
  bool afterKey_ = false;
  std::string text_;
  std::vector<Level> levels_;
};

}  // namespace vellicor
