#include "VellicorRepackCore/Source/IndexLoader.h"

#include <new>
#include <set>

#include <fmt/format.h>

#include "VellicorFormat/JsonReading.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/FileSystem/Posix.h"

namespace vellicor {
namespace {

struct JsonFile {
  std::string bytes;
  JsonTree document;
};

/// Reads a file whose top level is a JSON object; other files throw `InvalidFile`.
template <typename InvalidFile>
JsonFile readObjectFile(const std::string& path) {
  JsonFile file;
  try {
    file.bytes = Posix::readWholeFile(path);
    file.document = parseJson(file.bytes);
  } catch (const RepackError&) {
    throw;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    throw RepackError(InvalidFile{.path = path, .detail = error.what()});
  }
  if (!file.document.root.is_object()) {
    throw RepackError(InvalidFile{.path = path, .detail = "not a JSON object"});
  }
  return file;
}

std::map<std::string, std::string> readWeightMap(const std::string& path, const nlohmann::json& index) {
  const auto member = index.find("weight_map");
  if (member == index.end() || !member->is_object())
    throw RepackError(IndexJsonInvalid{.path = path, .detail = "no weight_map"});
  std::map<std::string, std::string> weightMap;
  for (const auto& [tensor, shard] : member->items()) {
    if (!shard.is_string()) throw RepackError(IndexJsonInvalid{.path = path, .detail = "no weight_map"});
    weightMap.emplace_hint(weightMap.end(), tensor, shard.get_ref<const std::string&>());
  }
  return weightMap;
}

std::optional<std::int64_t> integerMember(const nlohmann::json& object, const char* key) {
  const auto member = object.find(key);
  return member == object.end() ? std::nullopt : exactInteger(*member);
}

void readOverrides(const nlohmann::json& quantization, IndexLoader::SourceMetadata& meta) {
  static const std::set<std::string, std::less<>> baseKeys = {"bits", "group_size", "mode"};
  for (const auto& [module, settings] : quantization.items()) {
    if (!settings.is_object() || baseKeys.contains(module)) continue;
    const std::int64_t groupSize = integerMember(settings, "group_size").value_or(meta.baseGroupSize);
    if (groupSize != meta.baseGroupSize) {
      throw RepackError(
          ConfigJsonInvalid{.path = meta.configPath,
                            .detail = fmt::format("quantization override {} group_size {} != base {}", module,
                                                  groupSize, meta.baseGroupSize)});
    }
    meta.bitsOverrides[module] = QuantSpec{integerMember(settings, "bits").value_or(meta.baseBits)};
  }
}

void readQuantization(const nlohmann::json& config, IndexLoader::SourceMetadata& meta) {
  const auto quantization = config.find("quantization");
  if (quantization == config.end() || !quantization->is_object()) {
    throw RepackError(ConfigJsonInvalid{.path = meta.configPath, .detail = "no quantization slot"});
  }
  meta.baseBits = integerMember(*quantization, "bits").value_or(meta.baseBits);
  meta.baseGroupSize = integerMember(*quantization, "group_size").value_or(meta.baseGroupSize);
  const auto mode = quantization->find("mode");
  if (mode != quantization->end() && mode->is_string()) meta.baseMode = mode->get<std::string>();
  readOverrides(*quantization, meta);
}

/// The map walks the tensor names in ascending order, so each shard comes with its smallest name.
std::vector<std::string> distinctShards(const std::map<std::string, std::string>& weightMap) {
  std::vector<std::string> shards;
  std::set<std::string_view> seen;
  for (const auto& [tensor, shard] : weightMap) {
    if (seen.insert(shard).second) shards.push_back(shard);
  }
  return shards;
}

}  // namespace

IndexLoader::SourceMetadata IndexLoader::load(const std::string& snapshotDir) {
  SourceMetadata meta;
  meta.indexPath = joinPath(snapshotDir, indexFilename);
  meta.configPath = joinPath(snapshotDir, configFilename);

  const JsonFile index = readObjectFile<IndexJsonInvalid>(meta.indexPath);
  meta.weightMap = readWeightMap(meta.indexPath, index.document.root);
  // The digest is taken of the very bytes that were parsed, so no other file can slip in between.
  meta.indexSha256Hex = hashData(index.bytes);

  const JsonFile config = readObjectFile<ConfigJsonInvalid>(meta.configPath);
  readQuantization(config.document.root, meta);
  meta.shardFilenames = distinctShards(meta.weightMap);
  return meta;
}

}  // namespace vellicor
