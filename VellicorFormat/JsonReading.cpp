#include "VellicorFormat/JsonReading.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include <fmt/format.h>

#include "VellicorFormat/Unicode.h"

namespace vellicor {
namespace {

using Json = nlohmann::json;

/// Refuses, before anything is built, text whose tree would nest too deep or take memory out of proportion.
/// Malformed text may pass; the parser refuses it.
void checkProportions(std::string_view text) {
  std::size_t depth = 0;
  std::size_t values = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') ++i;
      if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > maximumJsonDepth) throw jsonTooDeep();
      ++values;
    } else if (c == ',') {
      ++values;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  if (values > maximumJsonValues) {
    throw JsonDecodingError(fmt::format("JSON of more than {} values", maximumJsonValues));
  }
}

/// A decimal number: its digits without zeros at either end, times ten to the power of `exponent`.
struct Decimal {
  std::string digits;
  std::int64_t exponent = 0;
};

/// Nothing when the exponent does not fit.
std::optional<Decimal> decimalOf(std::string_view number) {
  const std::size_t mark = std::min(number.find_first_of("eE"), number.size());
  const std::string_view mantissa = number.substr(0, mark);
  std::string_view exponent = number.substr(std::min(mark + 1, number.size()));
  if (exponent.starts_with('+')) exponent.remove_prefix(1);

  Decimal decimal;
  const auto [end, error] =
      std::from_chars(exponent.data(), exponent.data() + exponent.size(), decimal.exponent);
  constexpr std::int64_t farOut = std::int64_t{1} << 40;
  if (error == std::errc::result_out_of_range || decimal.exponent > farOut || decimal.exponent < -farOut) {
    return std::nullopt;
  }
  const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
  const std::string_view fraction = mantissa.substr(std::min(point + 1, mantissa.size()));
  decimal.digits.append(mantissa.substr(0, point)).append(fraction);
  decimal.exponent -= static_cast<std::int64_t>(fraction.size());
  const std::size_t used = decimal.digits.find_last_not_of('0') + 1;
  decimal.exponent += static_cast<std::int64_t>(decimal.digits.size() - used);
  decimal.digits.resize(used);
  decimal.digits.erase(0, decimal.digits.find_first_not_of('0'));
  return decimal;
}

/// Empties a value from its leaves on, as deep as `maximumJsonDepth`.
void takeApart(Json& value) noexcept {
  if (auto* const array = value.get_ptr<Json::array_t*>()) {
    for (Json& element : *array) takeApart(element);
    array->clear();
  } else if (auto* const object = value.get_ptr<Json::object_t*>()) {
    for (auto& [ignored, member] : *object) takeApart(member);
    object->clear();
  }
}

class TreeBuilder {
 public:
  void scalar(Json value) { place() = std::move(value); }
  void open(Json::value_t form) {
    Json& opened = place();
    opened = Json(form);
    open_.push_back(&opened);
  }
  void close() { open_.pop_back(); }
  void key(std::string& name) { key_ = std::move(name); }

  JsonTree take() { return std::move(tree_); }

 private:
  /// Where the next value goes. A container is not added to before the one inside it is closed, so the
  /// pointers to the open ones hold.
  Json& place() {
    if (open_.empty()) return tree_.root;
    Json& container = *open_.back();
    if (container.is_array()) return container.emplace_back();
    Json& member = container[key_];
    takeApart(member);  // If a key is given twice, the last value counts.
    return member;
  }

  JsonTree tree_;
  std::vector<Json*> open_;
  std::string key_;
};

}  // namespace

JsonDecodingError jsonTooDeep() {
  return JsonDecodingError(fmt::format("JSON nested deeper than {} levels", maximumJsonDepth));
}

JsonDecodingError jsonMalformed(const nlohmann::json::exception& error) {
  constexpr std::size_t enough = 400;
  // The parser quotes the whole token at which it stopped.
  const std::string_view text = error.what();
  if (text.size() <= enough) return JsonDecodingError(error.what());
  return JsonDecodingError(repairedUtf8(text.substr(0, enough)) + "...");
}

void requireNoNul(std::string_view text) {
  const std::size_t at = text.find('\0');
  if (at != std::string_view::npos) throw JsonDecodingError(fmt::format("JSON with a NUL byte at {}", at));
}

