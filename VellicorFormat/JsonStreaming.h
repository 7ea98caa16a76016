#pragma once

// Internal to the project, beside JsonReading.h: typed reading of a large JSON text straight from the
// parser's events, without a tree of it. A record says once, as a table of its members, how it is read:
//
//   template <>
//   constexpr auto jsonTable<Point> = std::array{jsonMember<&Point::x>("x"), jsonMember<&Point::y>("y")};
//
//   const auto point = readJson<Point>(R"({"x":1,"y":2})");
//
// Specialise in one source file only. Members of optional type may be missing or null, all others are
// required; unknown keys are ignored; of a key given twice the last value counts, whatever was wrong with the
// first, unless a hundred other faults stand in the same object. Of several faults the one is reported that a
// tree would show first: malformed text before members that are missing or of another type, and among those
// the order of the table. Text that is malformed as well as nested too deep is refused for what comes first.

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorFormat/JsonReading.h"

namespace vellicor {

/// How JSON becomes values of one C++ type. Shapes are constants without state; `place` points to the value
/// that is filled.
class JsonShape {
 public:
  enum class Form { scalar, object, array };

  /// Where a member or an element goes; without a shape it is ignored.
  struct Child {
    const JsonShape* shape = nullptr;
    void* place = nullptr;
    /// The member's row in its record's table, 0 for all others.
    std::size_t rank = 0;
    /// Whether the place held a value before.
    bool isTaken = false;
  };

  virtual ~JsonShape() = default;

  virtual Form form() const = 0;
  /// What a value that does not fit should have been, for messages.
  virtual const char* expected() const = 0;
  virtual void clear(void* place) const = 0;

  /// Of scalars: takes a null, boolean, number or string. Returns what it should have been, or nullptr.
  virtual const char* take(nlohmann::json& value, void* place) const;

  /// Of objects: the member that a key names, the length of the table, and the name of one of its rows when
  /// that member is required.
  virtual Child member(void* place, const std::string& key) const;
  virtual std::size_t memberCount() const { return 0; }
  virtual std::optional<std::string_view> requiredMember(std::size_t rank) const;

  /// Of arrays: the next element, and whether messages give its position.
  virtual Child element(void* place) const;
  virtual bool namesElements() const { return true; }
};

/// The shape of every type that has one.
template <typename T>
const JsonShape& jsonShape();

/// Parses one JSON document into `place`, as strictly as `parseJson` and to the same depth; the memory it
/// takes is that of what is read. Throws `JsonDecodingError`.
void readJsonInto(std::string_view text, const JsonShape& shape, void* place);

template <typename T>
T readJson(std::string_view text) {
  T value{};
  readJsonInto(text, jsonShape<T>(), &value);
  return value;
}

// ---- Records ----

/// One row of a record's table.
struct JsonMember {
  std::string_view name;
  const JsonShape& (*shape)();
  void* (*placeIn)(void* record);
  bool isRequired;
};

/// The table of a record; specialised where the record is read, for at most 64 members.
template <typename Record>
inline constexpr std::array<JsonMember, 0> jsonTable{};

namespace json_detail {

template <typename Record, typename Value>
Record recordOf(Value Record::*);
template <typename Record, typename Value>
Value valueOf(Value Record::*);

template <typename T>
inline constexpr bool isOptional = false;
template <typename T>
inline constexpr bool isOptional<std::optional<T>> = true;

}  // namespace json_detail

/// The row of the member that `field`, a pointer to member, points to.
template <auto field>
constexpr JsonMember jsonMember(std::string_view name) {
  using Record = decltype(json_detail::recordOf(field));
  using Value = decltype(json_detail::valueOf(field));
  return {.name = name,
          .shape = jsonShape<Value>,
          .placeIn = [](void* record) -> void* { return &(static_cast<Record*>(record)->*field); },
          .isRequired = !json_detail::isOptional<Value>};
}

// ---- Shapes ----

/// What the shapes of a C++ type have in common.
template <typename T, JsonShape::Form ownForm>
class JsonShapeFor : public JsonShape {
 public:
  Form form() const final { return ownForm; }
  const char* expected() const override { return ownForm == Form::object ? "an object" : "an array"; }
  void clear(void* place) const final { of(place) = T{}; }

 protected:
  static T& of(void* place) { return *static_cast<T*>(place); }
};

/// A struct with a table.
template <typename Record>
class JsonRecordShape final : public JsonShapeFor<Record, JsonShape::Form::object> {
 public:
  JsonShape::Child member(void* place, const std::string& key) const override {
    for (std::size_t rank = 0; rank < table.size(); ++rank) {
      if (table[rank].name == key) return {&table[rank].shape(), table[rank].placeIn(place), rank};
    }
    return {};
  }
  std::size_t memberCount() const override { return table.size(); }
  std::optional<std::string_view> requiredMember(std::size_t rank) const override {
    return table[rank].isRequired ? std::optional(table[rank].name) : std::nullopt;
  }

 private:
  static constexpr const auto& table = jsonTable<Record>;
  static_assert(table.size() > 0 && table.size() <= 64, "a record is read by its table");
};

/// An object whose keys are data.
template <typename Value>
class JsonMapShape final : public JsonShapeFor<std::map<std::string, Value>, JsonShape::Form::object> {
 public:
  JsonShape::Child member(void* place, const std::string& key) const override {
    const auto [entry, isNew] = this->of(place).try_emplace(key);
    return {.shape = &jsonShape<Value>(), .place = &entry->second, .rank = 0, .isTaken = !isNew};
  }
};

template <typename Element>
class JsonArrayShape final : public JsonShapeFor<std::vector<Element>, JsonShape::Form::array> {
 public:
  JsonShape::Child element(void* place) const override {
    return {&jsonShape<Element>(), &this->of(place).emplace_back()};
  }
};

namespace json_detail {

template <typename T>
struct ShapeOf {
  using Type = JsonRecordShape<T>;
};
template <typename T>
struct ShapeOf<std::vector<T>> {
  using Type = JsonArrayShape<T>;
};
template <typename T>
struct ShapeOf<std::map<std::string, T>> {
  using Type = JsonMapShape<T>;
};

}  // namespace json_detail

template <typename T>
const JsonShape& jsonShape() {
  static const typename json_detail::ShapeOf<T>::Type shape;
  return shape;
}

template <>
const JsonShape& jsonShape<std::uint64_t>();
template <>
const JsonShape& jsonShape<std::int64_t>();
template <>
const JsonShape& jsonShape<std::optional<std::int64_t>>();
template <>
const JsonShape& jsonShape<std::string>();
/// Dimensions of 32 bits.
template <>
const JsonShape& jsonShape<std::vector<std::uint32_t>>();

}  // namespace vellicor
