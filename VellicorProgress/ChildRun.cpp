#include "VellicorProgress/ChildRun.h"

#include <cerrno>
#include <csignal>
#include <system_error>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;  // POSIX leaves the declaration to the program.

namespace vellicor {

namespace {

constexpr int statusNotFound = 127;
constexpr int statusNotExecutable = 126;

void closeIfOpen(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

CannotRun::CannotRun(int error)
    : std::runtime_error(std::generic_category().message(error)),
      exitStatus_(error == ENOENT || error == ENOTDIR ? statusNotFound : statusNotExecutable) {}

ChildRun::ChildRun(const std::vector<std::string>& command, Errors errors) : output_(openPipe()) {
  if (errors == Errors::piped) errors_ = openPipe();
  const int error = spawn(command);
  closeIfOpen(output_.write);
  closeIfOpen(errors_.write);
  for (const int end : {output_.read, errors_.read}) {
    if (end >= 0) setNonBlocking(end);
  }
  if (error == 0) return;
  closeIfOpen(output_.read);
  closeIfOpen(errors_.read);
  throw CannotRun(error);
}

ChildRun::~ChildRun() {
  closeIfOpen(output_.read);
  closeIfOpen(errors_.read);
}

int ChildRun::spawn(const std::vector<std::string>& command) {
  std::vector<std::string> words = command;
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  posix_spawn_file_actions_t actions{};
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, output_.write, STDOUT_FILENO);
  if (errors_.write >= 0) ::posix_spawn_file_actions_adddup2(&actions, errors_.write, STDERR_FILENO);
  const int error = ::posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  return error;
}

void ChildRun::signal(int number) const {
  if (!status_) ::kill(pid_, number);
}

const std::optional<int>& ChildRun::poll() {
  int status = 0;
  if (!status_ && ::waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
  return status_;
}

}  // namespace vellicor
