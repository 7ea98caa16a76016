#include <nlohmann/json.hpp>

#include "Tests/Support/Expect.h"
#include "VellicorFormat/MorlenManifestV1.h"
#include "VellicorFormat/MorlenPackedExpertsLayoutV1.h"
#include "VellicorRepackCore/Base/Sha256Stream.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Verification/VerifiedInstallReceiptWriter.h"
#include "VellicorRepackCore/Verification/VerifiedInstallTool.h"

namespace vellicor::testing {
namespace {

using nlohmann::json;

const std::string layoutName = "packed_experts/layout.json";
const std::string layerName = "packed_experts/layer_00.bin";
const std::string weightsName = "model_weights.bin";

/// The smallest valid artifact: one layer of two experts, a weights file and a tokenizer file.
struct Artifact {
  explicit Artifact(const std::string& path) : root(path + "/"), receipt(root + "verified-install.json") {
    manifest.modelID = "owner/name";
    manifest.sourceSnapshotHash = "0123abcd";
    manifest.numLayers = 1;
    manifest.expertsPerLayer = 2;
    manifest.expertStride = 16384;
    manifest.arch = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1, 1, 1, 1, 2, 1, false, false, "gelu", {1}};
    const MorlenSubTensorV1 tensor{.offset = 0, .size = 16, .dtype = "U32", .shape = {4}, .bits = 4};
    const MorlenExpertV1 first{{}, {}, 0, 16384, {{"w", tensor}}};
    const MorlenExpertV1 second{{}, {}, 16384, 16384, {{"w", tensor}}};
    const MorlenLayerV1 layer{.layer = 0, .file = "layer_00.bin", .experts = {first, second}};
    list(layoutName, MorlenPackedExpertsLayoutCodec::encode({16384, 1, 2, {layer}}));
    list(layerName, std::string(32768, 'e'));
    list(weightsName, "weights");
    list("tokenizer/tokenizer.json", "{}");
    writeManifest();
  }

  void list(const std::string& path, const std::string& content) {
    write(path, content);
    manifest.files[path] = {.size = content.size(), .sha256 = hashData(content)};
  }
  void write(const std::string& path, const std::string& content) const { writeFile(root + path, content); }
  void writeManifest() const { write("manifest.json", MorlenManifestCodec::encode(manifest)); }
  void replace(const std::string& path, const std::string& from, const std::string& to) const {
    std::string content = readFile(root + path);
    content.replace(content.find(from), from.size(), to);
    write(path, content);
  }
  VerifyInstallResult verify() const { return VerifiedInstallTool::run({.inputMorlen = root}); }

