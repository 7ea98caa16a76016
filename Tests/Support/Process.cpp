#include "Tests/Support/Process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vellicor::testing {

namespace {

constexpr std::array readVariables = {"HF_TOKEN",    "HF_ENDPOINT", "SSL_CERT_FILE", "https_proxy",
                                      "HTTPS_PROXY", "http_proxy",  "all_proxy",     "ALL_PROXY"};

std::pair<int, int> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) throw std::runtime_error("pipe failed");
  for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  return {ends[0], ends[1]};
}

[[noreturn]] void becomeChild(const std::vector<std::string>& command,
                              const std::vector<std::pair<std::string, std::string>>& environment,
                              const std::string& workingDirectory, int output, int errors) {
  const int input = ::open("/dev/null", O_RDONLY);
  ::dup2(input, STDIN_FILENO);
  ::dup2(output, STDOUT_FILENO);
  ::dup2(errors, STDERR_FILENO);
  for (const char* name : readVariables) ::unsetenv(name);
  for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
  if (!workingDirectory.empty() && ::chdir(workingDirectory.c_str()) != 0) ::_exit(126);
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  ::execv(arguments[0], arguments.data());
  ::_exit(127);
}

/// Appends what can be read now; false at the end of the stream.
bool readSome(int fd, std::string& text) {
  std::array<char, 65536> buffer;
  const ssize_t count = ::read(fd, buffer.data(), buffer.size());
  if (count < 0) return errno == EINTR;
  text.append(buffer.data(), static_cast<std::size_t>(count));
  return count > 0;
}

}  // namespace

Process::Process(const std::vector<std::string>& command,
                 const std::vector<std::pair<std::string, std::string>>& environment,
                 const std::string& workingDirectory) {
  const auto [outputRead, outputWrite] = makePipe();
  const auto [errorsRead, errorsWrite] = makePipe();
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) becomeChild(command, environment, workingDirectory, outputWrite, errorsWrite);
  ::close(outputWrite);
  ::close(errorsWrite);
  output_ = outputRead;
  errors_ = errorsRead;
}

Process::~Process() {
  if (pid_ > 0) {
    kill(SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::close(output_);
  ::close(errors_);
}

void Process::kill(int signal) { ::kill(pid_, signal); }

ProcessResult Process::wait() {
  ProcessResult result;
  std::array<pollfd, 2> streams = {{{output_, POLLIN, 0}, {errors_, POLLIN, 0}}};
  while (streams[0].fd >= 0 || streams[1].fd >= 0) {
    if (::poll(streams.data(), streams.size(), -1) < 0) continue;
    if (streams[0].revents != 0 && !readSome(output_, result.output)) streams[0].fd = -1;
    if (streams[1].revents != 0 && !readSome(errors_, result.errors)) streams[1].fd = -1;
  }
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

ProcessResult runProcess(const std::vector<std::string>& command,
                         const std::vector<std::pair<std::string, std::string>>& environment,
                         const std::string& workingDirectory) {
  return Process(command, environment, workingDirectory).wait();
}

}  // namespace vellicor::testing
