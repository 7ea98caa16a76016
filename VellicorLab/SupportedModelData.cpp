#include "VellicorLab/SupportedModelData.h"

#include <initializer_list>
#include <string>

namespace vellicor {

namespace {

std::string joined(std::initializer_list<std::string_view> pieces) {
  std::string text;
  for (std::string_view piece : pieces) text += piece;
  return text;
}

}  // namespace

std::string_view SupportedModelData::indexJson() {
  static const std::string text = joined({
#include "VellicorLab/data/model.safetensors.index.json.inc"
  });
  return text;
}

std::array<std::string_view, 3> SupportedModelData::shardHeaders() {
  static const std::string first = joined({
#include "VellicorLab/data/model-00001-of-00003.header.json.inc"
  });
  static const std::string second = joined({
#include "VellicorLab/data/model-00002-of-00003.header.json.inc"
  });
  static const std::string third = joined({
#include "VellicorLab/data/model-00003-of-00003.header.json.inc"
  });
  return {first, second, third};
}

}  // namespace vellicor
