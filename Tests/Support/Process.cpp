#include "Tests/Support/Process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vellicor::testing {

namespace {

constexpr std::array readVariables = {"HF_TOKEN",    "HF_ENDPOINT", "SSL_CERT_FILE", "https_proxy",
                                      "HTTPS_PROXY", "http_proxy",  "all_proxy",     "ALL_PROXY"};

void redirect(int stream, const std::string& path, int flags) {
  ::dup2(::open(path.c_str(), flags | O_CREAT | O_CLOEXEC, 0600), stream);
}

[[noreturn]] void becomeChild(const std::vector<std::string>& command,
                              const std::vector<std::pair<std::string, std::string>>& environment,
                              const std::string& workingDirectory, const TemporaryDirectory& streams) {
  redirect(STDIN_FILENO, streams / "input", O_RDONLY);
  redirect(STDOUT_FILENO, streams / "output", O_WRONLY);
  redirect(STDERR_FILENO, streams / "errors", O_WRONLY);
  for (const char* name : readVariables) ::unsetenv(name);
  for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
  if (!workingDirectory.empty() && ::chdir(workingDirectory.c_str()) != 0) ::_exit(126);
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  ::execv(arguments[0], arguments.data());
  ::_exit(127);
}

}  // namespace

Process::Process(const std::vector<std::string>& command,
                 const std::vector<std::pair<std::string, std::string>>& environment,
                 const std::string& workingDirectory) {
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) becomeChild(command, environment, workingDirectory, streams_);
}

Process::~Process() {
  if (pid_ < 0) return;
  kill(SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

void Process::kill(int signal) { ::kill(pid_, signal); }

ProcessResult Process::wait() {
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return {.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
          .output = readFile(streams_ / "output"),
          .errors = readFile(streams_ / "errors")};
}

ProcessResult runProcess(const std::vector<std::string>& command,
                         const std::vector<std::pair<std::string, std::string>>& environment,
                         const std::string& workingDirectory) {
  return Process(command, environment, workingDirectory).wait();
}

}  // namespace vellicor::testing
