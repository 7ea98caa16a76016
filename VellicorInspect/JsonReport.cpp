#include "VellicorInspect/JsonReport.h"

#include <functional>
#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "VellicorFormat/CanonicalJson.h"

namespace vellicor {

namespace {

CanonicalJson newDocument() { return {CanonicalJson::Layout::pretty, CanonicalJson::Slashes::plain}; }

/// JSON lets DEL and the C1 control characters pass, which a terminal obeys.
std::string withEscapedControls(std::string_view json) {
  std::string out;
  for (std::size_t at = 0; at < json.size(); ++at) {
    const auto byte = static_cast<unsigned char>(json[at]);
    const auto next = at + 1 < json.size() ? static_cast<unsigned char>(json[at + 1]) : 0U;
    const bool isHighControl = byte == 0xC2 && next >= 0x80 && next < 0xA0;
    if (byte != 0x7F && !isHighControl) {
      out += json[at];
      continue;
    }
    fmt::format_to(std::back_inserter(out), "\\u{:04x}", isHighControl ? next : byte);
    if (isHighControl) ++at;
  }
  return out;
}

std::string finished(CanonicalJson&& json) { return withEscapedControls(std::move(json).take()) + "\n"; }

template <typename T>
void optionalMember(CanonicalJson& json, std::string_view key, const std::optional<T>& value) {
  if (value) json.member(key, *value);
}

template <typename Range, typename Member = std::identity>
void numbers(CanonicalJson& json, std::string_view key, const Range& range, Member member = {}) {
  json.key(key).beginArray();
  for (const auto& item : range) json.value(std::invoke(member, item));
  json.endArray();
}

void writeReceipt(CanonicalJson& json, const ArtifactReceipt& receipt) {
  json.beginObject();
  optionalMember(json, "sourceRepoID", receipt.sourceRepoID);
  optionalMember(json, "sourceRevision", receipt.sourceRevision);
  optionalMember(json, "toolVersion", receipt.toolVersion);
  optionalMember(json, "verificationTimestamp", receipt.verificationTimestamp);
  json.endObject();
}

void writeTensor(CanonicalJson& json, const StoredTensor& tensor, std::uint64_t expertStride) {
  const bool isRouted = !tensor.experts.empty();
  const bool needsPlaces = isRouted && !tensor.isInOrder(expertStride);
  json.beginObject();
  optionalMember(json, "bits", tensor.bits);
  json.member("bytes", tensor.bytes).member("dtype", tensor.dtype);
  if (needsPlaces) numbers(json, "expertIDs", tensor.experts, &ExpertPlace::expert);
  if (isRouted && !needsPlaces) json.member("expertStride", expertStride);
  if (isRouted) json.member("experts", std::uint64_t{tensor.experts.size()});
  json.member("family", keyOf(tensor.family)).member("file", tensor.file);
  optionalMember(json, "layer", tensor.layer);
  json.member("name", tensor.name).member("offset", tensor.offset);
  if (needsPlaces) numbers(json, "offsets", tensor.experts, &ExpertPlace::offset);
  if (!tensor.shape.empty()) numbers(json, "shape", tensor.shape);
  json.endObject();
}

}  // namespace

std::string summaryJson(const Inspection& inspection) {
  const MorlenManifestV1& manifest = inspection.artifact.manifest();
  std::map<std::string_view, std::uint64_t> familyBytes;
  for (const auto& [family, bytes] : inspection.map.familyBytes) familyBytes[keyOf(family)] = bytes;
  auto files = manifest.files;
  files[MorlenFormatV1::manifestPath] = inspection.artifact.metadata.manifestFile;

  CanonicalJson json = newDocument();
  writeManifestArch(json.beginObject().key("arch"), manifest.arch);
  optionalMember(json, "bitWidthOverridesHonored", manifest.bitWidthOverridesHonored);
  json.member("expertStride", manifest.expertStride).member("expertsPerLayer", manifest.expertsPerLayer);
  json.key("familyBytes").beginObject();
  for (const auto& [key, bytes] : familyBytes) json.member(key, bytes);
  json.endObject();
  writeManifestFiles(json.key("files"), files);
  json.key("flags").beginObject();
  for (const auto& [flag, isSet] : manifest.flags) json.member(flag, isSet);
  json.endObject();
  json.member("magic", manifest.magic).member("modelID", manifest.modelID);
  json.member("numLayers", manifest.numLayers);
  if (manifest.quant) writeManifestQuant(json.key("quant"), *manifest.quant);
  if (inspection.artifact.receipt) writeReceipt(json.key("receipt"), *inspection.artifact.receipt);
  optionalMember(json, "sourceSnapshotHash", manifest.sourceSnapshotHash);
  json.member("totalBytes", inspection.map.totalBytes)
      .member("versionMajor", manifest.versionMajor)
      .member("versionMinor", manifest.versionMinor)
      .endObject();
  return finished(std::move(json));
}

std::string tensorsJson(const std::vector<const StoredTensor*>& tensors, std::uint64_t expertStride) {
  CanonicalJson json = newDocument();
  json.beginArray();
  for (const StoredTensor* tensor : tensors) writeTensor(json, *tensor, expertStride);
  json.endArray();
  return finished(std::move(json));
}

std::string layersJson(const Inspection& inspection) {
  const MorlenPackedExpertsLayoutV1& layout = inspection.artifact.metadata.layout;
  CanonicalJson json = newDocument();
  json.beginArray();
  for (const LayerSummary& summary : layerSummaries(inspection)) {
    json.beginObject().member("attention", summary.hasFullAttention ? "full" : "sliding");
    numbers(json, "expertBits", summary.expertBits);
    json.member("expertBytes", summary.expertBytes)
        .member("expertStride", layout.expertStride)
        .member("experts", layout.expertsPerLayer)
        .member("file", MorlenFormatV1::layerPath(summary.layer->file))
        .member("layer", summary.layer->layer)
        .member("residentBytes", summary.residentBytes);
    json.endObject();
  }
  json.endArray();
  return finished(std::move(json));
}

}  // namespace vellicor
