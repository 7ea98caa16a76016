#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Tests/Support/TemporaryDirectory.h"
#include "VellicorLab/CheckpointShapes.h"
#include "VellicorLab/FolderRepository.h"
#include "VellicorLab/SupportedModelData.h"
#include "VellicorLab/SyntheticCheckpoint.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/Source/Safetensors.h"

namespace vellicor {
namespace {

std::string textOf(const HubRepository& repository, const std::string& name) {
  const auto file = repository.file(name);
  std::string text(file->size(), '\0');
  file->read(0, std::as_writable_bytes(std::span(text)));
  return text;
}

nlohmann::json weightMap(const SyntheticCheckpoint& checkpoint) {
  return nlohmann::json::parse(textOf(checkpoint, "model.safetensors.index.json")).at("weight_map");
}

/// The tensors of a shard in data order.
std::vector<SourceTensor> tensorsOf(const SyntheticCheckpoint& checkpoint, const std::string& shard) {
  std::uint64_t length = 0;
  std::memcpy(&length, checkpoint.bytes(shard, 0, 8).data(), 8);
  const std::vector<std::byte> header = checkpoint.bytes(shard, 8, length);
  auto tensors = Safetensors::parseHeaderBytes(
                     shard, checkpoint.file(shard)->size(),
                     std::string_view(reinterpret_cast<const char*>(header.data()), header.size()))
                     .tensors;
  std::sort(tensors.begin(), tensors.end(),
            [](const SourceTensor& a, const SourceTensor& b) { return a.absoluteOffset < b.absoluteOffset; });
  return tensors;
}

struct Family {
  const char* name;
  std::shared_ptr<SyntheticCheckpoint> checkpoint;
  std::size_t shards;
  std::size_t tensors;
  std::size_t excluded;
};

std::vector<Family> families() {
  SyntheticCheckpoint::Shape tiny{.layers = 1, .experts = 1, .hidden = 8, .intermediate = 16};
  tiny.moeIntermediate = tiny.groupSize = 8;
  tiny.shards = 1;
  tiny.fullAttentionEvery = 0;
  return {{"miniature", SyntheticCheckpoint::miniature(1), 3, 1697, 358},
          {"full size", SyntheticCheckpoint::fullSize(1), 3, 1697, 358},
          {"custom", SyntheticCheckpoint::custom({.layers = 3, .shards = 5, .excludedTensors = 9}, 1), 5,
           4 + 3 * 45 - 3 + 9, 9},
          {"tiny", SyntheticCheckpoint::custom(tiny, 1), 1, 4 + 45 + 3, 3}};
}

TEST(SyntheticCheckpoint, headersCoverTheirShardsAndAgreeWithTheIndex) {
  for (const Family& family : families()) {
    SCOPED_TRACE(family.name);
    std::map<std::string, std::string> found;
    std::size_t excluded = 0;
    std::size_t odd = 0;
    for (const std::string& shard : family.checkpoint->shardNames()) {
      const std::vector<SourceTensor> tensors = tensorsOf(*family.checkpoint, shard);
      ASSERT_FALSE(tensors.empty());
      for (std::size_t i = 0; i < tensors.size(); ++i) {
        const std::uint64_t end = tensors[i].absoluteOffset + tensors[i].sizeBytes;
        ASSERT_EQ(end, i + 1 < tensors.size() ? tensors[i + 1].absoluteOffset
                                              : family.checkpoint->file(shard)->size());
        found[tensors[i].name] = shard;
        excluded += tensors[i].name.starts_with("language_model.") ? 0U : 1U;
        odd += tensors[i].absoluteOffset % 2;
      }
    }
    EXPECT_EQ(nlohmann::json(found), weightMap(*family.checkpoint));
    EXPECT_EQ(family.checkpoint->shardNames().size(), family.shards);
    EXPECT_EQ(found.size(), family.tensors);
    EXPECT_EQ(excluded, family.excluded);
    EXPECT_GT(odd, found.size() / 2);
  }
}

TEST(SyntheticCheckpoint, dataOrderIsNotNameOrderAndExcludedTensorsLieBetweenKeptOnes) {
  for (const Family& family : families()) {
    SCOPED_TRACE(family.name);
    std::size_t gaps = 0;
    for (const std::string& shard : family.checkpoint->shardNames()) {
      const std::vector<SourceTensor> tensors = tensorsOf(*family.checkpoint, shard);
      const auto byName = [](const SourceTensor& a, const SourceTensor& b) { return a.name < b.name; };
      EXPECT_FALSE(std::is_sorted(tensors.begin(), tensors.end(), byName)) << shard;
      const auto isKept = [](const SourceTensor& t) { return t.name.starts_with("language_model."); };
      for (std::size_t i = 1; i + 1 < tensors.size(); ++i) {
        gaps += isKept(tensors[i - 1]) && !isKept(tensors[i]) ? 1U : 0U;
      }
    }
    EXPECT_GT(gaps, 0U);
  }
}

TEST(SyntheticCheckpoint, servesTheExactIndexAndHeadersOfTheSupportedCheckpoint) {
  for (const auto& checkpoint : {SyntheticCheckpoint::miniature(1), SyntheticCheckpoint::fullSize(1)}) {
    EXPECT_EQ(hashData(textOf(*checkpoint, "model.safetensors.index.json")),
              "bf198c9f5ea6462addca1966e5dd669c407537a876e82cf06db9084c5c850b13");
  }
  constexpr std::array lengths = {64091U, 70022U, 90235U};
  constexpr std::array sizes = {5320154388U, 5363258392U, 4657568624U};
  const auto full = SyntheticCheckpoint::fullSize(1);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(SupportedModelData::shardHeaders()[i].size(), lengths[i]);
    EXPECT_EQ(full->file(full->shardNames()[i])->size(), 8 + lengths[i] + sizes[i]);
  }
}

TEST(SyntheticCheckpoint, dimensionsGiveTheShapesOfTheSupportedCheckpoint) {
  std::map<std::string, NamedShape> real;
  for (std::string_view header : SupportedModelData::shardHeaders()) {
    const nlohmann::json entries = nlohmann::json::parse(header);
    for (const auto& [name, entry] : entries.items()) {
      if (name.starts_with("language_model.")) real[name] = {name, entry.at("dtype"), entry.at("shape")};
    }
  }
  std::map<std::string, NamedShape> made;
  for (const NamedShape& tensor : languageTensors(CheckpointDimensions::fullSize())) {
    made[tensor.name] = tensor;
  }
  EXPECT_EQ(made.size(), 1339U);
  EXPECT_TRUE(made == real);
}

TEST(SyntheticCheckpoint, miniatureIsSmall) {
  const auto checkpoint = SyntheticCheckpoint::miniature(1);
  std::uint64_t total = 0;
  for (const std::string& name : checkpoint->fileNames()) total += checkpoint->file(name)->size();
  EXPECT_GT(total, 2'000'000U);
  EXPECT_LT(total, 8'000'000U);
}

TEST(SyntheticCheckpoint, anyReadGivesTheSameBytesAsTheWholeFile) {
  const auto checkpoint = SyntheticCheckpoint::custom({}, 7);
  for (const std::string& name : {checkpoint->shardNames()[0], std::string("tokenizer.json")}) {
    SCOPED_TRACE(name);
    const std::string text = textOf(*checkpoint, name);
    const auto whole = std::as_bytes(std::span(text));
    std::size_t reads = 0;
    for (std::uint64_t offset = 0; offset < text.size(); offset = offset * 3 / 2 + 1) {
      for (std::uint64_t length : {0U, 1U, 7U, 8U, 9U, 4097U}) {
        if (length > text.size() - offset) continue;
        const auto expected = whole.subspan(offset, length);
        ASSERT_TRUE(std::ranges::equal(checkpoint->bytes(name, offset, length), expected)) << offset;
        ++reads;
      }
    }
    EXPECT_GT(reads, 100U);
    EXPECT_THROW(checkpoint->bytes(name, 1, text.size()), std::out_of_range);
    EXPECT_THROW(checkpoint->bytes(name, ~std::uint64_t{0}, 2), std::out_of_range);
  }
}

TEST(SyntheticCheckpoint, payloadIsTheDocumentedFunctionFarIntoAShard) {
  const std::string name = "model-00002-of-00003.safetensors";
  const auto mix = [](std::uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return z ^ (z >> 31);
  };
  std::uint64_t hash = 0xCBF29CE484222325;
  for (char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
  const std::uint64_t offset = 5'000'000'003;
  const std::uint64_t block = mix(mix(42 ^ hash) + (offset / 8 + 1) * 0x9E3779B97F4A7C15);
  EXPECT_EQ(SyntheticCheckpoint::fullSize(42)->bytes(name, offset, 1)[0],
            static_cast<std::byte>(block >> (8 * (offset % 8)) & 0xFF));
}

TEST(SyntheticCheckpoint, seedsDifferInPayloadAndIdentityAndRepeat) {
  const auto first = SyntheticCheckpoint::fullSize(1);
  const auto again = SyntheticCheckpoint::fullSize(1);
  const auto other = SyntheticCheckpoint::fullSize(2);
  for (const std::string& shard : first->shardNames()) {
    EXPECT_EQ(first->bytes(shard, 1'000'000, 64), again->bytes(shard, 1'000'000, 64));
    EXPECT_NE(first->bytes(shard, 1'000'000, 64), other->bytes(shard, 1'000'000, 64));
    EXPECT_EQ(first->file(shard)->xetHash(), again->file(shard)->xetHash());
    EXPECT_NE(first->file(shard)->xetHash(), other->file(shard)->xetHash());
  }
  const std::string shard = "model-00001-of-00003.safetensors";
  EXPECT_NE(textOf(*SyntheticCheckpoint::miniature(1), shard),
            textOf(*SyntheticCheckpoint::miniature(2), shard));
}

TEST(SyntheticCheckpoint, smallAndLargeFilesAreKnownAsTheHubKnowsThem) {
  const auto checkpoint = SyntheticCheckpoint::fullSize(1);
  for (const std::string& name : checkpoint->fileNames()) {
    SCOPED_TRACE(name);
    const bool isLarge = name == "tokenizer.json" || name.ends_with(".safetensors");
    EXPECT_EQ(checkpoint->file(name)->contentTag().size(), isLarge ? 64U : 40U);
    EXPECT_EQ(checkpoint->file(name)->xetHash().value_or("").size(), isLarge ? 64U : 0U);
  }
  EXPECT_EQ(checkpoint->fileNames().size(), 8U);
  EXPECT_NEAR(static_cast<double>(checkpoint->file("tokenizer.json")->size()), 32e6, 1e6);
  EXPECT_TRUE(nlohmann::json::accept(textOf(*checkpoint, "tokenizer.json")));
  EXPECT_TRUE(nlohmann::json::accept(textOf(*checkpoint, "tokenizer_config.json")));
  EXPECT_EQ(checkpoint->file("special_tokens_map.json"), nullptr);
}

TEST(FolderRepository, servesRegularFilesInsideItsFolderOnly) {
  const testing::TemporaryDirectory directory;
  testing::writeFile(directory / "outside.txt", "secret");
  testing::writeFile(directory / "root/config.json", "{}");
  testing::writeFile(directory / "root/tokenizer.json", "[1]");
  testing::writeFile(directory / "root/sub/a.safetensors", "0123456789");
  std::filesystem::create_symlink(directory / "outside.txt", directory / "root/link");
  const FolderRepository folder(directory / "root");

  EXPECT_EQ(textOf(folder, "config.json"), "{}");
  EXPECT_EQ(textOf(folder, "sub/a.safetensors"), "0123456789");
  EXPECT_EQ(folder.file("config.json")->xetHash(), std::nullopt);
  EXPECT_NE(folder.file("tokenizer.json")->xetHash(), std::nullopt);
  EXPECT_NE(folder.file("sub/a.safetensors")->xetHash(), std::nullopt);
  for (const std::string& name :
       {std::string("../outside.txt"), directory / "outside.txt", std::string("link"), std::string("sub"),
        std::string("absent"), std::string()}) {
    EXPECT_EQ(folder.file(name), nullptr) << name;
  }
}

}  // namespace
}  // namespace vellicor
