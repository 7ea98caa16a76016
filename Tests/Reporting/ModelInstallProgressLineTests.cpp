#include "Tests/Support/Expect.h"
#include "VellicorRepackCore/Reporting/ModelInstallProgressLine.h"

namespace vellicor::testing {
namespace {

TEST(ModelInstallProgressLine, HoldsOneEventAndReadsBackToIt) {
  const std::vector<std::pair<ModelInstallProgress, std::string>> rows = {
      {PlanningProgress{18446744073709551615U, 7},
       R"({"downloadBytes":18446744073709551615,"outputBytes":7,"phase":"planning"})"},
      {CheckingDiskProgress{}, R"({"phase":"checkingDisk"})"},
      {ReservingOutputProgress{5}, R"({"outputBytes":5,"phase":"reserving"})"},
      {CopyingPayloadProgress{10, 20, 100},
       R"({"downloadedBytes":20,"phase":"copying","reusedBytes":10,"totalBytes":100})"},
      {HashingOutputProgress{"packed_experts/x.bin"},
       R"({"file":"packed_experts\/x.bin","phase":"hashing"})"},
      {DownloadingMetadataProgress{}, R"({"phase":"metadata"})"},
      {FinalizingProgress{}, R"({"phase":"finalizing"})"},
  };
  EXPECT_EQ(rows.size(), std::variant_size_v<ModelInstallProgress>);
  for (const auto& [event, object] : rows) {
    EXPECT_EQ(progressLine(event), "PROGRESS " + object + "\n");
    EXPECT_EQ(decodedProgressLine("PROGRESS " + object), event) << object;
    EXPECT_EQ(decodedProgressLine("PROGRESS  " + object + "\r\n"), event) << object;
  }
  EXPECT_EQ(progressLine(CheckingDiskProgress{{"/data", 10, 20}}), progressLine(CheckingDiskProgress{}));
  EXPECT_THROW(progressLine(HashingOutputProgress{"\xff"}), std::invalid_argument);
}

TEST(ModelInstallProgressLine, IsNothingElse) {
  for (const std::string line :
       {"", "PROGRESS", " PROGRESS {\"phase\":\"metadata\"}", "PROGRESS {\"phase\":\"dancing\"}",
        "PROGRESS {\"phase\":\"hashing\"}", "PROGRESS {\"outputBytes\":-3,\"phase\":\"reserving\"}",
        "PROGRESS {\"phase\":\"metad", "PROGRESS {\"phase\":\"metadata\"} x"}) {
    EXPECT_EQ(decodedProgressLine(line), std::nullopt) << line;
  }
}

}  // namespace
}  // namespace vellicor::testing
