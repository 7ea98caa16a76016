#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VellicorFormat/MorlenFormatV1.h"

namespace vellicor {

// manifest.json, at the root of every artifact: one JSON object, pretty-printed with sorted keys and plain
// slashes. It names the format, the model, its architecture and quantization, and every file with its size
// and SHA-256 (all but itself and verified-install.json). JSON keys are the field names below; absent
// optional fields are left out. Encoding and decoding run the same validation, so no invalid manifest is ever
// written or accepted.

struct MorlenManifestFileV1 {
  std::uint64_t size = 0;
  /// 64 hexadecimal characters; writers use lower case.
  std::string sha256;
  bool operator==(const MorlenManifestFileV1&) const = default;
};

struct MorlenManifestArchV1 {
  std::int64_t hiddenSize = 0;
  std::int64_t ffnIntermediate = 0;
  std::int64_t moeIntermediateSize = 0;
  std::int64_t numHeads = 0;
  std::int64_t numKVHeads = 0;
  std::int64_t numFullKVHeads = 0;
  std::int64_t headDim = 0;
  std::int64_t fullHeadDim = 0;
  std::int64_t vocabSize = 0;
  std::int64_t slidingWindow = 0;
  double finalLogitSoftcap = 0;
  double ropeTheta = 0;
  double fullRopeTheta = 0;
  double partialRotaryFactor = 0;
  std::int64_t numLayers = 0;
  std::int64_t numExperts = 0;
  std::int64_t topKExperts = 0;
  bool tieWordEmbeddings = false;
  bool attentionKEqV = false;
  std::string hiddenActivation;
  /// One entry per layer: 1 for full attention, 0 for sliding-window attention.
  std::vector<std::int64_t> fullAttentionLayerMask;
  bool operator==(const MorlenManifestArchV1&) const = default;
};

struct MorlenManifestQuantSlotV1 {
  std::int64_t weightBits = 0;
  std::string scheme;
  std::string scaleType;
  std::string biasType;
  std::int64_t groupSize = 0;
  bool operator==(const MorlenManifestQuantSlotV1&) const = default;
};

struct MorlenManifestQuantV1 {
  MorlenManifestQuantSlotV1 embedding;
  MorlenManifestQuantSlotV1 attention;
  MorlenManifestQuantSlotV1 router;
  MorlenManifestQuantSlotV1 sharedExpert;
  MorlenManifestQuantSlotV1 routedExpert;
  bool operator==(const MorlenManifestQuantV1&) const = default;
};

struct MorlenManifestV1 {
  std::string magic{MorlenFormatV1::magic};
  std::int64_t versionMajor = MorlenFormatV1::versionMajor;
  std::int64_t versionMinor = MorlenFormatV1::versionMinor;
  std::map<std::string, bool> flags;
  std::string modelID;
  std::optional<std::string> sourceSnapshotHash;
  MorlenManifestArchV1 arch;
  std::optional<MorlenManifestQuantV1> quant;
  /// Keyed by artifact-relative path.
  std::map<std::string, MorlenManifestFileV1> files;
  std::int64_t expertsPerLayer = 0;
  std::int64_t numLayers = 0;
  /// Bytes between consecutive experts in a layer file.
  std::uint64_t expertStride = 0;
  std::optional<std::int64_t> bitWidthOverridesHonored;
  bool operator==(const MorlenManifestV1&) const = default;
};

class CanonicalJson;

/// Write the values of the manifest's `arch` and `quant` members.
void writeManifestArch(CanonicalJson& json, const MorlenManifestArchV1& arch);
void writeManifestQuant(CanonicalJson& json, const MorlenManifestQuantV1& quant);

/// Writes the value of a `files` member, as the manifest and the verification receipt hold it.
void writeManifestFiles(CanonicalJson& json, const std::map<std::string, MorlenManifestFileV1>& files);

struct MorlenManifestCodec {
  /// Parses and validates. Throws `MorlenFormatError`; what does not parse is reported on the field
  /// "manifest.json".
  static MorlenManifestV1 decode(std::string_view json);

  /// Validates, then writes the canonical form. Throws the validation's `MorlenFormatError`.
  static std::string encode(const MorlenManifestV1& manifest);

  /// Throws the first failing check as a `MorlenFormatError`.
  static void validate(const MorlenManifestV1& manifest);
};

}  // namespace vellicor
