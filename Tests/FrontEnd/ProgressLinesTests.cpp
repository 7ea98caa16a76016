#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "VellicorRepack/ProgressLines.h"

namespace vellicor {
namespace {

TEST(ProgressLines, EveryEventIsOneCompactLine) {
  const std::vector<std::pair<ModelInstallProgress, std::string>> rows = {
      {PlanningProgress{18446744073709551615U, 7},
       R"({"downloadBytes":18446744073709551615,"outputBytes":7,"phase":"planning"})"},
      {CheckingDiskProgress{{"/data", 10, 20}}, R"({"phase":"checkingDisk"})"},
      {ReservingOutputProgress{5}, R"({"outputBytes":5,"phase":"reserving"})"},
      {CopyingPayloadProgress{10, 20, 100},
       R"({"downloadedBytes":20,"phase":"copying","reusedBytes":10,"totalBytes":100})"},
      {HashingOutputProgress{"packed_experts/x.bin"},
       R"({"file":"packed_experts\/x.bin","phase":"hashing"})"},
      {DownloadingMetadataProgress{}, R"({"phase":"metadata"})"},
      {FinalizingProgress{}, R"({"phase":"finalizing"})"},
  };
  for (const auto& [event, line] : rows) EXPECT_EQ(progressLine(event), "PROGRESS " + line + "\n");
}

}  // namespace
}  // namespace vellicor
