#include "VellicorFormat/JsonReading.h"

#include <cmath>

#include <fmt/format.h>

#include "VellicorFormat/UnicodeText.h"

namespace vellicor {
namespace {

/// Refuses, before anything is built, text whose tree would nest too deep or take memory out of proportion.
/// Text that is no JSON may pass; the parser refuses it.
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

/// The integral value of a double strictly between `below` and `above`, which are exact.
template <typename Integer>
std::optional<Integer> exactDouble(double value, double below, double above) {
  if (!(value > below && value < above) || value != std::trunc(value)) return std::nullopt;
  return static_cast<Integer>(value);
}

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

nlohmann::json parseJson(std::string_view text) {
  checkProportions(text);
  try {
    return nlohmann::json::parse(text);
  } catch (const nlohmann::json::exception& error) {
    throw jsonMalformed(error);
  }
}

std::optional<std::int64_t> exactInteger(const nlohmann::json& value) {
  if (value.is_number_float()) return exactDouble<std::int64_t>(value.get<double>(), -0x1p63, 0x1p63);
  if (!value.is_number()) return std::nullopt;
  if (value.is_number_unsigned() && !std::in_range<std::int64_t>(value.get<std::uint64_t>()))
    return std::nullopt;
  return value.get<std::int64_t>();
}

std::optional<std::uint64_t> exactUnsigned(const nlohmann::json& value) {
  if (value.is_number_float()) return exactDouble<std::uint64_t>(value.get<double>(), -1, 0x1p64);
  if (!value.is_number()) return std::nullopt;
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
