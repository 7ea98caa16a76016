#include "VellicorLab/ChildProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string_view>

#include <fcntl.h>
#include <fmt/format.h>
#if defined(__linux__)
#include <sys/prctl.h>
#endif
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;  // POSIX leaves the declaration to the program.

namespace vellicor {

namespace {

constexpr std::array<std::string_view, 8> readVariables = {"HF_TOKEN",    "HF_ENDPOINT", "SSL_CERT_FILE",
                                                           "https_proxy", "HTTPS_PROXY", "http_proxy",
                                                           "all_proxy",   "ALL_PROXY"};

std::vector<std::string> environmentWith(const std::vector<std::pair<std::string, std::string>>& added) {
  std::vector<std::string> variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string_view name =
        std::string_view(*variable).substr(0, std::string_view(*variable).find('='));
    const auto isAdded = [&](const auto& pair) { return pair.first == name; };
    if (std::ranges::find(readVariables, name) != readVariables.end()) continue;
    if (std::ranges::none_of(added, isAdded)) variables.emplace_back(*variable);
  }
  for (const auto& [name, value] : added) variables.push_back(fmt::format("{}={}", name, value));
  return variables;
}

/// A null-terminated list of pointers into `words`.
std::vector<char*> pointersTo(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

void redirect(int stream, const std::string& path, int flags) {
  ::dup2(::open(path.c_str(), flags | O_CLOEXEC), stream);
}

[[noreturn]] void failChild(const char* what, int code) {
  throw std::runtime_error(fmt::format("{} failed: errno {}", what, code));
}

}  // namespace

int waitForEnd(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    const int code = errno;
    if (code != EINTR) failChild("waitpid", code);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void endWithParent([[maybe_unused]] pid_t parent) {
#if defined(__linux__)
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  // It may have ended before that call.
  if (::getppid() != parent) ::_exit(126);
#endif
}

ChildProcess::ChildProcess(const std::vector<std::string>& command, const ProcessSurroundings& surroundings) {
  // Between fork and exec a child of a program with threads must not allocate: all is made ready before.
  std::vector<std::string> words = command;
  std::vector<std::string> variables = environmentWith(surroundings.environment);
  const std::vector<char*> arguments = pointersTo(words);
  const std::vector<char*> environment = pointersTo(variables);
  const std::string input = streams_ / "input", output = streams_ / "output", errors = streams_ / "errors";

  // They are there to be read even if the child is killed before it opens them.
  for (const std::string& stream : {input, output, errors}) writeFile(stream, "");

  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  const int code = errno;
  if (child < 0) failChild("fork", code);
  if (child > 0) {
    pid_ = child;
    return;
  }
  endWithParent(parent);
  redirect(STDIN_FILENO, input, O_RDONLY);
  redirect(STDOUT_FILENO, output, O_WRONLY);
  redirect(STDERR_FILENO, errors, O_WRONLY);
  const std::string& directory = surroundings.workingDirectory;
  if (!directory.empty() && ::chdir(directory.c_str()) != 0) ::_exit(126);
  if (surroundings.beforeStart) surroundings.beforeStart();
  ::execve(arguments[0], arguments.data(), environment.data());
  ::_exit(127);
}

ChildProcess::~ChildProcess() {
  if (pid_ == 0) return;
  ::kill(pid_, SIGKILL);
  while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void ChildProcess::kill(int signal) const {
  if (pid_ == 0) throw std::logic_error("the child has been reaped");
  ::kill(pid_, signal);
}

bool ChildProcess::waitForStop() const {
  siginfo_t info{};
  while (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WSTOPPED | WNOWAIT) < 0) {
    const int code = errno;
    if (code != EINTR) failChild("waitid", code);
  }
  return info.si_code == CLD_STOPPED;
}

ProcessResult ChildProcess::wait() {
  if (pid_ == 0) throw std::logic_error("the child has been reaped");
  const int status = waitForEnd(pid_);
  pid_ = 0;
  return {.status = status, .output = readFile(streams_ / "output"), .errors = readFile(streams_ / "errors")};
}

ProcessResult runProcess(const std::vector<std::string>& command, const ProcessSurroundings& surroundings) {
  return ChildProcess(command, surroundings).wait();
}

}  // namespace vellicor
