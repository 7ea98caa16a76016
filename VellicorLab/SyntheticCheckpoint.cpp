#include "VellicorLab/SyntheticCheckpoint.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "VellicorLab/CheckpointShapes.h"
#include "VellicorLab/SupportedModelData.h"

namespace vellicor {

namespace {

constexpr const char* indexName = "model.safetensors.index.json";
constexpr const char* customCommit = "3b9f2c61d07e4a58b1c6de09f7a2435186ebd0c9";
constexpr const char* metadataKey = "__metadata__";
constexpr std::uint64_t goldenRatio = 0x9E3779B97F4A7C15;
constexpr std::uint64_t blockBytes = 8;
static_assert(std::endian::native == std::endian::little,
              "blocks and lengths are copied as they lie in memory");

constexpr std::uint64_t mix(std::uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  return z ^ (z >> 31);
}

constexpr std::uint64_t fnv1a(std::string_view text) {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
  return hash;
}

constexpr std::uint64_t streamKey(std::uint64_t seed, std::string_view name) {
  return mix(seed ^ fnv1a(name));
}

void fillPayload(std::uint64_t key, std::uint64_t offset, std::span<std::byte> bytes) {
  std::uint64_t counter = key + (offset / blockBytes) * goldenRatio;
  std::size_t skipped = offset % blockBytes;
  while (!bytes.empty()) {
    const std::uint64_t block = mix(counter += goldenRatio);
    const std::size_t count = std::min<std::size_t>(bytes.size(), blockBytes - skipped);
    if (count == blockBytes) {
      std::memcpy(bytes.data(), &block, blockBytes);
    } else {
      std::memcpy(bytes.data(), std::as_bytes(std::span(&block, 1)).data() + skipped, count);
    }
    bytes = bytes.subspan(count);
    skipped = 0;
  }
}

/// A stream of numbers that is the same on every platform.
class RandomNumbers {
 public:
  RandomNumbers(std::uint64_t seed, std::string_view purpose) : state_(streamKey(seed, purpose)) {}

  std::size_t below(std::size_t limit) { return mix(state_ += goldenRatio) % limit; }

  template <typename T>
  void shuffle(std::vector<T>& items) {
    for (std::size_t left = items.size(); left > 1; --left) std::swap(items[left - 1], items[below(left)]);
  }

 private:
  std::uint64_t state_;
};

class TextFile final : public HubFile {
 public:
  explicit TextFile(std::string content)
      : content_(std::move(content)), identity_(HubFileIdentity::small(content_)) {}

  std::uint64_t size() const override { return content_.size(); }
  void read(std::uint64_t offset, std::span<std::byte> bytes) const override {
    requireInside(offset, bytes.size(), size());
    std::copy_n(std::as_bytes(std::span(content_)).begin() + static_cast<std::ptrdiff_t>(offset),
                bytes.size(), bytes.begin());
  }
  std::string contentTag() const override { return identity_.contentTag; }
  std::optional<std::string> xetHash() const override { return identity_.xetHash; }

 private:
  std::string content_;
  HubFileIdentity identity_;
};

class ShardFile final : public HubFile {
 public:
  ShardFile(std::string_view name, std::string header, std::uint64_t payloadBytes, std::uint64_t seed)
      : key_(streamKey(seed, name)),
        identity_(HubFileIdentity::large(fmt::format("{} {} {}", name, seed, header))) {
    const std::uint64_t length = header.size();
    head_.resize(sizeof length);
    std::memcpy(head_.data(), &length, sizeof length);
    head_ += header;
    size_ = head_.size() + payloadBytes;
  }

  std::uint64_t size() const override { return size_; }
  void read(std::uint64_t offset, std::span<std::byte> bytes) const override {
    requireInside(offset, bytes.size(), size_);
    const std::size_t fromHead =
        offset < head_.size() ? std::min<std::size_t>(bytes.size(), head_.size() - offset) : 0;
    if (fromHead > 0) std::memcpy(bytes.data(), head_.data() + offset, fromHead);
    fillPayload(key_, offset + fromHead, bytes.subspan(fromHead));
  }
  std::string contentTag() const override { return identity_.contentTag; }
  std::optional<std::string> xetHash() const override { return identity_.xetHash; }

 private:
  std::uint64_t key_;
  HubFileIdentity identity_;
  std::string head_;
  std::uint64_t size_;
};

/// A tokenizer.json of any size, made on the fly: one JSON document of lines of the same length, the first
/// and the last of which open and close it.
class TokenizerFile final : public HubFile {
 public:
  TokenizerFile(std::uint64_t entries, std::uint64_t seed)
      : lines_(entries + 2),
        key_(streamKey(seed, "tokenizer.json")),
        identity_(HubFileIdentity::large(fmt::format("tokenizer.json {} {}", seed, entries))) {}

