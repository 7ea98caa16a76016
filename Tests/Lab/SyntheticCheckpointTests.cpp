#include <nlohmann/json.hpp>

#include "Tests/Support/Expect.h"
#include "VellicorLab/FolderRepository.h"
#include "VellicorLab/SyntheticCheckpoint.h"

namespace vellicor::testing {
namespace {

constexpr const char* indexName = "model.safetensors.index.json";

TEST(SyntheticCheckpoint, ShardsAreCoveredExactlyUnalignedAndAsTheIndexSays) {
  using C = SyntheticCheckpoint;
  // The shards, the kept tensors and the others.
  const std::vector<std::tuple<std::shared_ptr<C>, std::size_t, std::size_t, std::size_t>> rows = {
      {C::miniature(1), 3, 1339, 358},
      {C::fullSize(1), 3, 1339, 358},
      {C::custom({.layers = 3, .shards = 5, .excludedTensors = 9}, 1), 5, 4 + 3 * 45 - 3, 9},
      {C::custom({.layers = 1, .shards = 1, .fullAttentionEvery = 0}, 1), 1, 4 + 45, 3},
  };
  for (const auto& [checkpoint, shardCount, keptCount, excludedCount] : rows) {
    SCOPED_TRACE(keptCount);
    const auto index = nlohmann::json::parse(contentOf(*checkpoint->file(indexName))).at("weight_map");
    std::map<std::string, std::map<std::uint64_t, std::pair<std::string, std::uint64_t>>> shards;
    std::size_t found = 0, kept = 0, odd = 0, gaps = 0;
    for (const auto& [name, tensor] : checkpoint->tensors()) {
      shards[index.at(name)][tensor.offset] = {name, tensor.size};
      odd += tensor.offset % 2;
      ++found;
    }
    for (const auto& [shard, tensors] : shards) {
      std::uint64_t end = checkpoint->payloadOffset(shard);
      bool isKept = false;
      for (const auto& [offset, tensor] : tensors) {
        ASSERT_EQ(offset, end);
        end += tensor.second;
        const bool wasKept = std::exchange(isKept, tensor.first.starts_with("language_model."));
        kept += isKept;
        gaps += wasKept && !isKept;
      }
      EXPECT_EQ(end, checkpoint->file(shard)->size());
    }
    EXPECT_EQ(index.size(), found);
    EXPECT_EQ(shards.size(), shardCount);
    EXPECT_EQ(kept, keptCount);
    EXPECT_EQ(found - kept, excludedCount);
    EXPECT_GT(odd, found / 2);
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
}  // namespace vellicor::testing
