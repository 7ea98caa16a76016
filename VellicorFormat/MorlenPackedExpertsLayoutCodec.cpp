#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "VellicorFormat/CanonicalJson.h"
#include "VellicorFormat/JsonReading.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"

namespace vellicor {
namespace {

using Json = nlohmann::json;
using Form = Json::value_t;

/// The container that a value belongs to. Each level lies inside the one before it.
enum Level : std::size_t { outside, document, layers, layer, experts, expert, tensors, tensor, shape };

struct Key {
  std::string_view name;
  bool isRequired = true;
};

struct LevelRule {
  /// The container that leads one level deeper: its key, where it has one of its own, and its form.
  std::string_view innerKey;
  Form innerForm = Form::null;
  /// The keys of an object with fixed ones.
  std::array<Key, 5> keys;
};

constexpr std::array<LevelRule, 9> rules = {{
    {"", Form::object, {}},
    {"layers", Form::array, {Key{"expertStride"}, Key{"numLayers"}, Key{"expertsPerLayer"}, Key{"layers"}}},
    {"", Form::object, {}},
    {"experts", Form::array, {Key{"layer"}, Key{"file"}, Key{"experts"}}},
    {"", Form::object, {}},
    {"tensors",
     Form::object,
     {Key{"expert", false}, Key{"physicalRank", false}, Key{"offset"}, Key{"size"}, Key{"tensors"}}},
    {"", Form::object, {}},
    {"shape", Form::array, {Key{"offset"}, Key{"size"}, Key{"dtype"}, Key{"bits", false}, Key{"shape"}}},
    {"", Form::null, {}},
}};

/// Fills the record from the parser's events: the text has tens of megabytes, and a tree of it would take ten
/// times that. Unknown keys are ignored; if a key is given twice, the last value counts. The first fault in
/// the text throws `JsonDecodingError`.
class LayoutReader {
 public:
  void key(std::string& name) {
    if (ignoredDepth_ > 0) return;
    key_ = std::move(name);
    const auto& keys = rules[level_].keys;
    const auto known = std::ranges::find(keys, key_, &Key::name);
    isKnown_ = level_ == tensors || (known != keys.end() && !key_.empty());
    if (known != keys.end()) seen_[level_] |= 1U << (known - keys.begin());
  }

  void scalar(const Json& value) {
    if (isIgnored()) return;
    switch (level_) {
      case document:
        if (key_ == "expertStride") return take(layout_.expertStride, value);
        if (key_ == "numLayers") return take(layout_.numLayers, value);
        if (key_ == "expertsPerLayer") return take(layout_.expertsPerLayer, value);
        break;
      case layer:
        if (key_ == "layer") return take(thisLayer().layer, value);
        if (key_ == "file") return take(thisLayer().file, value);
        break;
      case expert:
        if (key_ == "expert") return take(thisExpert().expert, value);
        if (key_ == "physicalRank") return take(thisExpert().physicalRank, value);
        if (key_ == "offset") return take(thisExpert().offset, value);
        if (key_ == "size") return take(thisExpert().size, value);
        break;
      case tensor:
        if (key_ == "offset") return take(tensor_->offset, value);
        if (key_ == "size") return take(tensor_->size, value);
        if (key_ == "dtype") return take(tensor_->dtype, value);
        if (key_ == "bits") return take(tensor_->bits, value);
        break;
      case shape:
        return addDimension(value);
      case outside:
      case layers:
      case experts:
      case tensors:
        break;
    }
    refuse(rules[level_].innerForm == Form::object ? "an object" : "an array");
  }

  void open(Form form) {
    if (level_ + ignoredDepth_ >= maximumJsonDepth) throw jsonTooDeep();
    if (isIgnored()) {
      ++ignoredDepth_;
      return;
    }
    const LevelRule& rule = rules[level_];
    const bool leadsDeeper = form == rule.innerForm && (rule.innerKey.empty() || rule.innerKey == key_);
    if (!leadsDeeper) return scalar(Json(form));
    beginContainer();
    level_ = static_cast<Level>(level_ + 1);
    seen_[level_] = 0;
  }

  void close() {
    if (ignoredDepth_ > 0) {
      --ignoredDepth_;
      return;
    }
    const auto& keys = rules[level_].keys;
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (!keys[i].isRequired || keys[i].name.empty() || (seen_[level_] >> i & 1U) != 0) continue;
      key_ = keys[i].name;
      throw JsonDecodingError(fmt::format("{}: missing", path()));
    }
    level_ = static_cast<Level>(level_ - 1);
  }

  MorlenPackedExpertsLayoutV1 take() { return std::move(layout_); }

 private:
  bool isIgnored() const {
    const bool hasKey = level_ == tensors || !rules[level_].keys.front().name.empty();
    return ignoredDepth_ > 0 || (hasKey && !isKnown_);
  }

  MorlenLayerV1& thisLayer() { return layout_.layers.back(); }
  MorlenExpertV1& thisExpert() { return thisLayer().experts.back(); }

  /// Makes the place for what the container at this level holds.
  void beginContainer() {
    switch (level_) {
      case outside:
        return;
      case document:
        return layout_.layers.clear();
      case layers:
        layout_.layers.emplace_back();
        return;
      case layer:
        return thisLayer().experts.clear();
      case experts:
        thisLayer().experts.emplace_back();
        return;
      case expert:
        return thisExpert().tensors.clear();
      case tensors:
        tensorName_ = key_;
        tensor_ = &thisExpert().tensors[key_];
        *tensor_ = {};
        return;
      case tensor:
        return tensor_->shape.clear();
      case shape:
        return;
    }
  }

