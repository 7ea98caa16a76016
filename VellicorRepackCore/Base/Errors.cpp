#include "VellicorRepackCore/Base/Errors.h"

#include <algorithm>

namespace vellicor {

std::string QuantOverrideCountMismatch::text() const {
  constexpr std::size_t shown = 5;
  std::string list = "[";
  for (std::size_t i = 0; i < std::min(sample.size(), shown); ++i) {
    list += fmt::format("{}\"{}\"", i == 0 ? "" : ", ", sample[i]);
  }
  return fmt::format("config.json quantization overrides: expected {}, got {}; sample={}", expected, actual,
                     list + "]");
}

}  // namespace vellicor