  std::uint64_t size() const override { return lines_ * lineBytes; }
  void read(std::uint64_t offset, std::span<std::byte> bytes) const override {
    requireInside(offset, bytes.size(), size());
    while (!bytes.empty()) {
      const std::string text = line(offset / lineBytes).substr(offset % lineBytes, bytes.size());
      std::memcpy(bytes.data(), text.data(), text.size());
      offset += text.size();
      bytes = bytes.subspan(text.size());
    }
  }
  std::string contentTag() const override { return identity_.contentTag; }
  std::optional<std::string> xetHash() const override { return identity_.xetHash; }

 private:
  static constexpr std::uint64_t lineBytes = 48;

  std::string line(std::uint64_t number) const {
    std::string text = fmt::format("\"<lab_{:08}>\": \"{:016x}\",", number, mix(key_ + number * goldenRatio));
    if (number == 0) text = R"({"version": "1.0", "model": {"vocab": {)";
    if (number == lines_ - 1) text = R"("<end>": ""}}})";
    text.resize(lineBytes - 1, ' ');
    return text + '\n';
  }

  std::uint64_t lines_;
  std::uint64_t key_;
  HubFileIdentity identity_;
};

constexpr std::uint64_t smallTokenizerEntries = 6'000;
constexpr std::uint64_t fullTokenizerEntries = 670'000;

constexpr const char* tokenizerConfig = R"({
    "model_max_length": 262144,
    "processor_class": "LabProcessor",
    "unk_token": "<unk>"
}
)";
constexpr const char* chatTemplate =
    "{%- for message in messages %}<|{{ message.role }}|> \u2192 {{ message.content }}\n{% endfor %}\n";

bool isExcluded(const NamedShape& tensor) { return !tensor.name.starts_with("language_model."); }

/// A made-up data order: kept tensors shuffled, excluded ones dropped between them.
std::vector<NamedShape> dataOrder(const std::vector<NamedShape>& tensors, RandomNumbers random) {
  std::vector<NamedShape> order;
  std::vector<NamedShape> excluded;
  for (const NamedShape& tensor : tensors) (isExcluded(tensor) ? excluded : order).push_back(tensor);
  random.shuffle(order);
  for (NamedShape& tensor : excluded) {
    const std::size_t place = order.size() < 2 ? order.size() : 1 + random.below(order.size() - 1);
    order.insert(order.begin() + static_cast<std::ptrdiff_t>(place), std::move(tensor));
  }
  return order;
}

struct MadeShard {
  std::string header;
  std::uint64_t payloadBytes = 0;
};

/// Header and payload of a shard with these tensors. The keys of the JSON objects come out in name order.
MadeShard makeShard(const std::vector<NamedShape>& tensors, std::uint64_t seed, std::string_view name) {
  MadeShard shard;
  nlohmann::json header = {{metadataKey, {{"format", "mlx"}}}};
  for (const NamedShape& tensor : dataOrder(tensors, RandomNumbers(seed, name))) {
    const std::uint64_t end = shard.payloadBytes + tensor.byteCount();
    header[tensor.name] = {
        {"dtype", tensor.dtype}, {"shape", tensor.shape}, {"data_offsets", {shard.payloadBytes, end}}};
    shard.payloadBytes = end;
  }
  shard.header = header.dump();
  if (shard.header.size() % 2 == 0) {
    header[metadataKey]["format"] = "pt";
    shard.header = header.dump();
  }
  return shard;
}

std::string shardName(std::size_t index, std::size_t count) {
  return fmt::format("model-{:05}-of-{:05}.safetensors", index + 1, count);
}

nlohmann::json tensorEntries(std::string_view header) {
  nlohmann::json entries = nlohmann::json::parse(header);
  entries.erase(metadataKey);
  return entries;
}

/// The supported checkpoint's own shape, each dimension divided, for the tensors that no dimension of the
/// language model decides.
std::vector<std::uint64_t> shrunk(std::vector<std::uint64_t> shape) {
  for (std::uint64_t& dimension : shape) dimension = std::max<std::uint64_t>(1, dimension / 36);
  return shape;
}

std::vector<NamedShape> reshapedTensors(std::string_view realHeader, const CheckpointDimensions& dimensions) {
  std::map<std::string, NamedShape> language;
  for (NamedShape& tensor : languageTensors(dimensions)) {
    language.emplace(tensor.name, tensor);
  }
  std::vector<NamedShape> tensors;
  const nlohmann::json entries = tensorEntries(realHeader);
  for (const auto& [name, entry] : entries.items()) {
    if (const auto known = language.find(name); known != language.end()) {
      tensors.push_back(known->second);
    } else {
      tensors.push_back({name, entry.at("dtype"), shrunk(entry.at("shape"))});
    }
  }
  return tensors;
}

