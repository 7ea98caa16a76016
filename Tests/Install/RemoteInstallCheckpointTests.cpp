#include "Tests/Support/SampleModel.h"
#include "VellicorRepackCore/Install/RemoteInstallCheckpoint.h"

namespace vellicor::testing {
namespace {

using Checkpoint = RemoteInstallCheckpoint;

constexpr std::uint64_t maximumU64 = ~std::uint64_t{0};
const std::string index(64, 'a');
const std::string commit(40, 'c');
const std::string digest(64, 'd');
const std::string fingerprint(64, 'f');
const std::string corrupt = "install state at p is corrupt: ";

RemoteCompletedRange range(const std::string& id, std::uint64_t sourceBytes = 10) {
  return {id, digest, sourceBytes, 8};
}

Checkpoint checkpoint() {
  return {1, "owner/name", "main", commit, index, fingerprint, 20, {range("range-0"), range("range-1")}};
}

TEST(RemoteInstallCheckpoint, IsOneCompactSortedObject) {
  EXPECT_EQ(checkpoint().encoded(),
            R"({"completedRanges":[{"destinationBytes":8,"destinationDigest":")" + digest +
                R"(","id":"range-0","sourceBytes":10},{"destinationBytes":8,"destinationDigest":")" + digest +
                R"(","id":"range-1","sourceBytes":10}],"planFingerprint":")" + fingerprint +
                R"(","repoID":"owner\/name","requestedRevision":"main","resolvedCommit":")" + commit +
                R"(","schema":1,"sourceIndexSHA256":")" + index + R"(","totalSourceBytes":20})");
}

TEST(RemoteInstallCheckpoint, LoadsNoInvalidRecord) {
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
}

TEST(RemoteInstallCheckpoint, RequiresEveryKeyAndType) {
  const std::string text = checkpoint().encoded();
  EXPECT_EQ(Checkpoint::decode(" " + replaced(text, "{", "{\"future\":[{}],"), "p"), checkpoint());
  const auto error = [&](const char* from, const char* to) {
    const std::string what = errorText([&] { Checkpoint::decode(replaced(text, from, to), "p"); });
    return what.substr(0, what.find("[json"));
  };
  EXPECT_EQ(error("{", "["), corrupt);
  EXPECT_EQ(error(":1,", ":\"1\","), corrupt + "schema: expected an integer");
  EXPECT_EQ(error("\"main\"", "null"), corrupt + "requestedRevision: expected a string");
  EXPECT_EQ(error(":20", ":-20"), corrupt + "totalSourceBytes: expected an unsigned integer");
  EXPECT_EQ(error("[{", "[1,{"), corrupt + "completedRanges[0]: expected an object");
  EXPECT_EQ(error(":8", ":8.5"),
            corrupt + "completedRanges[0].destinationBytes: expected an unsigned integer");
  EXPECT_EQ(error("\"id\"", "\"no\""), corrupt + "completedRanges[0].id: missing");
  EXPECT_EQ(error("planFingerprint", "other"), corrupt + "planFingerprint: missing");
}

TEST(RemoteInstallCheckpoint, IsBoundedAndKeepsTheFileItCannotReplace) {
  const TemporaryDirectory directory;
  const std::string path = directory / "out.resume.json";
  Checkpoint record = checkpoint();
  record.requestedRevision += std::string(8388608 - record.encoded().size(), 'r');
  record.write(path, directory.path());
  EXPECT_EQ(Checkpoint::load(path), record);
  const std::string kept = record.encoded();
  const auto write = [&] { record.write(path, directory.path()); };
  record.requestedRevision += 'r';
  EXPECT_EQ(errorText(write),
            "install state at " + path + " is corrupt: checkpoint exceeds 8388608-byte cap");
  record.schema = 2;
  EXPECT_EQ(errorText(write), "install state at " + path + " is corrupt: invalid checkpoint identity");
  EXPECT_EQ(readFile(path), kept);
}

TEST(RemoteInstallCheckpoint, RecordsEachRangeOnceInOrderForOnePlan) {
  Checkpoint record = checkpoint();
  record.completedRanges = {};
  for (const auto& done : {range("range-2"), range("range-0"), range("range-2", 7)}) record.record(done);
  EXPECT_THAT(record.completedRanges, ElementsAre(range("range-0"), range("range-2", 7)));
  EXPECT_EQ(record.validatedDestinationBytes(16, "p"), 16U);
  EXPECT_EQ(errorText([&] { record.validatedDestinationBytes(15, "p"); }),
            corrupt + "completed destination bytes exceed the installed model");

  EXPECT_TRUE(record.matches("owner/name", "main", index, fingerprint));
  EXPECT_FALSE(record.matches("owner/other", "main", index, fingerprint));
  EXPECT_FALSE(record.matches("owner/name", "other", index, fingerprint));
  EXPECT_FALSE(record.matches("owner/name", "main", fingerprint, fingerprint));
  EXPECT_FALSE(record.matches("owner/name", "main", index, index));
}

}  // namespace
}  // namespace vellicor::testing
