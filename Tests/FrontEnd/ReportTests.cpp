#include <array>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "VellicorRepack/Run.h"
#include "VellicorRepackCore/Base/Errors.h"
#include "VellicorTerminal/SafeText.h"
#include "VellicorTerminal/StandardStreams.h"

namespace vellicor {
namespace {

TEST(Reports, AnErrorIsOneHarmlessLine) {
  using namespace std::string_literals;
  const std::string full(maximumErrorLineBytes, 'x');
  const std::vector<std::tuple<std::string, std::string, std::string>> rows = {
      {"text", "na\u00efve \u4e2d\U0001f600 \\x41", "na\u00efve \u4e2d\U0001f600 \\x41"},
      {"controls", "a\0\t\n\r\033[2J\x7f"s, "a\\x00\\x09\\x0a\\x0d\\x1b[2J\\x7f"},
      {"C1", "\u0080\u009f\u00a0", "\\xc2\\x80\\xc2\\x9f\u00a0"},
      {"directions", "\u061c\u200e\u202e\u2069\u206a",
       "\\xd8\\x9c\\xe2\\x80\\x8e\\xe2\\x80\\xae\\xe2\\x81\\xa9\u206a"},
      {"not UTF-8", "\xff\xc3(\xed\xa0\x80\xf4\x90\x80\x80\xe0\x80\x80\xe4\xb8",
       "\\xff\\xc3(\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80\\xe0\\x80\\x80\\xe4\\xb8"},
      {"as long as may be", full, full},
      {"too long", full + "x", full.substr(3) + "..."},
      {"cut before a character", full.substr(4) + "\u4e2dxx", full.substr(4) + "..."},
      {"cut before an escape", full.substr(6) + "\033xxx", full.substr(6) + "..."},
  };
  for (const auto& [name, text, line] : rows) EXPECT_EQ(errorLine(text), line + "\n") << name;
}

TEST(Reports, AFailureSaysWhatItIsInFull) {
  const std::string name("a\0b\033", 4);
  const auto printed = [](const std::exception& error) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(reportInstallFailure(error), ExitStatus::failure);
    return ::testing::internal::GetCapturedStderr();
  };
  const RepackError missing = RepackError(MissingTensor{name});
  EXPECT_EQ(missing.description(), "expected tensor missing: " + name);
  EXPECT_EQ(printed(missing), "install failed: expected tensor missing: a\\x00b\\x1b\n");
  EXPECT_EQ(printed(std::bad_alloc()), "install failed: not enough memory\n");
  EXPECT_EQ(printed(std::runtime_error("other")), "install failed: other\n");
}

TEST(Reports, AnOutputWithoutANameStaysOne) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"", ""}, {"/", "/"}, {"/a/./b//", "/a/./b"}};
  for (const auto& [typed, absolute] : rows) EXPECT_EQ(absoluteOutputPath(typed), absolute);
}

TEST(StandardStreams, LeaveNoNumberToOthers) {
  const auto streams = [] {
    const int unused = ::open("/", O_RDONLY);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, unused}) ::close(fd);
    openStandardStreams();
    const auto access = [](int fd) { return ::fcntl(fd, F_GETFL) & O_ACCMODE; };
    const bool areOpen = access(0) == O_RDONLY && access(1) == O_WRONLY && access(2) == O_WRONLY;
    ::_exit(areOpen && ::open("/", O_RDONLY) == unused ? 0 : 1);
  };
  EXPECT_EXIT(streams(), ::testing::ExitedWithCode(0), "");
}

TEST(StandardStreams, WaitForAReaderThatIsSlow) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  ASSERT_EQ(::fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
  const std::string text(1 << 20, 'x');
  std::string seen;
  std::thread reader([&] {
    std::array<char, 4096> piece{};
    for (ssize_t count = 0; (count = ::read(ends[0], piece.data(), piece.size())) > 0;)
      seen.append(piece.data(), static_cast<std::size_t>(count));
  });
  EXPECT_EQ(writeAll(ends[1], text), 0);
  ::close(ends[1]);
  reader.join();
  ::close(ends[0]);
  EXPECT_EQ(seen.size(), text.size());
  EXPECT_EQ(writeAll(ends[1], "x"), EBADF);
}

}  // namespace
}  // namespace vellicor
