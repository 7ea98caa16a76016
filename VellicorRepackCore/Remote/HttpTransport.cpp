#include "VellicorRepackCore/Remote/HttpTransport.h"

#include <algorithm>

#include "VellicorRepackCore/Base/AsciiText.h"

namespace vellicor {

bool isRetryableStatus(std::int64_t status) {
  return status == 408 || status == 429 || status == 500 || status == 502 || status == 503 || status == 504;
}

void HttpHeaders::set(std::string_view name, std::string_view value) {
  remove(name);
  add(name, value);
}

void HttpHeaders::remove(std::string_view name) {
  const std::string wanted = asciiLowercased(name);
  std::erase_if(fields_, [&](const auto& field) { return asciiLowercased(field.first) == wanted; });
}

void HttpHeaders::add(std::string_view name, std::string_view value) { fields_.emplace_back(name, value); }

std::optional<std::string> HttpHeaders::get(std::string_view name) const {
  const std::string wanted = asciiLowercased(name);
  const auto found = std::find_if(fields_.begin(), fields_.end(),
                                  [&](const auto& field) { return asciiLowercased(field.first) == wanted; });
  if (found == fields_.end()) return std::nullopt;
  return found->second;
}

}  // namespace vellicor
