#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorFormat/MorlenManifestV1.h"

namespace vellicor {

// packed_experts/layout.json: where every expert of every layer lies. A layer file holds expertsPerLayer
// blobs of expertStride bytes; the blob of physical rank r starts at r x expertStride. Inside a blob the
// sub-tensors lie at fixed offsets without overlap; what none of them covers is padding. One JSON object,
// pretty-printed with sorted keys and plain slashes; JSON keys are the field names below; absent optional
// fields are left out.

struct MorlenSubTensorV1 {
  /// Relative to the start of the expert's blob, in bytes.
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  /// "U32" (packed quantised weights) or "BF16".
  std::string dtype;
  /// Logical dimensions, none of them zero.
  std::vector<std::uint32_t> shape;
  /// Bit width of packed weights, 1 to 32; absent for everything else.
  std::optional<std::int64_t> bits;
  bool operator==(const MorlenSubTensorV1&) const = default;
};

struct MorlenExpertV1 {
  /// The router's index; when absent, the entry's position. All experts of a layer carry it, or none does.
  std::optional<std::int64_t> expert;
  /// The blob's slot in the layer file; when absent, the logical id.
  std::optional<std::int64_t> physicalRank;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  std::map<std::string, MorlenSubTensorV1> tensors;
  bool operator==(const MorlenExpertV1&) const = default;
};

struct MorlenLayerV1 {
  std::int64_t layer = 0;
  /// Base name inside packed_experts/.
  std::string file;
  std::vector<MorlenExpertV1> experts;
  bool operator==(const MorlenLayerV1&) const = default;
};

struct MorlenPackedExpertsLayoutV1 {
  std::uint64_t expertStride = 0;
  std::int64_t numLayers = 0;
  std::int64_t expertsPerLayer = 0;
  std::vector<MorlenLayerV1> layers;
  bool operator==(const MorlenPackedExpertsLayoutV1&) const = default;
};

struct MorlenPackedExpertsLayoutCodec {
  /// Parses and validates. Throws `MorlenFormatError`; what does not parse is reported on
  /// "packed_experts/layout.json".
  static MorlenPackedExpertsLayoutV1 decode(std::string_view json);

  /// Validates, then writes the canonical form. Throws the validation's `MorlenFormatError`.
  static std::string encode(const MorlenPackedExpertsLayoutV1& layout);
};

/// The checks of a layout by itself and against the manifest of its artifact; each throws
/// `MorlenFormatError`.
struct MorlenV1StructuralValidator {
  static void validate(const MorlenPackedExpertsLayoutV1& layout);

  /// `layout` has passed `validate`.
  static void crossValidate(const MorlenManifestV1& manifest, const MorlenPackedExpertsLayoutV1& layout);

  /// The same from loose values; `manifestFileSizes` maps artifact-relative paths to byte sizes.
  static void crossValidate(std::int64_t manifestNumLayers, std::int64_t manifestExpertsPerLayer,
                            std::uint64_t manifestExpertStride,
                            const std::map<std::string, std::uint64_t>& manifestFileSizes,
                            const MorlenPackedExpertsLayoutV1& layout);
};

}  // namespace vellicor
