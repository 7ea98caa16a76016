#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Tests/Support/TemporaryDirectory.h"
#include "VellicorLab/FolderRepository.h"
#include "VellicorLab/SyntheticCheckpoint.h"
#include "VellicorRepackCore/Source/Safetensors.h"

namespace vellicor {
namespace {

constexpr const char* indexName = "model.safetensors.index.json";

/// The tensors of a shard in data order, as the product reads them.
std::vector<SourceTensor> tensorsOf(const SyntheticCheckpoint& checkpoint, const std::string& shard) {
  const auto file = checkpoint.file(shard);
  std::string header(checkpoint.payloadOffset(shard) - 8, '\0');
  file->read(8, std::as_writable_bytes(std::span(header)));
  auto tensors = Safetensors::parseHeaderBytes(shard, file->size(), header).tensors;
  std::ranges::sort(tensors, {}, &SourceTensor::absoluteOffset);
  return tensors;
}

TEST(SyntheticCheckpoint, ShardsAreCoveredExactlyUnalignedAndAsTheIndexSays) {
  struct Row {
    const char* name;
    std::shared_ptr<SyntheticCheckpoint> checkpoint;
    std::size_t shards;
    std::size_t kept;
    std::size_t excluded;
  };
  const std::vector<Row> rows = {
      {"miniature", SyntheticCheckpoint::miniature(1), 3, 1339, 358},
      {"full size", SyntheticCheckpoint::fullSize(1), 3, 1339, 358},
      {"custom", SyntheticCheckpoint::custom({.layers = 3, .shards = 5, .excludedTensors = 9}, 1), 5,
       4 + 3 * 45 - 3, 9},
      {"one shard", SyntheticCheckpoint::custom({.layers = 1, .shards = 1, .fullAttentionEvery = 0}, 1), 1,
       4 + 45, 3},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::map<std::string, std::string> found;
    std::size_t kept = 0, odd = 0, gaps = 0;
    for (const std::string& shard : row.checkpoint->shardNames()) {
      std::uint64_t end = row.checkpoint->payloadOffset(shard);
      bool isKept = false;
      for (const SourceTensor& tensor : tensorsOf(*row.checkpoint, shard)) {
        ASSERT_EQ(tensor.absoluteOffset, end);
        end += tensor.sizeBytes;
        found[tensor.name] = shard;
        odd += tensor.absoluteOffset % 2;
        const bool wasKept = std::exchange(isKept, tensor.name.starts_with("language_model."));
        kept += isKept;
        gaps += wasKept && !isKept;
      }
      EXPECT_EQ(end, row.checkpoint->file(shard)->size());
    }
    const auto index = nlohmann::json::parse(contentOf(*row.checkpoint->file(indexName)));
    EXPECT_EQ(nlohmann::json(found), index.at("weight_map"));
    EXPECT_EQ(row.checkpoint->shardNames().size(), row.shards);
    EXPECT_EQ(kept, row.kept);
    EXPECT_EQ(found.size() - kept, row.excluded);
    EXPECT_GT(odd, found.size() / 2);
    EXPECT_GT(gaps, 0U) << "excluded tensors lie between kept ones";
  }
}

TEST(SyntheticCheckpoint, AnyReadGivesTheSameBytesAsTheWholeFile) {
  const auto checkpoint = SyntheticCheckpoint::custom({}, 7);
  const auto other = SyntheticCheckpoint::custom({}, 8);
  for (const std::string& name : {checkpoint->shardNames()[0], std::string("tokenizer.json")}) {
    SCOPED_TRACE(name);
    const std::string whole = contentOf(*checkpoint->file(name));
    EXPECT_NE(whole, contentOf(*other->file(name)));
    EXPECT_NE(checkpoint->file(name)->xetHash(), other->file(name)->xetHash());
    std::size_t reads = 0;
    for (std::uint64_t offset = 0; offset < whole.size(); offset = offset * 3 / 2 + 1) {
      for (const std::uint64_t length : {0U, 1U, 7U, 8U, 9U, 4097U}) {
        if (length > whole.size() - offset) continue;
        const auto wanted = std::as_bytes(std::span(whole)).subspan(offset, length);
        ASSERT_TRUE(std::ranges::equal(checkpoint->bytes(name, offset, length), wanted)) << offset;
        ++reads;
      }
    }
    EXPECT_GT(reads, 100U);
    EXPECT_THROW(checkpoint->bytes(name, 1, whole.size()), std::out_of_range);
    EXPECT_THROW(checkpoint->bytes(name, ~std::uint64_t{0}, 2), std::out_of_range);
  }
}

TEST(FolderRepository, ServesRegularFilesInsideItsFolderOnly) {
  const testing::TemporaryDirectory directory;
  testing::writeFile(directory / "outside.txt", "secret");
  testing::writeFile(directory / "root/sub/a.safetensors", "0123456789");
  std::filesystem::create_symlink(directory / "outside.txt", directory / "root/link");
  const FolderRepository folder(directory / "root");
  EXPECT_EQ(contentOf(*folder.file("sub/a.safetensors")), "0123456789");
  EXPECT_NE(folder.file("sub/a.safetensors")->xetHash(), std::nullopt);
  const std::vector<std::string> refused = {
      "../outside.txt", directory / "outside.txt", "link", "sub", "absent", ""};
  for (const std::string& name : refused) EXPECT_EQ(folder.file(name), nullptr) << name;
}

}  // namespace
}  // namespace vellicor
