#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "VellicorLab/FolderRepository.h"
#include "VellicorLab/SyntheticCheckpoint.h"
#include "VellicorLab/TemporaryDirectory.h"
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
    std::size_t shards, kept, excluded;
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

TEST(FolderRepository, ServesRegularFilesInsideItsFolderOnly) {
  const TemporaryDirectory directory;
  writeFile(directory / "outside.txt", "secret");
  writeFile(directory / "root/sub/a.safetensors", "0123456789");
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
