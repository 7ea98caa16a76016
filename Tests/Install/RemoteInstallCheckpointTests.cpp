#include <gmock/gmock.h>

#include "Tests/Source/TinyModel.h"
#include "Tests/Support/TemporaryDirectory.h"
#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"

namespace vellicor {
namespace {

using namespace vellicor::testing;
using ::testing::ElementsAre;
using ::testing::StartsWith;
using Checkpoint = RemoteInstallCheckpoint;

constexpr std::uint64_t maximumU64 = ~std::uint64_t{0};
const std::string digest(64, 'd');
const std::string corrupt = "install state at p is corrupt: ";

RemoteCompletedRange range(const std::string& id, std::uint64_t sourceBytes = 10) {
  return {id, digest, sourceBytes, 8};
}

Checkpoint checkpoint() {
  return {1,
          "owner/name",
          "main",
          std::string(40, 'c'),
          std::string(64, 'a'),
          std::string(64, 'f'),
          20,
          {range("range-00000000"), range("range-00000001")}};
}

TEST(RemoteInstallCheckpoint, IsOneCompactSortedObject) {
  const TemporaryDirectory directory;
  const std::string path = directory / "out.resume.json";
  checkpoint().write(path, directory.path());
  EXPECT_EQ(readFile(path),
            R"({"completedRanges":[{"destinationBytes":8,"destinationDigest":")" + digest +
                R"(","id":"range-00000000","sourceBytes":10},{"destinationBytes":8,"destinationDigest":")" +
                digest + R"(","id":"range-00000001","sourceBytes":10}],"planFingerprint":")" +
                std::string(64, 'f') +
                R"(","repoID":"owner\/name","requestedRevision":"main","resolvedCommit":")" +
                std::string(40, 'c') + R"(","schema":1,"sourceIndexSHA256":")" + std::string(64, 'a') +
                R"(","totalSourceBytes":20})");
  EXPECT_EQ(Checkpoint::load(path), checkpoint());
}

TEST(RemoteInstallCheckpoint, NeverWritesOrLoadsAnInvalidRecord) {
  const std::string identity = corrupt + "invalid checkpoint identity";
  const std::string completed = corrupt + "invalid completed range";
  const std::string totals = corrupt + "completed range byte totals are invalid";
  const std::vector<Bent<Checkpoint>> rows = {
      {[](auto& c) { c.completedRanges = {}, c.totalSourceBytes = maximumU64; }, "no error"},
      {[](auto& c) { c.schema = 2; }, identity},
      {[](auto& c) { c.repoID = ""; }, identity},
      {[](auto& c) { c.requestedRevision = ""; }, identity},
      {[](auto& c) { c.resolvedCommit.pop_back(); }, identity},
      {[](auto& c) { c.sourceIndexSHA256 += 'a'; }, identity},
      {[](auto& c) { c.planFingerprint.replace(0, 2, "\u00e9"); }, identity},
      {[](auto& c) { c.totalSourceBytes = 0; }, identity},
      {[](auto& c) { c.completedRanges[1].id = c.completedRanges[0].id; }, completed},
      {[](auto& c) { c.completedRanges[1].id = ""; }, completed},
      {[](auto& c) { c.completedRanges[1].destinationDigest.pop_back(); }, completed},
      {[](auto& c) { c.completedRanges[1].sourceBytes = 0; }, completed},
      {[](auto& c) { c.completedRanges[0].destinationBytes = 0; }, completed},
      {[](auto& c) { c.completedRanges[0].sourceBytes = 11; }, totals},
      {[](auto& c) { c.completedRanges[0].sourceBytes = maximumU64; }, totals},
      {[](auto& c) { c.completedRanges[0].destinationBytes = maximumU64; }, totals},
  };
  expectErrors(checkpoint(), rows, [](const auto& bent) { Checkpoint::decode(bent.encoded(), "p"); });
  const TemporaryDirectory directory;
  const std::vector<Bent<Checkpoint>> refused(rows.begin() + 1, rows.end());
  expectErrors(checkpoint(), refused, [&](const auto& bent) {
    const std::string path = directory / "file";
    try {
      bent.write(path, directory.path());
    } catch (const std::exception& error) {
      EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
      throw std::runtime_error(replaced(error.what(), path, "p"));
    }
  });
}

TEST(RemoteInstallCheckpoint, RequiresEveryKeyAndType) {
  const std::string text = checkpoint().encoded();
  EXPECT_EQ(Checkpoint::decode(" " + replaced(text, "{", "{\"future\":[{}],"), "p"), checkpoint());
  const struct {
    std::string from, to, detail;
  } rows[] = {
      {"{", "[", "[json.exception.parse_error"},
      {"\"schema\":1", "\"schema\":\"1\"", "schema: expected an integer"},
      {"\"main\"", "null", "requestedRevision: expected a string"},
      {":20", ":-20", "totalSourceBytes: expected an unsigned integer"},
      {"[{", "[1,{", "completedRanges[0]: expected an object"},
      {":8", ":8.5", "completedRanges[0].destinationBytes: expected an unsigned integer"},
      {"\"id\"", "\"no\"", "completedRanges[0].id: missing"},
      {"planFingerprint", "other", "planFingerprint: missing"},
  };
  for (const auto& row : rows)
    EXPECT_THAT(errorText([&] { Checkpoint::decode(replaced(text, row.from, row.to), "p"); }),
                StartsWith(corrupt + row.detail));
}

TEST(RemoteInstallCheckpoint, IsBoundedAndKeepsTheFileItCannotReplace) {
  const TemporaryDirectory directory;
  const std::string path = directory / "out.resume.json";
  Checkpoint record = checkpoint();
  record.requestedRevision += std::string(8388608 - record.encoded().size(), 'r');
  record.write(path, directory.path());
  EXPECT_EQ(Checkpoint::load(path), record);
  const Checkpoint kept = record;
  record.requestedRevision += 'r';
  EXPECT_EQ(errorText([&] { record.write(path, directory.path()); }),
            "install state at " + path + " is corrupt: checkpoint exceeds 8388608-byte cap");
  EXPECT_EQ(readFile(path), kept.encoded());
}

TEST(RemoteInstallCheckpoint, RecordsEachRangeOnceInOrderForOnePlan) {
  Checkpoint record = checkpoint();
  record.completedRanges = {};
  for (const auto& finished : {range("range-00000002"), range("range-00000000"), range("range-00000002", 7)})
    record.record(finished);
  EXPECT_THAT(record.completedRanges, ElementsAre(range("range-00000000"), range("range-00000002", 7)));
  EXPECT_EQ(record.validatedDestinationBytes(16, "p"), 16U);
  EXPECT_EQ(errorText([&] { record.validatedDestinationBytes(15, "p"); }),
            corrupt + "completed destination bytes exceed the installed model");

  const std::vector<std::string> own = {"owner/name", "main", std::string(64, 'a'), std::string(64, 'f')};
  EXPECT_TRUE(record.matches(own[0], own[1], own[2], own[3]));
  for (std::size_t changed = 0; changed < 4; ++changed) {
    std::vector<std::string> other = own;
    other[changed] += "x";
    EXPECT_FALSE(record.matches(other[0], other[1], other[2], other[3])) << changed;
  }
}

}  // namespace
}  // namespace vellicor
