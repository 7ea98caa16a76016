#include "VellicorFormat/MorlenManifestV1.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include <fmt/format.h>

#include "VellicorFormat/CanonicalJson.h"
#include "VellicorFormat/JsonReading.h"

namespace vellicor {
namespace {

using QuantSlot = MorlenManifestQuantSlotV1 MorlenManifestQuantV1::*;

struct NamedQuantSlot {
  std::string_view name;
  QuantSlot slot;
};

constexpr std::array<NamedQuantSlot, 5> quantSlots{{{"embedding", &MorlenManifestQuantV1::embedding},
                                                    {"attention", &MorlenManifestQuantV1::attention},
                                                    {"router", &MorlenManifestQuantV1::router},
                                                    {"sharedExpert", &MorlenManifestQuantV1::sharedExpert},
                                                    {"routedExpert", &MorlenManifestQuantV1::routedExpert}}};

// Reading.

MorlenManifestArchV1 readArch(const JsonObject& json) {
  return {.hiddenSize = json.integer("hiddenSize"),
          .ffnIntermediate = json.integer("ffnIntermediate"),
          .moeIntermediateSize = json.integer("moeIntermediateSize"),
          .numHeads = json.integer("numHeads"),
          .numKVHeads = json.integer("numKVHeads"),
          .numFullKVHeads = json.integer("numFullKVHeads"),
          .headDim = json.integer("headDim"),
          .fullHeadDim = json.integer("fullHeadDim"),
          .vocabSize = json.integer("vocabSize"),
          .slidingWindow = json.integer("slidingWindow"),
          .finalLogitSoftcap = json.number("finalLogitSoftcap"),
          .ropeTheta = json.number("ropeTheta"),
          .fullRopeTheta = json.number("fullRopeTheta"),
          .partialRotaryFactor = json.number("partialRotaryFactor"),
          .numLayers = json.integer("numLayers"),
          .numExperts = json.integer("numExperts"),
          .topKExperts = json.integer("topKExperts"),
          .tieWordEmbeddings = json.boolean("tieWordEmbeddings"),
          .attentionKEqV = json.boolean("attentionKEqV"),
          .hiddenActivation = json.string("hiddenActivation"),
          .fullAttentionLayerMask = json.integerArray("fullAttentionLayerMask")};
}

MorlenManifestQuantSlotV1 readQuantSlot(const JsonObject& json) {
  return {.weightBits = json.integer("weightBits"),
          .scheme = json.string("scheme"),
          .scaleType = json.string("scaleType"),
          .biasType = json.string("biasType"),
          .groupSize = json.integer("groupSize")};
}

std::optional<MorlenManifestQuantV1> readQuant(const JsonObject& json) {
  if (json.optionalMember("quant") == nullptr) return std::nullopt;
  const JsonObject slots = json.object("quant");
  MorlenManifestQuantV1 quant;
  for (const auto& [name, slot] : quantSlots) quant.*slot = readQuantSlot(slots.object(name));
  return quant;
}

std::map<std::string, bool> readFlags(const JsonObject& json) {
  std::map<std::string, bool> flags;
  for (const auto& [key, ignored] : json.json().items()) flags.emplace(key, json.boolean(key));
  return flags;
}

std::map<std::string, MorlenManifestFileV1> readFiles(const JsonObject& json) {
  std::map<std::string, MorlenManifestFileV1> files;
  for (const auto& [path, value] : json.json().items()) {
    const JsonObject file(value, json.path(path));
    files.emplace(path, MorlenManifestFileV1{file.unsignedInteger("size"), file.string("sha256")});
  }
  return files;
}

MorlenManifestV1 readManifest(const JsonObject& json) {
  return {.magic = json.string("magic"),
          .versionMajor = json.integer("versionMajor"),
          .versionMinor = json.integer("versionMinor"),
          .flags = readFlags(json.object("flags")),
          .modelID = json.string("modelID"),
          .sourceSnapshotHash = json.optionalString("sourceSnapshotHash"),
          .arch = readArch(json.object("arch")),
          .quant = readQuant(json),
          .files = readFiles(json.object("files")),
          .expertsPerLayer = json.integer("expertsPerLayer"),
          .numLayers = json.integer("numLayers"),
          .expertStride = json.unsignedInteger("expertStride"),
          .bitWidthOverridesHonored = json.optionalInteger("bitWidthOverridesHonored")};
}

// Writing: every object's keys in ascending byte order.

void writeManifest(CanonicalJson& json, const MorlenManifestV1& manifest) {
  json.beginObject();
  writeManifestArch(json.key("arch"), manifest.arch);
  if (manifest.bitWidthOverridesHonored)
    json.member("bitWidthOverridesHonored", *manifest.bitWidthOverridesHonored);
  json.member("expertStride", manifest.expertStride).member("expertsPerLayer", manifest.expertsPerLayer);
  writeManifestFiles(json.key("files"), manifest.files);
  json.key("flags").beginObject();
  for (const auto& [name, flag] : manifest.flags) json.member(name, flag);
  json.endObject()
      .member("magic", manifest.magic)
      .member("modelID", manifest.modelID)
      .member("numLayers", manifest.numLayers);
  if (manifest.quant) writeManifestQuant(json.key("quant"), *manifest.quant);
  if (manifest.sourceSnapshotHash) json.member("sourceSnapshotHash", *manifest.sourceSnapshotHash);
  json.member("versionMajor", manifest.versionMajor)
      .member("versionMinor", manifest.versionMinor)
      .endObject();
}

// Validating.

void require(bool holds, std::string_view field, const char* reason) {
  if (!holds) throw MorlenFormatError::invalid(std::string(field), reason);
}

bool isPositiveFinite(double value) { return std::isfinite(value) && value > 0; }

bool hasValidArch(const MorlenManifestArchV1& arch, const MorlenManifestV1& manifest) {
  const std::array sizes{arch.hiddenSize,   arch.ffnIntermediate, arch.moeIntermediateSize,
                         arch.numHeads,     arch.numKVHeads,      arch.numFullKVHeads,
                         arch.headDim,      arch.fullHeadDim,     arch.vocabSize,
                         arch.slidingWindow};
  const auto& mask = arch.fullAttentionLayerMask;
  return std::all_of(sizes.begin(), sizes.end(), [](std::int64_t size) { return size >= 1; }) &&
         arch.topKExperts >= 1 && arch.topKExperts <= manifest.expertsPerLayer &&
         std::isfinite(arch.finalLogitSoftcap) && isPositiveFinite(arch.ropeTheta) &&
         isPositiveFinite(arch.fullRopeTheta) && arch.partialRotaryFactor >= 0 &&
         arch.partialRotaryFactor <= 1 && !arch.hiddenActivation.empty() &&
         std::cmp_equal(mask.size(), manifest.numLayers) &&
         std::all_of(mask.begin(), mask.end(), [](std::int64_t entry) { return entry == 0 || entry == 1; });
}

bool isValidQuantSlot(const MorlenManifestQuantSlotV1& slot) {
  return slot.weightBits >= 1 && slot.weightBits <= 32 && slot.groupSize >= 1 && !slot.scheme.empty() &&
         !slot.scaleType.empty() && !slot.biasType.empty();
}

bool isSha256Text(std::string_view text) {
  return text.size() == 64 && text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

bool isReservedKey(std::string_view key) {
  const auto isAtOrBelow = [key](std::string_view path) {
    return key.starts_with(path) && (key.size() == path.size() || key[path.size()] == '/');
  };
  return key == MorlenFormatV1::tokenizerDirectory || isAtOrBelow(MorlenFormatV1::manifestPath) ||
         isAtOrBelow(MorlenFormatV1::receiptPath);
}

std::string fileField(std::string_view path) { return fmt::format("manifest.files.{}", path); }

/// File-system key to path, in key order.
using PathsByKey = std::map<std::string, std::string>;

PathsByKey validateFileEntries(const std::map<std::string, MorlenManifestFileV1>& files) {
  PathsByKey pathsByKey;
  for (const auto& [path, file] : files) {
    const std::string field = fileField(path);
    MorlenPathValidator::validateRelativePath(path, field);
    const auto [entry, isNew] = pathsByKey.emplace(MorlenPathValidator::appleFilesystemKey(path), path);
    require(isNew, field, "filesystem-equivalent duplicate path");
    require(!isReservedKey(entry->first), field, "reserved artifact filename");
    require(isSha256Text(file.sha256), field + ".sha256", "expected 64 hexadecimal characters");
  }
  return pathsByKey;
}

/// Looks for the first path below each file instead of walking the prefixes of each path, which would take
/// quadratic time on a path of very many components.
void validateDirectoryPrefixes(const PathsByKey& pathsByKey) {
  for (const auto& [key, ignored] : pathsByKey) {
    const std::string directory = key + "/";
    const auto below = pathsByKey.lower_bound(directory);
    if (below != pathsByKey.end() && below->first.starts_with(directory))
      throw MorlenFormatError::invalid(fileField(below->second),
                                       "file path collides with a directory prefix");
  }
}

}  // namespace

void writeManifestArch(CanonicalJson& json, const MorlenManifestArchV1& arch) {
  json.beginObject()
      .member("attentionKEqV", arch.attentionKEqV)
      .member("ffnIntermediate", arch.ffnIntermediate)
      .member("finalLogitSoftcap", arch.finalLogitSoftcap);
  json.key("fullAttentionLayerMask").beginArray();
  for (const std::int64_t entry : arch.fullAttentionLayerMask) json.value(entry);
  json.endArray()
      .member("fullHeadDim", arch.fullHeadDim)
      .member("fullRopeTheta", arch.fullRopeTheta)
      .member("headDim", arch.headDim)
      .member("hiddenActivation", arch.hiddenActivation)
      .member("hiddenSize", arch.hiddenSize)
      .member("moeIntermediateSize", arch.moeIntermediateSize)
      .member("numExperts", arch.numExperts)
      .member("numFullKVHeads", arch.numFullKVHeads)
      .member("numHeads", arch.numHeads)
      .member("numKVHeads", arch.numKVHeads)
      .member("numLayers", arch.numLayers)
      .member("partialRotaryFactor", arch.partialRotaryFactor)
      .member("ropeTheta", arch.ropeTheta)
      .member("slidingWindow", arch.slidingWindow)
      .member("tieWordEmbeddings", arch.tieWordEmbeddings)
      .member("topKExperts", arch.topKExperts)
      .member("vocabSize", arch.vocabSize)
      .endObject();
}

void writeManifestQuant(CanonicalJson& json, const MorlenManifestQuantV1& quant) {
  auto slots = quantSlots;
  std::sort(slots.begin(), slots.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  json.beginObject();
  for (const auto& [name, member] : slots) {
    const MorlenManifestQuantSlotV1& slot = quant.*member;
    json.key(name)
        .beginObject()
        .member("biasType", slot.biasType)
        .member("groupSize", slot.groupSize)
        .member("scaleType", slot.scaleType)
        .member("scheme", slot.scheme)
        .member("weightBits", slot.weightBits)
        .endObject();
  }
  json.endObject();
}

void writeManifestFiles(CanonicalJson& json, const std::map<std::string, MorlenManifestFileV1>& files) {
  json.beginObject();
  for (const auto& [path, file] : files)
    json.key(path).beginObject().member("sha256", file.sha256).member("size", file.size).endObject();
  json.endObject();
}

MorlenManifestV1 MorlenManifestCodec::decode(std::string_view json) {
  MorlenManifestV1 manifest = asFormatRecord(MorlenFormatV1::manifestPath, [json] {
    const JsonTree document = parseJson(json);
    return readManifest(JsonObject(document.root, ""));
  });
  validate(manifest);
  return manifest;
}

std::string MorlenManifestCodec::encode(const MorlenManifestV1& manifest) {
  validate(manifest);
  return asFormatRecord(MorlenFormatV1::manifestPath, [&] {
    CanonicalJson json(CanonicalJson::Layout::pretty, CanonicalJson::Slashes::plain);
    writeManifest(json, manifest);
    return std::move(json).take();
  });
}

void MorlenManifestCodec::validate(const MorlenManifestV1& manifest) {
  require(manifest.magic == MorlenFormatV1::magic, "manifest.magic", "expected MORLEN");
  require(manifest.versionMajor == MorlenFormatV1::versionMajor && manifest.versionMinor >= 0,
          "manifest.version", "unsupported version");
  for (const auto& [flag, ignored] : manifest.flags) {
    const auto& known = MorlenFormatV1::knownFlags;
    require(std::find(known.begin(), known.end(), flag) != known.end(), "manifest.flags." + flag,
            "unknown v1 flag");
  }
  require(!manifest.modelID.empty() && manifest.numLayers >= 1 && manifest.expertsPerLayer >= 1 &&
              manifest.expertStride != 0 && manifest.expertStride % MorlenFormatV1::alignmentBytes == 0,
          "manifest", "invalid dimensions or stride");
  require(
      manifest.arch.numLayers == manifest.numLayers && manifest.arch.numExperts == manifest.expertsPerLayer,
      "manifest.arch", "dimensions disagree with streaming metadata");
  require(hasValidArch(manifest.arch, manifest), "manifest.arch", "invalid architecture values");
  if (manifest.quant) {
    for (const auto& [name, slot] : quantSlots)
      require(isValidQuantSlot(*manifest.quant.*slot), fmt::format("manifest.quant.{}", name),
              "invalid quantization values");
  }
  validateDirectoryPrefixes(validateFileEntries(manifest.files));
}

}  // namespace vellicor