std::uint64_t payloadBytes(std::string_view header) {
  const nlohmann::json entries = tensorEntries(header);
  std::uint64_t end = 0;
  for (const nlohmann::json& entry : entries) {
    end = std::max(end, entry.at("data_offsets").at(1).get<std::uint64_t>());
  }
  return end;
}

void require(bool condition, const char* what) {
  if (!condition) throw std::invalid_argument(fmt::format("checkpoint shape: {}", what));
}

CheckpointDimensions dimensionsOf(const SyntheticCheckpoint::Shape& shape) {
  require(shape.layers > 0 && shape.experts > 0 && shape.vocab > 0 && shape.groupSize > 0 &&
              shape.fullAttentionEvery >= 0 && shape.shards > 0 && shape.excludedTensors >= 0,
          "counts are positive");
  for (std::int64_t size : {shape.hidden, shape.intermediate, shape.moeIntermediate}) {
    require(size > 0 && size % 8 == 0 && size % shape.groupSize == 0,
            "sizes are multiples of 8 and of the group size");
  }
  return {.layers = shape.layers,
          .hidden = shape.hidden,
          .intermediate = shape.intermediate,
          .moeIntermediate = shape.moeIntermediate,
          .experts = shape.experts,
          .topKExperts = std::min<std::int64_t>(2, shape.experts),
          .heads = 2,
          .kvHeads = 1,
          .fullKVHeads = 1,
          .headDim = shape.hidden / 2,
          .fullHeadDim = shape.hidden,
          .vocab = shape.vocab,
          .groupSize = shape.groupSize,
          .fullAttentionEvery = shape.fullAttentionEvery};
}

std::vector<NamedShape> excludedTensors(int count, RandomNumbers random) {
  constexpr std::array<const char*, 3> names = {"vision_tower.encoder.layers.{}.mlp.up_proj.linear.weight",
                                                "embed_vision.embedding_projection_{}.scales",
                                                "audio_tower.layers.{}.norm.weight"};
  std::vector<NamedShape> tensors;
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
    tensors.push_back({fmt::format(fmt::runtime(names[i % names.size()]), i / names.size()),
                       "BF16",
                       {1 + random.below(500)}});
  }
  return tensors;
}

/// Deals the tensors out at random, every shard getting its share.
std::vector<std::vector<NamedShape>> dealt(std::vector<NamedShape> tensors, std::size_t shards,
                                           RandomNumbers random) {
  require(shards <= tensors.size(), "every shard holds a tensor");
  random.shuffle(tensors);
  std::vector<std::vector<NamedShape>> hands(shards);
  for (std::size_t i = 0; i < tensors.size(); ++i) hands[i % shards].push_back(std::move(tensors[i]));
  return hands;
}

}  // namespace

SyntheticCheckpoint::SyntheticCheckpoint(std::string commit, std::string index, std::string config,
                                         std::shared_ptr<const HubFile> tokenizer)
    : commit_(std::move(commit)) {
  setSmallFile(indexName, std::move(index));
  setSmallFile("config.json", std::move(config));
  setSmallFile("tokenizer_config.json", tokenizerConfig);
  setSmallFile("chat_template.jinja", chatTemplate);
  files_["tokenizer.json"] = std::move(tokenizer);
}

std::shared_ptr<SyntheticCheckpoint> SyntheticCheckpoint::miniature(std::uint64_t seed) {
  return reshaped(CheckpointDimensions::miniature(), seed);
}

std::shared_ptr<SyntheticCheckpoint> SyntheticCheckpoint::medium(std::uint64_t seed) {
  return reshaped(CheckpointDimensions::medium(), seed);
}

std::shared_ptr<SyntheticCheckpoint> SyntheticCheckpoint::reshaped(const CheckpointDimensions& dimensions,
                                                                   std::uint64_t seed) {
  std::shared_ptr<SyntheticCheckpoint> checkpoint(new SyntheticCheckpoint(
      supportedCommit, std::string(SupportedModelData::indexJson()), configJson(dimensions),
      std::make_shared<TokenizerFile>(smallTokenizerEntries, seed)));
  const auto headers = SupportedModelData::shardHeaders();
  for (std::size_t i = 0; i < headers.size(); ++i) {
    const std::string name = shardName(i, headers.size());
    MadeShard shard = makeShard(reshapedTensors(headers[i], dimensions), seed, name);
    checkpoint->addShard(name, std::move(shard.header), shard.payloadBytes, seed);
  }
  return checkpoint;
}

