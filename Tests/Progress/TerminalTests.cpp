#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <regex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#if defined(__APPLE__)
#include <util.h>
#else
#include <pty.h>
#endif

#include "VellicorLab/TemporaryDirectory.h"

namespace vellicor {
namespace {

using namespace ::testing;

const std::string program = VELLICOR_PROGRESS;

/// What a terminal shows of the bytes it gets: as much of one as the viewer uses, and a note of all else.
class ScreenModel {
 public:
  explicit ScreenModel(std::size_t columns) : columns_(columns) {}

  void feed(const std::string& bytes) {
    pending_ += bytes;
    while (!pending_.empty()) {
      const std::size_t taken = takeOne();
      if (taken == 0) return;
      pending_.erase(0, taken);
    }
  }
  void setColumns(std::size_t columns) { columns_ = columns; }

  /// The rows without the blanks at their ends, down to the last one that shows something.
  std::vector<std::string> rows() const {
    std::vector<std::string> shown;
    for (const auto& cells : rows_) {
      std::string text;
      for (const std::string& cell : cells) text += cell;
      shown.push_back(text.substr(0, text.find_last_not_of(' ') + 1));
    }
    while (!shown.empty() && shown.back().empty()) shown.pop_back();
    return shown;
  }
  bool isCursorShown() const { return isCursorShown_; }
  /// Sequences that are not known here, and characters beyond the last column.
  const std::string& strays() const { return strays_; }

 private:
  std::size_t takeOne() {
    const auto first = static_cast<unsigned char>(pending_[0]);
    if (first == '\033') return takeSequence();
    if (first == '\r') return column_ = 0, 1;
    if (first == '\n') return rows_.resize(std::max(rows_.size(), ++row_ + 1)), 1;
    const std::size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (pending_.size() < length) return 0;
    if (first < 0x20 || column_ >= columns_) strays_ += pending_.substr(0, length);
    auto& cells = rows_[row_];
    cells.resize(std::max(cells.size(), column_ + 1), " ");
    cells[column_++] = pending_.substr(0, length);
    return length;
  }

  std::size_t takeSequence() {
    const std::size_t end = pending_.find_first_of("ABCDEFGHJKLMPSTfhlmnsu", 2);
    if (end == std::string::npos) return 0;
    const std::string sequence = pending_.substr(1, end);
    auto& cells = rows_[row_];
    if (sequence == "[K" || sequence == "[J") {
      cells.resize(std::min(cells.size(), column_));
      if (sequence == "[J") rows_.resize(row_ + 1);
    } else if (sequence == "[?25l" || sequence == "[?25h") {
      isCursorShown_ = sequence.back() == 'h';
    } else if (sequence.back() != 'm') {
      strays_ += sequence;
    }
    return end + 1;
  }

