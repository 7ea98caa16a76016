#include "VellicorFormat/JsonStreaming.h"

#include <cstdlib>
#include <utility>

#include <fmt/format.h>

namespace vellicor {
namespace {

using Json = nlohmann::json;
using Form = JsonShape::Form;

// ---- Scalars ----

template <typename T>
class ScalarShape : public JsonShapeFor<T, Form::scalar> {
 public:
  explicit ScalarShape(const char* expected) : expected_(expected) {}
  const char* expected() const final { return expected_; }

 private:
  const char* expected_;
};

struct UnsignedShape final : ScalarShape<std::uint64_t> {
  UnsignedShape() : ScalarShape("an unsigned integer") {}
  const char* take(Json& value, void* place) const override {
    const auto exact = exactUnsigned(value);
    if (!exact) return expected();
    of(place) = *exact;
    return nullptr;
  }
};

struct IntegerShape final : ScalarShape<std::int64_t> {
  IntegerShape() : ScalarShape("an integer") {}
  const char* take(Json& value, void* place) const override {
    const auto exact = exactInteger(value);
    if (!exact) return expected();
    of(place) = *exact;
    return nullptr;
  }
};

struct OptionalIntegerShape final : ScalarShape<std::optional<std::int64_t>> {
  OptionalIntegerShape() : ScalarShape("an integer") {}
  const char* take(Json& value, void* place) const override {
    of(place) = exactInteger(value);
    return of(place) || value.is_null() ? nullptr : expected();
  }
};

struct StringShape final : ScalarShape<std::string> {
  StringShape() : ScalarShape("a string") {}
  const char* take(Json& value, void* place) const override {
    if (!value.is_string()) return expected();
    of(place) = std::move(value.get_ref<std::string&>());
    return nullptr;
  }
};

using Dimensions = std::vector<std::uint32_t>;

/// The elements of an array of dimensions; the place is the whole array.
struct DimensionShape final : ScalarShape<Dimensions> {
  DimensionShape() : ScalarShape("an array of integers") {}
  const char* take(Json& value, void* place) const override {
    const auto exact = exactInteger(value);
    if (!exact) return expected();
    if (!std::in_range<std::uint32_t>(*exact)) return "32-bit dimensions";
    of(place).push_back(static_cast<std::uint32_t>(*exact));
    return nullptr;
  }
};

struct DimensionsShape final : JsonShapeFor<Dimensions, Form::array> {
  Child element(void* place) const override {
    static const DimensionShape dimension;
    return {&dimension, place};
  }
  bool namesElements() const override { return false; }
};

// ---- Reading ----

/// An object or array that is being read.
class Container {
 public:
  explicit Container(const JsonShape::Child& self) : shape_(self.shape), place_(self.place) {}

  void beginMember(std::string key) {
    key_ = std::move(key);
    child_ = {};
    if (faults_.size() >= maximumFaults) return;
    child_ = shape_->member(place_, key_);
    if (child_.shape == nullptr) return;
    const std::uint64_t bit = shape_->memberCount() == 0 ? 0 : std::uint64_t{1} << child_.rank;
    if (child_.isTaken || (seen_ & bit) != 0) {
      child_.shape->clear(child_.place);
      faults_.erase({child_.rank, faultKey()});
    }
    seen_ |= bit;
  }

  /// Where the value goes that begins now: the member whose key was read, or the next element. Behind a fault
  /// the elements of an array are ignored.
  JsonShape::Child beginValue() {
    if (shape_->form() == Form::object) return child_;
    ++elements_;
    return faults_.empty() ? shape_->element(place_) : JsonShape::Child{};
  }

  /// `fault` is that of the value begun last, relative to it.
  void addFault(const std::string& fault) {
    faults_.emplace(std::pair(child_.rank, faultKey()), childName() + fault);
  }

  /// What is wrong with the whole, relative to it: the first fault in the order of the table, or nothing.
  std::optional<std::string> fault() const {
    const auto first = faults_.begin();
    const std::size_t end = first == faults_.end() ? shape_->memberCount() : first->first.first;
    for (std::size_t rank = 0; rank < end; ++rank) {
      const auto name = shape_->requiredMember(rank);
      if (name && (seen_ >> rank & 1) == 0) return fmt::format(".{}: missing", *name);
    }
    return first == faults_.end() ? std::nullopt : std::optional(first->second);
  }

 private:
  /// A text that mends more faults of one object than this, by giving their keys again, is refused: what is
  /// remembered for it would grow with the text.
  static constexpr std::size_t maximumFaults = 100;

  /// Members of a table are told apart by their rank, others by their key.
  std::string faultKey() const { return shape_->memberCount() == 0 ? key_ : std::string(); }

