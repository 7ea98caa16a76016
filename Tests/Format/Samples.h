#pragma once

#include <nlohmann/json.hpp>

#include "Tests/Support/Expect.h"
#include "VellicorFormat/MorlenManifestV1.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"

namespace vellicor::testing {

/// A small valid manifest with every optional field: two layers of four experts.
inline MorlenManifestV1 sampleManifest() {
  MorlenManifestV1 manifest;
  manifest.flags = {{"streamingPresent", true}, {"turboQuantKV", false}};
  manifest.modelID = "maker/model";
  manifest.sourceSnapshotHash = "cafe";
  manifest.arch = {2816, 2112, 704, 16, 8, 2, 256,  512,   262144,          1024,  30,
                   1e4,  1e6,  0.1, 2,  4, 4, true, false, "gelu \"tanh\"", {0, 1}};
  const MorlenManifestQuantSlotV1 slot{4, "affine", "BF16", "BF16", 64};
  manifest.quant = {slot, slot, {8, "affine", "BF16", "BF16", 64}, slot, slot};
  manifest.files = {{"packed_experts/layer_00.bin", {131072, std::string(64, 'a')}},
                    {"packed_experts/layer_01.bin", {131072, std::string(64, 'B')}}};
  manifest.expertsPerLayer = 4;
  manifest.numLayers = 2;
  manifest.expertStride = 32768;
  manifest.bitWidthOverridesHonored = 3;
  return manifest;
}

/// The layout that belongs to `sampleManifest`: explicit ids, and in layer 1 the blobs in reverse order.
inline MorlenPackedExpertsLayoutV1 sampleLayout() {
  const std::map<std::string, MorlenSubTensorV1> tensors{{"gate", {0, 100, "U32", {4, 50}, 4}},
                                                         {"gate_scales", {100, 32668, "BF16", {4}, {}}}};
  MorlenPackedExpertsLayoutV1 layout{32768, 2, 4, {{0, "layer_00.bin", {}}, {1, "layer_01.bin", {}}}};
  for (std::int64_t id = 0; id < 4; ++id) {
    const std::uint64_t offset = static_cast<std::uint64_t>(id) * 32768;
    layout.layers[0].experts.push_back({id, {}, offset, 32768, tensors});
    layout.layers[1].experts.push_back({id, 3 - id, 3 * 32768 - offset, 32768, tensors});
  }
  return layout;
}

/// The exact text of Tests/Format/data/<name>, without the line feed at its end.
inline std::string goldenText(std::string_view name) {
  std::string text = readFile(std::string(FORMAT_TEST_DATA "/").append(name));
  EXPECT_EQ(text.back(), '\n');
  text.pop_back();
  return text;
}

/// Applies every row of Tests/Format/data/<rowsName> to the JSON document `text` and expects `decode` to end
/// as the row says. A row is [name, {JSON pointer: new value, or "<removed>"}, text of the error or
/// "no error"]. Returns how many rows ran.
inline std::size_t expectDocumentRows(std::string_view rowsName, const std::string& text,
                                      const std::function<void(const std::string&)>& decode) {
  using Json = nlohmann::json;
  const Json rows = Json::parse(goldenText(rowsName));
  for (const Json& row : rows) {
    SCOPED_TRACE(row[0].get<std::string>());
    Json document = Json::parse(text);
    for (const auto& [pointer, value] : row[1].items()) {
      if (value == "<removed>")
        document.patch_inplace({{{"op", "remove"}, {"path", pointer}}});
      else
        document[Json::json_pointer(pointer)] = value;
    }
    EXPECT_EQ(errorText([&] { decode(document.dump()); }), row[2].get<std::string>());
  }
  return rows.size();
}

}  // namespace vellicor::testing