  const std::string root, receipt;
  MorlenManifestV1 manifest;
};

TEST(VerifiedInstallTool, WritesTheReceiptOfAnIntactArtifact) {
  const TemporaryDirectory directory;
  Artifact artifact(directory / "m.morlen");
  // Deeper than a walk would go without such a file.
  artifact.list("1/2/3/4/5/6/7/8/9/10/11/12/13/14/15/16/17/18/19", "deep");
  for (char& c : artifact.manifest.files[layerName].sha256) c = static_cast<char>(std::toupper(c));
  artifact.writeManifest();
  for (const char* extra : {"notes.txt", ".DS_Store", "packed_experts/.DS_Store", "tokenizer/more.json",
                            "empty/file", ".morlen-X.tmp"}) {
    artifact.write(extra, "");
  }

  const std::string manifestText = readFile(artifact.root + "manifest.json");
  json files = {{"manifest.json", {{"size", manifestText.size()}, {"sha256", hashData(manifestText)}}}};
  std::uint64_t bytes = manifestText.size();
  for (const auto& [path, entry] : artifact.manifest.files) {
    files[path] = {{"size", entry.size}, {"sha256", hashData(readFile(artifact.root + path))}};
    bytes += entry.size;
  }
  for (int run = 0; run < 2; ++run) {
    const VerifyInstallResult result = artifact.verify();
    EXPECT_EQ(result.receiptPath, artifact.receipt);
    EXPECT_EQ(result.fileCount, 6);
    EXPECT_EQ(result.bytesVerified, bytes);
    EXPECT_THAT(result.unexpectedEntries,
                ElementsAre(".morlen-X.tmp", "empty", "empty/file", "notes.txt", "packed_experts/.DS_Store"));
    json receipt = json::parse(readFile(artifact.receipt));
    EXPECT_THAT(receipt["verificationTimestamp"].get<std::string>(), MatchesRegex("20..-..-..T..:..:..Z"));
    receipt.erase("verificationTimestamp");
    EXPECT_EQ(receipt, (json{{"schemaVersion", 1},
                             {"manifestSha256", hashData(manifestText)},
                             {"modelDirectoryPath", directory / "m.morlen"},
                             {"toolVersion", "VellicorRepack verify-install"},
                             {"sourceRevision", "0123abcd"},
                             {"files", files}}));
  }
}

TEST(VerifiedInstallTool, NamesTheFirstMismatchAndLeavesTheReceiptAlone) {
  const TemporaryDirectory directory;
  const std::string root = directory / "m.morlen";
  const std::uint64_t layoutSize = Artifact(root).manifest.files[layoutName].size;
  const auto remove = [&](const std::string& path) {
    return [=](Artifact&) { fs::remove(joinPath(root, path)); };
  };
  const auto replace = [](const std::string& path, const std::string& from, const std::string& to) {
    return [=](Artifact& artifact) { artifact.replace(path, from, to); };
  };
  const auto remanifest = [](const std::function<void(MorlenManifestV1&)>& change) {
    return [=](Artifact& artifact) {
      change(artifact.manifest);
      artifact.writeManifest();
    };
  };
  const std::string invalid = "configuration invalid: ";
  const std::string mismatch = invalid + "packed expert layout does not match manifest: ";
  const std::vector<std::pair<std::function<void(Artifact&)>, std::string>> rows = {
      {remove("manifest.json"), "fstat(" + root + "/manifest.json) failed: errno 2"},
      {[&](Artifact&) { fs::resize_file(root + "/manifest.json", 4194305); },
       invalid + "manifest.json size 4194305 exceeds metadata cap 4194304"},
      {replace("manifest.json", "MORLEN", "NELROM"),
       invalid + "manifest.json invalid: manifest.magic: expected MORLEN"},
      {remanifest([](MorlenManifestV1& m) { m.files.erase(layoutName); }),
       invalid + "manifest missing packed_experts/layout.json"},
      {remove(layoutName), "fstat(" + root + "/packed_experts/layout.json) failed: errno 2"},
      {[&](Artifact&) { fs::resize_file(joinPath(root, layoutName), 16777217); },
       invalid + "packed_experts/layout.json size 16777217 exceeds metadata cap 16777216"},
      {replace(layoutName, "U32", "U33"),
       invalid + "packed_experts/layout.json invalid: expert[0].tensors.w: invalid dtype or shape"},
      {remanifest([](MorlenManifestV1& m) { m.expertsPerLayer = m.arch.numExperts = 3; }),
       mismatch + "manifest/layout: dimension mismatch"},
      {remanifest([](MorlenManifestV1& m) { m.files[layerName].size -= 1; }),
       mismatch + "manifest.files.packed_experts/layer_00.bin: missing or wrong layer size"},
      {replace(layoutName, "{", "{ "), fmt::format("{}packed_experts/layout.json size {} != manifest {}",
                                                   invalid, layoutSize + 1, layoutSize)},
      {replace(layoutName, "\"bits\" : 4", "\"bits\" : 8"),
       invalid + "packed_experts/layout.json SHA mismatch"},
      {replace(weightsName, "s", ""), invalid + "model_weights.bin size 6 != manifest 7"},
      {replace(weightsName, "s", "y"), invalid + "model_weights.bin SHA mismatch"},
      {[](Artifact& artifact) { artifact.write("1/2/3/4/5/6/7/8/9/10/11/12/13/14/15/16/17/18", ""); },
       invalid + "artifact directory nesting exceeds 16"},
  };
  for (const auto& [damage, expected] : rows) {
    fs::remove_all(root);
    Artifact artifact(root);
    damage(artifact);
    EXPECT_EQ(errorText([&] { artifact.verify(); }), expected);
    EXPECT_FALSE(fs::exists(artifact.receipt)) << expected;
    artifact.write("verified-install.json", "earlier");
    EXPECT_EQ(errorText([&] { artifact.verify(); }), expected);
    EXPECT_EQ(readFile(artifact.receipt), "earlier") << expected;
  }
}

TEST(VerifiedInstallTool, ReportsTheFirstOfSeveralWrongFilesHoweverManyAreReadAtOnce) {
  const TemporaryDirectory directory;
  const std::string root = directory / "m.morlen";
  for (const std::size_t workers : {1U, 2U, 8U}) {
    fs::remove_all(root);
    Artifact artifact(root);
    // The one that takes longest to be found wrong comes first.
    const std::string longName = "a_long.bin", content(std::size_t{16} << 20, 'l');
    artifact.list(longName, content);
    artifact.writeManifest();
    artifact.write(longName, std::string(content.size(), 'm'));
    fs::remove(artifact.root + weightsName);
    artifact.write(layerName, "short");
    artifact.write("tokenizer/tokenizer.json", "[]");
    const std::string invalid = "configuration invalid: ";
    const std::vector<std::tuple<std::string, std::string, std::string>> rows = {
        {longName, content, invalid + "a_long.bin SHA mismatch"},
        {weightsName, "weights", "fstat(" + root + "/model_weights.bin) failed: errno 2"},
        {layerName, std::string(32768, 'e'),
         invalid + "packed_experts/layer_00.bin size 5 != manifest 32768"},
        {"tokenizer/tokenizer.json", "{}", invalid + "tokenizer/tokenizer.json SHA mismatch"}};
    const auto verify = [&] { VerifiedInstallTool::run({.inputMorlen = root, .workers = workers}); };
    for (const auto& [path, right, expected] : rows) {
      EXPECT_EQ(errorText(verify), expected) << workers;
      EXPECT_FALSE(fs::exists(artifact.receipt));
      artifact.write(path, right);
    }
    EXPECT_EQ(errorText(verify), "no error") << workers;
    EXPECT_TRUE(fs::exists(artifact.receipt));
  }
}

TEST(VerifiedInstallReceiptWriter, NamesTheSourceWhenItIsKnown) {
  const json receipt = json::parse(
      VerifiedInstallReceiptWriter::encode("/x/../out\xff", "ab", 7, "owner/name", "main", "tool", {}));
  EXPECT_EQ(receipt["sourceRepoID"], "owner/name");
  EXPECT_EQ(receipt["modelDirectoryPath"], "/out\ufffd");
}

}  // namespace
}  // namespace vellicor::testing