  std::string childName() const {
    if (shape_->form() == Form::object) return "." + key_;
    return shape_->namesElements() ? fmt::format("[{}]", elements_ - 1) : std::string();
  }

  const JsonShape* shape_;
  void* place_;
  std::string key_;
  JsonShape::Child child_;
  std::size_t elements_ = 0;
  std::uint64_t seen_ = 0;
  /// By rank and key.
  std::map<std::pair<std::size_t, std::string>, std::string> faults_;
};

/// Receives the parser's events, whose names are the parser's.
class StreamReader {
 public:
  StreamReader(const JsonShape& shape, void* place) : document_{&shape, place} {}

  bool null() { return scalar(nullptr); }
  bool boolean(bool value) { return scalar(value); }
  bool number_integer(std::int64_t value) { return scalar(value); }
  bool number_unsigned(std::uint64_t value) { return scalar(value); }
  bool number_float(double value, const std::string& number) {
    const std::optional<std::int64_t> integer = exactIntegerOf(number);
    return integer ? scalar(*integer) : scalar(value);
  }
  bool string(std::string& value) { return scalar(std::move(value)); }
  bool binary(Json::binary_t&) { std::abort(); }  // No part of JSON texts.

  bool start_object(std::size_t) { return open(Form::object); }
  bool end_object() { return close(); }
  bool start_array(std::size_t) { return open(Form::array); }
  bool end_array() { return close(); }
  bool key(std::string& name) {
    if (ignoredDepth_ == 0) open_.back().beginMember(std::move(name));
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const Json::exception& error) {
    throw jsonMalformed(error);
  }

  /// Once the text has ended.
  void requireNoFault() const {
    if (!fault_) return;
    throw JsonDecodingError(fault_->starts_with('.') ? fault_->substr(1) : "document" + *fault_);
  }

 private:
  template <typename Value>
  bool scalar(Value&& value) {
    if (ignoredDepth_ > 0) return true;
    const JsonShape::Child child = beginValue();
    if (child.shape == nullptr) return true;
    Json json(std::forward<Value>(value));
    const bool isScalar = child.shape->form() == Form::scalar;
    const char* expected = isScalar ? child.shape->take(json, child.place) : child.shape->expected();
    if (expected != nullptr) refuse(expected);
    return true;
  }

  bool open(Form form) {
    if (open_.size() + ignoredDepth_ >= maximumJsonDepth) throw jsonTooDeep();
    if (ignoredDepth_ > 0) {
      ++ignoredDepth_;
      return true;
    }
    const JsonShape::Child child = beginValue();
    if (child.shape != nullptr && child.shape->form() == form) {
      open_.emplace_back(child);
      return true;
    }
    if (child.shape != nullptr) refuse(child.shape->expected());
    ignoredDepth_ = 1;
    return true;
  }

  bool close() {
    if (ignoredDepth_ > 0) {
      --ignoredDepth_;
      return true;
    }
    const std::optional<std::string> fault = open_.back().fault();
    open_.pop_back();
    if (fault) addFault(*fault);
    return true;
  }

  JsonShape::Child beginValue() { return open_.empty() ? document_ : open_.back().beginValue(); }

  void refuse(const char* expected) { addFault(fmt::format(": expected {}", expected)); }

  void addFault(const std::string& fault) {
    if (open_.empty()) {
      fault_ = fault;
    } else {
      open_.back().addFault(fault);
    }
  }

  JsonShape::Child document_;
  std::vector<Container> open_;
  /// How deep the text is inside a value that is ignored.
  std::size_t ignoredDepth_ = 0;
  std::optional<std::string> fault_;
};

}  // namespace

const char* JsonShape::take(Json&, void*) const { return expected(); }
JsonShape::Child JsonShape::member(void*, const std::string&) const { return {}; }
std::optional<std::string_view> JsonShape::requiredMember(std::size_t) const { return std::nullopt; }
JsonShape::Child JsonShape::element(void*) const { return {}; }

void readJsonInto(std::string_view text, const JsonShape& shape, void* place) {
  requireNoNul(text);
  StreamReader reader(shape, place);
  Json::sax_parse(text, &reader);
  reader.requireNoFault();
}

template <>
const JsonShape& jsonShape<std::uint64_t>() {
  static const UnsignedShape shape;
  return shape;
}
template <>
const JsonShape& jsonShape<std::int64_t>() {
  static const IntegerShape shape;
  return shape;
}
template <>
const JsonShape& jsonShape<std::optional<std::int64_t>>() {
  static const OptionalIntegerShape shape;
  return shape;
}
template <>
const JsonShape& jsonShape<std::string>() {
  static const StringShape shape;
  return shape;
}
template <>
const JsonShape& jsonShape<Dimensions>() {
  static const DimensionsShape shape;
  return shape;
}

}  // namespace vellicor
