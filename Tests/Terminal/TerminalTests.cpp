#include <csignal>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include "Tests/Support/Expect.h"
#include "VellicorTerminal/Escaping.h"
#include "VellicorTerminal/Signals.h"
#include "VellicorTerminal/StandardStreams.h"
#include "VellicorTerminal/TerminalText.h"
#include "VellicorTerminal/Units.h"

namespace vellicor::testing {
namespace {

using namespace std::chrono_literals;

TEST(Escaping, LeavesOneHarmlessLine) {
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
  EXPECT_EQ(escaped("\u00e9~\x7f", Glyphs::ascii), "\\xc3\\xa9~\\x7f");
}

TEST(TerminalText, CountsColumnsAndCuts) {
  EXPECT_EQ(displayColumns("e\u0301\u6a21\u2764\ufe0f\xff"), 6U);
  EXPECT_EQ(shortened("caf\u00e9s", 5, Cut::beginning), "caf\u00e9s");
  EXPECT_EQ(shortened("caf\u00e9s", 4, Cut::beginning), "...s");
  EXPECT_EQ(shortened("\u6a21\u6a21\u6a21\u6a21", 7, Cut::beginning), "...\u6a21\u6a21");
  EXPECT_EQ(shortened("abcdefghij", 8, Cut::middle, Glyphs::unicode), "abc\u2026ghij");
  EXPECT_EQ(shortened("abcdefghij", 8, Cut::end), "abcde...");
  EXPECT_EQ(foldWords("a bb cc", 4), "a bb\ncc");
  EXPECT_EQ(foldWords("aaaaa b c", 3), "aaaaa\nb c");
}

TEST(Units, AreAsPeopleReadThem) {
  const std::vector<std::pair<std::string, std::string>> rows = {
      {bytesText(999.6), "1.00 kB"},
      {bytesText(9995.0), "10.0 kB"},
      {bytesText(99960.0), "100 kB"},
      {bytesText(999499999.0), "999 MB"},
      {bytesText(999500000.0), "1.00 GB"},
      {exactBytesText(999), "999 B (999 bytes)"},
      {exactBytesText(std::numeric_limits<std::uint64_t>::max()),
       "18.4 EB (18,446,744,073,709,551,615 bytes)"},
      {bytesOfText(5, 100), "5/100 B"},
      {percentText(0, 0), "0.0%"},
      {durationText(9940ms), "9.9 s"},
      {durationText(9960ms), "10 s"},
      {durationText(59600ms), "1:00"},
      {durationText(3834s), "1:03:54"},
      {clockText(359999s), "99:59:59"},
      {clockText(360000s), ">99 h"},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(text, expected);
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
  EXPECT_EXIT(streams(), ExitedWithCode(0), "");
}

TEST(StandardStreams, WaitForAReaderThatIsSlow) {
  const Pipe pipe = openPipe();
  setNonBlocking(pipe.write);
  const std::string text(1 << 20, 'x');
  std::string seen;
  std::thread reader([&] {
    std::array<char, 4096> piece{};
    for (ssize_t count = 0; (count = ::read(pipe.read, piece.data(), piece.size())) > 0;)
      seen.append(piece.data(), static_cast<std::size_t>(count));
  });
  EXPECT_EQ(writeAll(pipe.write, text), 0);
  ::close(pipe.write);
  reader.join();
  ::close(pipe.read);
  EXPECT_EQ(seen.size(), text.size());
  EXPECT_EQ(writeAll(pipe.write, "x"), EBADF);
}

TEST(Signals, AreNotedUnlessTheyWereIgnored) {
  const auto noted = [] {
    std::signal(SIGHUP, SIG_IGN);
    const Signals signals({SIGHUP, SIGTERM, SIGINT});
    std::raise(SIGHUP);
    if (Signals::hasCome()) ::_exit(1);
    for (const int signal : {SIGTERM, SIGINT}) std::raise(signal);
    if (!Signals::hasCome() || signals.take() != SIGTERM) ::_exit(2);
    Signals::endBy(*signals.take());
  };
  EXPECT_EXIT(noted(), KilledBySignal(SIGINT), "");
}

}  // namespace
}  // namespace vellicor::testing