  std::size_t columns_;
  std::vector<std::vector<std::string>> rows_{1};
  std::size_t row_ = 0;
  std::size_t column_ = 0;
  bool isCursorShown_ = true;
  std::string strays_;
  std::string pending_;
};

/// The viewer on a terminal of its own, with a shell as its command that does what the test tells it line by
/// line.
class ViewerOnTerminal {
 public:
  /// `environment`: "NAME=value" each.
  explicit ViewerOnTerminal(const std::vector<std::string>& environment = {}) : screen_(80) {
    const std::string orders = directory_ / "orders";
    ::mkfifo(orders.c_str(), 0600);
    orders_ = ::open(orders.c_str(), O_RDWR | O_CLOEXEC);
    std::vector<std::string> command = {"/usr/bin/env", "-u", "NO_COLOR", "TERM=xterm", "LC_ALL=C.UTF-8"};
    command.insert(command.end(), environment.begin(), environment.end());
    const std::string shell = "while read -r order; do eval \"$order\"; done <" + orders;
    for (const std::string& word :
         {program, std::string("--"), std::string("/bin/sh"), std::string("-c"), shell}) {
      command.push_back(word);
    }
    std::vector<char*> arguments;
    for (std::string& word : command) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    winsize size = sizeOf(80);
    pid_ = ::forkpty(&terminal_, nullptr, nullptr, &size);
    if (pid_ == 0) ::_exit(::execv(arguments[0], arguments.data()));
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "forkpty");
    ::fcntl(terminal_, F_SETFD, FD_CLOEXEC);
  }
  ~ViewerOnTerminal() {
    if (pid_ > 0) {
      signal(SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(terminal_);
    ::close(orders_);
  }
  ViewerOnTerminal(const ViewerOnTerminal&) = delete;
  ViewerOnTerminal& operator=(const ViewerOnTerminal&) = delete;

  void order(const std::string& command) {
    const std::string line = command + "\n";
    ASSERT_EQ(::write(orders_, line.data(), line.size()), static_cast<ssize_t>(line.size()));
  }
  void progress(const std::string& members) { order("echo 'PROGRESS {" + members + "}'"); }
  void copied(int reused, int downloaded, int total) {
    progress("\"phase\":\"copying\",\"reusedBytes\":" + std::to_string(reused) + ",\"downloadedBytes\":" +
             std::to_string(downloaded) + ",\"totalBytes\":" + std::to_string(total));
  }
  /// To the viewer alone, not its command, and to nobody once the viewer is reaped.
  void signal(int number) const {
    if (pid_ <= 0) throw std::logic_error("there is no viewer to signal");
    EXPECT_EQ(::kill(pid_, number), 0);
  }
  void stop() const {
    signal(SIGSTOP);
    ASSERT_EQ(::waitpid(pid_, nullptr, WUNTRACED), pid_);
  }
  bool hasForeground() const { return ::tcgetpgrp(terminal_) == pid_; }
  void type(char key) { ASSERT_EQ(::write(terminal_, &key, 1), 1); }
  void setColumns(unsigned short columns) {
    const winsize size = sizeOf(columns);
    ASSERT_EQ(::ioctl(terminal_, TIOCSWINSZ, &size), 0);
    screen_.setColumns(columns);
  }

  /// Reads until a row of the screen begins so.
  void waitForRow(const std::string& beginning) {
    const bool came = readUntil([&] {
      return std::ranges::any_of(screen_.rows(), [&](const auto& row) { return row.starts_with(beginning); });
    });
    ASSERT_TRUE(came) << "no row " << beginning << " but:\n" << PrintToString(screen_.rows());
  }
  /// Reads to the end, which leaves the terminal tidy; the wait status.
  int wait() {
    EXPECT_TRUE(readUntil([&] { return hasEnded_; })) << "it did not end";
    EXPECT_EQ(screen_.strays(), "");
    EXPECT_TRUE(screen_.isCursorShown());
    int status = -1;
    if (hasEnded_) ::waitpid(std::exchange(pid_, -1), &status, 0);
    return status;
  }

  /// The rows with figures that depend on the clock made equal.
  std::vector<std::string> rows() const {
    std::vector<std::string> rows = screen_.rows();
    for (std::string& row : rows) {
      row = std::regex_replace(row, std::regex("[0-9.]+ s(, [0-9.]+ k?B/s)?"), "N s");
    }
    return rows;
  }
  const ScreenModel& screen() const { return screen_; }
  const std::string& bytes() const { return bytes_; }

 private:
  static winsize sizeOf(unsigned short columns) {
    return {.ws_row = 24, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
  }

  bool readUntil(const std::function<bool()>& reached) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!reached()) {
      pollfd ready{.fd = terminal_, .events = POLLIN, .revents = 0};
      if (hasEnded_ || std::chrono::steady_clock::now() > deadline) return false;
      if (::poll(&ready, 1, 1000) < 1) continue;
      std::array<char, 4096> piece{};
      const ssize_t count = ::read(terminal_, piece.data(), piece.size());
      hasEnded_ = count == 0 || (count < 0 && errno == EIO);
      if (count <= 0) continue;
      bytes_.append(piece.data(), static_cast<std::size_t>(count));
      screen_.feed(std::string(piece.data(), static_cast<std::size_t>(count)));
    }
    return true;
  }

  TemporaryDirectory directory_;
  ScreenModel screen_;
  int orders_ = -1;
  int terminal_ = -1;
  pid_t pid_ = -1;
  bool hasEnded_ = false;
  std::string bytes_;
};

class ProgressOnTerminal : public Test {
 protected:
  void SetUp() override {
    int terminal = -1, side = -1;
    if (::openpty(&terminal, &side, nullptr, nullptr, nullptr) != 0)
      GTEST_SKIP() << "no pseudo-terminal can be had here: " << std::generic_category().message(errno);
    ::close(side);
    ::close(terminal);
  }
};

TEST_F(ProgressOnTerminal, ShowsAnInstallFromBeginningToEnd) {
  ViewerOnTerminal viewer;
  viewer.progress(R"("phase":"metadata")");
  viewer.waitForRow("Metadata   reading the source's metadata");
  viewer.progress(R"("phase":"planning","downloadBytes":2000,"outputBytes":2100)");
  viewer.copied(500, 500, 2000);
  viewer.waitForRow("Copying    ██████░░░░░░  50%  1.00/2.00 kB");
  EXPECT_FALSE(viewer.screen().isCursorShown());
  viewer.setColumns(40);
  viewer.waitForRow("Copying    ████▌░░░░  50%");
  viewer.setColumns(80);
  viewer.waitForRow("Copying    ██████░░░░░░  50%");
  viewer.order("printf 'another '; echo line");
  viewer.waitForRow("another line");
  viewer.order("echo a warning >&2");
  viewer.waitForRow("a warning");
  viewer.copied(500, 1500, 2000);
  viewer.progress(R"("phase":"hashing","file":"packed_experts\\/layer_00.bin")");
  viewer.waitForRow("Hashing    packed_experts/layer_00.bin  file 1");
  viewer.progress(R"("phase":"finalizing")");
  viewer.order("echo Installed it; exit 0");
  EXPECT_EQ(viewer.wait(), 0);
  EXPECT_THAT(
      viewer.rows(),
      ElementsAre("Metadata   done in N s", "Plan       2.00 kB of source, 2.10 kB of output", "another line",
                  "a warning", "Copying    1.50 kB fetched in N s, 500 B (25%) reused",
                  "Hashing    1 file in N s", "Finalizing done in N s", "Installed it"));
}

TEST_F(ProgressOnTerminal, EndsAsItsCommandDoesAndSaysWhatToDo) {
  const std::string lost = "install failed: the connection to h was lost (https://h/a)";
  const std::string stopped = "Copying    stopped at 50%, 1.00/2.00 kB, after N s";
  const std::string next = "next step: run the same command again with --resume";
  const std::string check = "next step: check the network, then run the same command again with --resume";
  const std::string keyboard = "^C", terminated = "SIGTERM to the viewer";
  const std::vector<std::tuple<std::string, int, std::vector<std::string>>> rows = {
      {"echo '" + lost + "' >&2; exit 3", 3 << 8, {stopped, lost, check}},
      {"echo oops >&2; exit 4", 4 << 8, {"oops", stopped}},
      {"kill -KILL $$", SIGKILL, {stopped, next}},
      {"ulimit -c 0; kill -ABRT $$", SIGABRT, {stopped, next}},
      {terminated, SIGTERM, {stopped, next}},
      {keyboard, SIGINT, {stopped, next}},
  };
  for (const auto& [act, status, shown] : rows) {
    SCOPED_TRACE(act);
    ViewerOnTerminal viewer;
    viewer.copied(500, 500, 2000);
    viewer.waitForRow("Copying    █");
    act == keyboard ? viewer.type('\x03') : act == terminated ? viewer.signal(SIGTERM) : viewer.order(act);
    EXPECT_EQ(viewer.wait(), status) << "no core file either";
    EXPECT_EQ(viewer.rows(), shown);
  }
}

TEST_F(ProgressOnTerminal, DrawsNothingWhenContinuedInTheBackground) {
  ViewerOnTerminal viewer;
  viewer.copied(500, 500, 2000);
  viewer.waitForRow("Copying    █");
  viewer.stop();
  viewer.order("set -m; printf '\\nprompt' >/dev/tty");
  viewer.waitForRow("prompt");
  if (viewer.hasForeground()) GTEST_SKIP() << "this shell does not take the terminal with its job control";
  const std::size_t before = viewer.bytes().size();
  viewer.signal(SIGCONT);
  viewer.copied(500, 1000, 2000);
  viewer.order("echo a line");
  viewer.waitForRow("a line");
  EXPECT_THAT(viewer.bytes().substr(before), Not(HasSubstr("Copying")));
  viewer.order("exit 0");
  EXPECT_EQ(viewer.wait(), 0);
}

TEST_F(ProgressOnTerminal, RespectsWhatTheEnvironmentAsks) {
  const std::vector<std::tuple<std::string, std::string, bool, bool>> rows = {
      {"NO_COLOR=1", "Copying    ████", false, true},
      {"LC_ALL=C", "Copying    [####", true, true},
      {"TERM=dumb", "Copying: 50%, 1.00/2.00 kB, 25% reused", false, false},
      {"TERM=", "Copying: 50%, 1.00/2.00 kB, 25% reused", false, false},
  };
  for (const auto& [variable, row, hasColours, hasSequences] : rows) {
    SCOPED_TRACE(variable);
    ViewerOnTerminal viewer({variable});
    viewer.copied(500, 500, 2000);
    viewer.waitForRow(row);
    viewer.order("exit 0");
    EXPECT_EQ(viewer.wait(), 0);
    EXPECT_EQ(viewer.bytes().find("\033[36m") != std::string::npos, hasColours);
    EXPECT_EQ(viewer.bytes().find('\033') != std::string::npos, hasSequences);
  }
}

/// What a shell makes of a script that may name the viewer "$viewer": its output, and its own status.
std::pair<std::string, int> shell(const TemporaryDirectory& directory, const std::string& script) {
  const std::string prepared = "cd '" + directory.path() + "'; viewer='" + program + "'; " + script;
  std::FILE* stream = ::popen(prepared.c_str(), "r");
  std::string output;
  std::array<char, 4096> piece{};
  for (std::size_t count = 0; (count = std::fread(piece.data(), 1, piece.size(), stream)) > 0;) {
    output.append(piece.data(), count);
  }
  return {output, WEXITSTATUS(::pclose(stream))};
}

TEST(ProgressWithoutTerminal, KeepsStreamsAndStatuses) {
  TemporaryDirectory directory;
  writeFile(directory / "lines", "one\nPROGRESS {\"phase\":\"checkingDisk\"}\n\xFF two");
  writeFile(directory / "readable", "#!/bin/sh\n");
  const std::string failing = "sh -c 'cat lines; echo install failed: cancelled >&2; exit 7'";
  const std::string filtered = "one\nDisk space: enough is free\n\xFF two";
  const std::vector<std::tuple<std::string, std::string, int, std::string>> rows = {
      {R"(cat lines | "$viewer")", filtered, 0, ""},
      {R"("$viewer" -- )" + failing, filtered, 7, "install failed: cancelled\n"},
      {R"("$viewer" -- ./nothing)", "", 127,
       "VellicorProgress: cannot run ./nothing: No such file or directory\n"},
      {R"("$viewer" -- ./readable)", "", 126, "VellicorProgress: cannot run ./readable: Permission denied\n"},
      {R"({ "$viewer" -- yes; echo $? >status; } | head -n 1; cat status)", "y\n141\n", 0, ""},
      {R"("$viewer" -- sh -c 'exec >&-; echo still here >&2; exit 5')", "", 5, "still here\n"},
      {R"("$viewer" --version)", "VellicorProgress 1.0.0\n", 0, ""},
  };
  for (const auto& [script, output, status, errors] : rows) {
    SCOPED_TRACE(script);
    const auto [seen, ended] = shell(directory, "exec 2>errors; " + script);
    EXPECT_EQ(seen, output);
    EXPECT_EQ(ended, status);
    EXPECT_EQ(readFile(directory / "errors"), errors);
  }
  for (const std::string misuse : {"--", "--bogus", "ls", "--help me"}) {
    SCOPED_TRACE(misuse);
    const auto [seen, ended] = shell(directory, "exec 2>errors; \"$viewer\" " + misuse);
    EXPECT_EQ(seen, "");
    EXPECT_EQ(ended, 2);
    EXPECT_THAT(readFile(directory / "errors"), HasSubstr("\n\nUsage:\n  VellicorProgress -- <command>"));
  }
}

}  // namespace
}  // namespace vellicor
