#include <csignal>
#include <system_error>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#if defined(__APPLE__)
#include <util.h>
#else
#include <pty.h>
#endif

#include "Tests/Support/Expect.h"
#include "VellicorLab/ChildProcess.h"
#include "VellicorLab/Emulator.h"

namespace vellicor::testing {
namespace {

const std::string program = VELLICOR_PROGRESS;

/// Runs the viewer over a shell's script on a terminal of its own, of 80 columns. Returns the bytes that the
/// terminal got, and the viewer's wait status. `environment`: "NAME=value".
std::pair<std::string, int> onTerminal(const std::string& script, const std::string& environment = "A=") {
  std::vector<std::string> command = {"/usr/bin/env",   "-u",        "NO_COLOR", "TERM=xterm",
                                      "LC_ALL=C.UTF-8", environment, program,    "--",
                                      "/bin/sh",        "-c",        script};
  std::vector<char*> arguments;
  for (std::string& word : command) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  winsize size{.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
  int terminal = -1;
  const pid_t child = ::forkpty(&terminal, nullptr, nullptr, &size);
  if (child == 0) ::_exit(::execv(arguments[0], arguments.data()));
  if (child < 0) throw std::system_error(errno, std::generic_category(), "forkpty");
  std::string bytes;
  std::array<char, 4096> piece{};
  for (ssize_t count = 0; (count = ::read(terminal, piece.data(), piece.size())) > 0;) {
    bytes.append(piece.data(), static_cast<std::size_t>(count));
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  ::close(terminal);
  return {bytes, status};
}

const std::string half =
    R"(echo 'PROGRESS {"phase":"copying","reusedBytes":500,"downloadedBytes":500,"totalBytes":2000}'; )";

class ProgressOnTerminal : public Test {
 protected:
  void SetUp() override {
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (terminal < 0) GTEST_SKIP() << "there is no pseudo-terminal: errno " << errno;
    ::close(terminal);
  }
};

TEST_F(ProgressOnTerminal, EndsAsItsCommandDoesAndSaysWhatToDo) {
  const std::string lost = "install failed: the connection to h was lost (https://h/a)";
  const std::string next = "next step: run the same command again with --resume\r\n";
  const std::vector<std::tuple<std::string, int, std::string>> rows = {
      {"echo '" + lost + "' >&2; exit 3", 3 << 8,
       lost + "\r\nnext step: check the network, then run the same command again with --resume\r\n"},
      {"echo oops >&2; exit 4", 4 << 8, "oops\r\n"},
      {"kill -KILL $$", SIGKILL, next},
      {"kill -ABRT $$", SIGABRT, next},
      {"kill -TERM $PPID; exec sleep 1000", SIGTERM, next},
  };
  for (const auto& [act, status, shown] : rows) {
    if (status == SIGABRT && isProcessorEmulated()) {
      fmt::print("{}: NOT TRIED, the emulator says so, too\n", act);
      continue;
    }
    const auto [bytes, ended] = onTerminal(half + "ulimit -c 0; " + act);
    EXPECT_EQ(ended, status) << act << ": no core file either";
    EXPECT_THAT(bytes, HasSubstr(shown));
    EXPECT_THAT(bytes, HasSubstr("Copying   \033[0m stopped at 50%, 1.00/2.00 kB, after "));
    EXPECT_LT(bytes.rfind("\033[?25l") + 1, bytes.rfind("\033[?25h") + 1) << "the cursor is shown again";
  }
}

TEST_F(ProgressOnTerminal, RespectsWhatTheEnvironmentAsks) {
  const std::vector<std::tuple<std::string, std::string, bool, bool>> rows = {
      {"A=", "Copying    \033[0m\033[34m███\033[0m\033[36m███░░░░░░\033[0m  50%", true, true},
      {"NO_COLOR=1", "Copying    ██████░░░░░░  50%", false, true},
      {"LC_ALL=C", "[\033[34m##\033[0m\033[36m###-----\033[0m]  50%", true, true},
      {"TERM=dumb", "Copying: 50%, 1.00/2.00 kB, 25% reused", false, false},
      {"TERM=", "Copying: 50%, 1.00/2.00 kB, 25% reused", false, false},
  };
  for (const auto& [variable, shown, hasColours, hasSequences] : rows) {
    const std::string bytes = onTerminal(half, variable).first;
    EXPECT_THAT(bytes, HasSubstr(shown)) << variable;
    EXPECT_EQ(bytes.find("\033[36m") != std::string::npos, hasColours) << variable;
    EXPECT_EQ(bytes.find('\033') != std::string::npos, hasSequences) << variable;
  }
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
      {R"("$viewer" -- 2>&1 | head -n 1)", "VellicorProgress: there is no command after --\n", 0, ""},
      {R"("$viewer" ls -l 2>&1 | head -n 1)", "VellicorProgress: a command must follow --\n", 0, ""},
  };
  const auto shell = [&](const std::string& script) {
    return runProcess({"/bin/sh", "-c", "viewer='" + program + "'; " + script},
                      {.workingDirectory = directory.path()});
  };
  for (const auto& [script, output, status, errors] : rows) {
    SCOPED_TRACE(script);
    if (errors.starts_with("VellicorProgress: cannot run") && isProcessorEmulated()) {
      fmt::print("{}: NOT TRIED, the emulator's posix_spawn reports no failure\n", script);
      continue;
    }
    const ProcessResult result = shell(script);
    EXPECT_EQ(result.output, output);
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.errors, errors);
  }
  const ProcessResult usage = shell("\"$viewer\" --bogus");
  EXPECT_EQ(usage.status, 2);
  EXPECT_THAT(usage.errors,
              StartsWith("VellicorProgress: unknown argument: --bogus\n\nUsage:\n  VellicorProgress -- <"));
}

}  // namespace
}  // namespace vellicor::testing