std::optional<std::int64_t> exactIntegerOf(std::string_view number) {
  constexpr std::int64_t limit = std::int64_t{1} << std::numeric_limits<double>::digits;
  constexpr std::size_t limitDigits = 16;
  const bool isNegative = number.starts_with('-');
  if (isNegative) number.remove_prefix(1);
  const std::optional<Decimal> decimal = decimalOf(number);
  if (!decimal) return std::nullopt;
  if (decimal->digits.empty()) return isNegative ? std::nullopt : std::optional<std::int64_t>(0);
  if (decimal->exponent < 0 || decimal->digits.size() > limitDigits ||
      decimal->exponent > static_cast<std::int64_t>(limitDigits - decimal->digits.size())) {
    return std::nullopt;
  }
  std::int64_t value = 0;
  for (const char digit : decimal->digits) value = value * 10 + (digit - '0');
  for (std::int64_t i = 0; i < decimal->exponent; ++i) value *= 10;
  if (value >= limit) return std::nullopt;
  return isNegative ? -value : value;
}

JsonTree& JsonTree::operator=(JsonTree&& other) noexcept {
  root.swap(other.root);
  return *this;
}

JsonTree::~JsonTree() { takeApart(root); }

JsonTree parseJson(std::string_view text) {
  requireNoNul(text);
  checkProportions(text);
  TreeBuilder builder;
  JsonEvents events(builder);
  Json::sax_parse(text, &events);
  return builder.take();
}

std::optional<std::int64_t> exactInteger(const nlohmann::json& value) {
  if (!value.is_number_integer()) return std::nullopt;
  if (value.is_number_unsigned() && !std::in_range<std::int64_t>(value.get<std::uint64_t>()))
    return std::nullopt;
  return value.get<std::int64_t>();
}

std::optional<std::uint64_t> exactUnsigned(const nlohmann::json& value) {
  if (!value.is_number_integer()) return std::nullopt;
  if (!value.is_number_unsigned() && value.get<std::int64_t>() < 0) return std::nullopt;
  return value.get<std::uint64_t>();
}

JsonObject::JsonObject(const nlohmann::json& value, std::string where)
    : value_(&value), where_(std::move(where)) {
  if (!value.is_object())
    throw JsonDecodingError(fmt::format("{}: expected an object", where_.empty() ? "document" : where_));
}

const nlohmann::json& JsonObject::member(std::string_view key) const {
  const auto found = value_->find(key);
  if (found == value_->end()) throw JsonDecodingError(fmt::format("{}: missing", path(key)));
  return *found;
}

const nlohmann::json* JsonObject::optionalMember(std::string_view key) const {
  const auto found = value_->find(key);
  return found == value_->end() || found->is_null() ? nullptr : &*found;
}

std::string JsonObject::string(std::string_view key) const {
  const nlohmann::json& value = member(key);
  if (!value.is_string()) refuse(key, "a string");
  return value.get<std::string>();
}

bool JsonObject::boolean(std::string_view key) const {
  const nlohmann::json& value = member(key);
  if (!value.is_boolean()) refuse(key, "a boolean");
  return value.get<bool>();
}

std::int64_t JsonObject::integer(std::string_view key) const {
  const std::optional<std::int64_t> exact = exactInteger(member(key));
  if (!exact) refuse(key, "an integer");
  return *exact;
}

std::uint64_t JsonObject::unsignedInteger(std::string_view key) const {
  const std::optional<std::uint64_t> exact = exactUnsigned(member(key));
  if (!exact) refuse(key, "an unsigned integer");
  return *exact;
}

double JsonObject::number(std::string_view key) const {
  const nlohmann::json& value = member(key);
  if (!value.is_number()) refuse(key, "a number");
  return value.get<double>();
}

JsonObject JsonObject::object(std::string_view key) const { return {member(key), path(key)}; }

const nlohmann::json& JsonObject::array(std::string_view key) const {
  const nlohmann::json& value = member(key);
  if (!value.is_array()) refuse(key, "an array");
  return value;
}

std::vector<std::int64_t> JsonObject::integerArray(std::string_view key) const {
  const nlohmann::json& values = array(key);
  std::vector<std::int64_t> integers;
  integers.reserve(values.size());
  for (const nlohmann::json& value : values) {
    const std::optional<std::int64_t> exact = exactInteger(value);
    if (!exact) refuse(key, "an array of integers");
    integers.push_back(*exact);
  }
  return integers;
}

std::optional<std::string> JsonObject::optionalString(std::string_view key) const {
  if (optionalMember(key) == nullptr) return std::nullopt;
  return string(key);
}

std::optional<std::int64_t> JsonObject::optionalInteger(std::string_view key) const {
  if (optionalMember(key) == nullptr) return std::nullopt;
  return integer(key);
}

std::string JsonObject::path(std::string_view key) const {
  return where_.empty() ? std::string(key) : fmt::format("{}.{}", where_, key);
}

void JsonObject::refuse(std::string_view key, std::string_view expected) const {
  throw JsonDecodingError(fmt::format("{}: expected {}", path(key), expected));
}

}  // namespace vellicor