std::shared_ptr<SyntheticCheckpoint> SyntheticCheckpoint::fullSize(std::uint64_t seed) {
  std::shared_ptr<SyntheticCheckpoint> checkpoint(
      new SyntheticCheckpoint(supportedCommit, std::string(SupportedModelData::indexJson()),
                              configJson(CheckpointDimensions::fullSize()),
                              std::make_shared<TokenizerFile>(fullTokenizerEntries, seed)));
  const auto headers = SupportedModelData::shardHeaders();
  for (std::size_t i = 0; i < headers.size(); ++i) {
    checkpoint->addShard(shardName(i, headers.size()), std::string(headers[i]), payloadBytes(headers[i]),
                         seed);
  }
  return checkpoint;
}

std::shared_ptr<SyntheticCheckpoint> SyntheticCheckpoint::custom(const Shape& shape, std::uint64_t seed) {
  const CheckpointDimensions dimensions = dimensionsOf(shape);
  std::vector<NamedShape> tensors = languageTensors(dimensions);
  for (NamedShape& tensor : excludedTensors(shape.excludedTensors, RandomNumbers(seed, "excluded"))) {
    tensors.push_back(std::move(tensor));
  }
  nlohmann::json index = {{"metadata", {{"total_size", 0}}}};
  std::uint64_t totalBytes = 0;
  const auto hands =
      dealt(std::move(tensors), static_cast<std::size_t>(shape.shards), RandomNumbers(seed, "shards"));
  std::vector<MadeShard> shards;
  for (std::size_t i = 0; i < hands.size(); ++i) {
    const std::string name = shardName(i, hands.size());
    for (const NamedShape& tensor : hands[i]) index["weight_map"][tensor.name] = name;
    totalBytes += shards.emplace_back(makeShard(hands[i], seed, name)).payloadBytes;
  }
  index["metadata"]["total_size"] = totalBytes;

  std::shared_ptr<SyntheticCheckpoint> checkpoint(
      new SyntheticCheckpoint(customCommit, index.dump(4), configJson(dimensions),
                              std::make_shared<TokenizerFile>(smallTokenizerEntries, seed)));
  for (std::size_t i = 0; i < shards.size(); ++i) {
    checkpoint->addShard(shardName(i, shards.size()), std::move(shards[i].header), shards[i].payloadBytes,
                         seed);
  }
  return checkpoint;
}

void SyntheticCheckpoint::addShard(const std::string& name, std::string header, std::uint64_t payload,
                                   std::uint64_t seed) {
  files_[name] = std::make_shared<ShardFile>(name, std::move(header), payload, seed);
  shardNames_.push_back(name);
}

std::shared_ptr<const HubFile> SyntheticCheckpoint::file(const std::string& name) const {
  const auto found = files_.find(name);
  return found == files_.end() ? nullptr : found->second;
}

std::vector<std::string> SyntheticCheckpoint::fileNames() const {
  std::vector<std::string> names;
  for (const auto& [name, file] : files_) names.push_back(name);
  return names;
}

void SyntheticCheckpoint::setSmallFile(const std::string& name, std::optional<std::string> content) {
  if (content) {
    files_[name] = std::make_shared<TextFile>(std::move(*content));
  } else {
    files_.erase(name);
  }
}

std::uint64_t SyntheticCheckpoint::payloadOffset(const std::string& shard) const {
  std::uint64_t length = 0;
  std::memcpy(&length, bytes(shard, 0, sizeof length).data(), sizeof length);
  return sizeof length + length;
}

std::map<std::string, SyntheticCheckpoint::StoredTensor> SyntheticCheckpoint::tensors() const {
  std::map<std::string, StoredTensor> tensors;
  for (const std::string& shard : shardNames_) {
    const std::uint64_t payload = payloadOffset(shard);
    std::string header(payload - sizeof payload, '\0');
    file(shard)->read(sizeof payload, std::as_writable_bytes(std::span(header)));
    const nlohmann::json entries = tensorEntries(header);
    for (const auto& [name, entry] : entries.items()) {
      const std::array<std::uint64_t, 2> range = entry.at("data_offsets");
      tensors[name] = {.file = file(shard),
                       .dtype = entry.at("dtype"),
                       .shape = entry.at("shape"),
                       .offset = payload + range[0],
                       .size = range[1] - range[0]};
    }
  }
  return tensors;
}

std::vector<std::byte> SyntheticCheckpoint::bytes(const std::string& name, std::uint64_t offset,
                                                  std::uint64_t length) const {
  const std::shared_ptr<const HubFile> found = file(name);
  if (!found) throw std::out_of_range(fmt::format("no file {}", name));
  requireInside(offset, length, found->size());
  std::vector<std::byte> bytes(length);
  found->read(offset, bytes);
  return bytes;
}

}  // namespace vellicor
