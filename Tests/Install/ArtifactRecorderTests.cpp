#include <thread>

#include "Tests/Support/SampleModel.h"
#include "VellicorRepackCore/FileSystem/Posix.h"
#include "VellicorRepackCore/Install/ArtifactRecorder.h"
#include "VellicorRepackCore/Output/ResidentWriter.h"

namespace vellicor::testing {
namespace {

TEST(ArtifactRecorder, ReadsLargePayloadAgainWhereItsStampProvesNothing) {
  constexpr std::uint64_t large = 65 << 20;
  const TemporaryDirectory directory;
  RepackPlan plan = SampleModel().plan(directory.path());
  plan.layers.clear();
  const std::string& weights = plan.resident.path;
  RepackAudit audit;
  ResidentWriter::createAndWriteIndex(plan.resident, audit);
  fs::resize_file(weights, large);
  const auto proofOf = [&](std::uint64_t size) {
    RangeCopyPlan copies;
    copies.expectedOutputs = {{"model_weights.bin", size}};
    return PayloadProof(plan, copies, directory.path());
  };
  const PayloadProof right = proofOf(large), wrong = proofOf(large - 1);
  const auto isSettled = [&] {
    return FileStamp::of(Posix::openReadNoFollow(weights).get(), weights).isSettled;
  };
  while (!isSettled()) std::this_thread::yield();

  const ModelInstallProgressCallback progress = [](const ModelInstallProgress&) {};
  ArtifactRecorder recorder(directory.path(), plan, audit, progress, {});
  const RecordedPayload payload = recorder.recordPayload(right);
  ASSERT_FALSE(payload.damage);
  EXPECT_FALSE(recorder.proveAgain(payload, wrong, {})) << "it was read";
  Posix::pwriteAll(Posix::openExistingRW(weights).get(), weights, "", 1, large - 1);
  EXPECT_EQ(recorder.proveAgain(payload, wrong, {}).path, weights) << "it was not read";
  EXPECT_FALSE(recorder.proveAgain(payload, right, {})) << "the same byte once more is no damage";
}

}  // namespace
}  // namespace vellicor::testing