  void take(std::uint64_t& field, const Json& value) const {
    const auto exact = exactUnsigned(value);
    if (!exact) refuse("an unsigned integer");
    field = *exact;
  }
  void take(std::int64_t& field, const Json& value) const {
    const auto exact = exactInteger(value);
    if (!exact) refuse("an integer");
    field = *exact;
  }
  void take(std::optional<std::int64_t>& field, const Json& value) const {
    field = exactInteger(value);
    if (!field && !value.is_null()) refuse("an integer");
  }
  void take(std::string& field, const Json& value) const {
    if (!value.is_string()) refuse("a string");
    field = value.get_ref<const std::string&>();
  }
  void addDimension(const Json& value) const {
    const auto exact = exactInteger(value);
    if (!exact) refuse("an array of integers");
    if (!std::in_range<std::uint32_t>(*exact)) refuse("32-bit dimensions");
    tensor_->shape.push_back(static_cast<std::uint32_t>(*exact));
  }

  /// The value that is read now, for messages.
  std::string path() const {
    if (level_ == outside) return "document";
    if (level_ == document) return key_;
    const auto& allLayers = layout_.layers;
    if (level_ == layers) return fmt::format("layers[{}]", allLayers.size());
    std::string text = fmt::format("layers[{}]", allLayers.size() - 1);
    if (level_ == layer) return fmt::format("{}.{}", text, key_);
    const auto& itsExperts = allLayers.back().experts;
    if (level_ == experts) return fmt::format("{}.experts[{}]", text, itsExperts.size());
    text += fmt::format(".experts[{}]", itsExperts.size() - 1);
    if (level_ == expert) return fmt::format("{}.{}", text, key_);
    if (level_ == tensors) return fmt::format("{}.tensors.{}", text, key_);
    return fmt::format("{}.tensors.{}.{}", text, tensorName_, level_ == shape ? "shape" : key_);
  }

  [[noreturn]] void refuse(const char* expected) const {
    throw JsonDecodingError(fmt::format("{}: expected {}", path(), expected));
  }

  MorlenPackedExpertsLayoutV1 layout_;
  MorlenSubTensorV1* tensor_ = nullptr;
  std::string tensorName_;
  Level level_ = outside;
  std::array<unsigned, rules.size()> seen_ = {};
  std::string key_;
  bool isKnown_ = false;
  /// How deep the text is inside a value that is ignored.
  std::size_t ignoredDepth_ = 0;
};

MorlenPackedExpertsLayoutV1 readLayout(std::string_view json) {
  requireNoNul(json);
  LayoutReader reader;
  JsonEvents events(reader);
  Json::sax_parse(json, &events);
  return reader.take();
}

// Writing: every object's keys in ascending byte order.

void writeSubTensor(CanonicalJson& json, const MorlenSubTensorV1& tensor) {
  json.beginObject();
  if (tensor.bits) json.member("bits", *tensor.bits);
  json.member("dtype", tensor.dtype).member("offset", tensor.offset).key("shape").beginArray();
  for (const std::uint32_t dimension : tensor.shape) json.value(std::uint64_t{dimension});
  json.endArray().member("size", tensor.size).endObject();
}

void writeExpert(CanonicalJson& json, const MorlenExpertV1& expert) {
  json.beginObject();
  if (expert.expert) json.member("expert", *expert.expert);
  json.member("offset", expert.offset);
  if (expert.physicalRank) json.member("physicalRank", *expert.physicalRank);
  json.member("size", expert.size).key("tensors").beginObject();
  for (const auto& [name, tensor] : expert.tensors) writeSubTensor(json.key(name), tensor);
  json.endObject().endObject();
}

void writeLayout(CanonicalJson& json, const MorlenPackedExpertsLayoutV1& layout) {
  json.beginObject()
      .member("expertStride", layout.expertStride)
      .member("expertsPerLayer", layout.expertsPerLayer)
      .key("layers")
      .beginArray();
  for (const MorlenLayerV1& layer : layout.layers) {
    json.beginObject().key("experts").beginArray();
    for (const MorlenExpertV1& expert : layer.experts) writeExpert(json, expert);
    json.endArray().member("file", layer.file).member("layer", layer.layer).endObject();
  }
  json.endArray().member("numLayers", layout.numLayers).endObject();
}

/// Somewhat more than the length of the text of a layout, whose bulk is its sub-tensors.
std::size_t estimatedBytes(const MorlenPackedExpertsLayoutV1& layout) {
  constexpr std::size_t bytesPerTensor = 256;
  std::size_t tensors = 1;
  for (const MorlenLayerV1& layer : layout.layers)
    for (const MorlenExpertV1& expert : layer.experts) tensors += expert.tensors.size() + 1;
  return tensors * bytesPerTensor;
}

}  // namespace

MorlenPackedExpertsLayoutV1 MorlenPackedExpertsLayoutCodec::decode(std::string_view json) {
  MorlenPackedExpertsLayoutV1 layout =
      asFormatRecord(MorlenFormatV1::layoutPath, [json] { return readLayout(json); });
  MorlenV1StructuralValidator::validate(layout);
  return layout;
}

std::string MorlenPackedExpertsLayoutCodec::encode(const MorlenPackedExpertsLayoutV1& layout) {
  MorlenV1StructuralValidator::validate(layout);
  return asFormatRecord(MorlenFormatV1::layoutPath, [&] {
    CanonicalJson json(CanonicalJson::Layout::pretty, CanonicalJson::Slashes::plain);
    json.reserve(estimatedBytes(layout));
    writeLayout(json, layout);
    return std::move(json).take();
  });
}

}  // namespace vellicor
