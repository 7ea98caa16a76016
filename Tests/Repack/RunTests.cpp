#include <new>
#include <stdexcept>

#include "Tests/Support/Expect.h"
#include "VellicorRepack/Run.h"
#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor::testing {
namespace {

TEST(Run, AFailureSaysWhatItIsInFull) {
  const auto printed = [](const std::exception& error) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(reportInstallFailure(error), ExitStatus::failure);
    return ::testing::internal::GetCapturedStderr();
  };
  EXPECT_EQ(printed(RepackError(MissingTensor{std::string("a\0b\033", 4)})),
            "install failed: expected tensor missing: a\\x00b\\x1b\n");
  EXPECT_EQ(printed(std::bad_alloc()), "install failed: not enough memory\n");
  EXPECT_EQ(printed(std::runtime_error("other")), "install failed: other\n");
}

TEST(Run, AnOutputWithoutANameStaysOne) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"", ""}, {"/", "/"}, {"/a/./b//", "/a/./b"}};
  for (const auto& [typed, absolute] : rows) EXPECT_EQ(absoluteOutputPath(typed), absolute);
}

}  // namespace
}  // namespace vellicor::testing
