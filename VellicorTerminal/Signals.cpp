#include "VellicorTerminal/Signals.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#if defined(__linux__)
#include <sys/prctl.h>
#endif
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace vellicor {

namespace {

// The handler writes to both.
volatile sig_atomic_t pipeToWake = -1;
volatile sig_atomic_t aSignalHasCome = 0;

void noteSignal(int signal) {
  const int before = errno;
  aSignalHasCome = 1;
  const auto number = static_cast<unsigned char>(signal);
  // A full pipe has wakened the reader already.
  [[maybe_unused]] const ssize_t ignored = ::write(pipeToWake, &number, 1);
  errno = before;
}

void setHandler(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  ::sigaction(signal, &action, nullptr);
}

bool staysIgnored(int signal) {
  struct sigaction action {};
  ::sigaction(signal, nullptr, &action);
  return action.sa_handler == SIG_IGN && signal != SIGCHLD && signal != SIGWINCH;
}

void raiseWithUsualEffect(int signal) {
  setHandler(signal, SIG_DFL);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signal);
  ::sigprocmask(SIG_UNBLOCK, &only, nullptr);
  ::kill(::getpid(), signal);
}

void leaveNoCore() {
  constexpr rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
#if defined(__linux__)
  // A program to which the system pipes cores gets them despite the limit.
  ::prctl(PR_SET_DUMPABLE, 0);
#endif
}

}  // namespace

Signals::Signals(std::vector<int> noted) : noted_(std::move(noted)) {
  std::erase_if(noted_, staysIgnored);
  const Pipe pipe = openPipe();
  setNonBlocking(pipe.read);
  setNonBlocking(pipe.write);
  read_ = pipe.read;
  pipeToWake = pipe.write;
  aSignalHasCome = 0;
  for (const int signal : noted_) setHandler(signal, noteSignal);
}

Signals::~Signals() {
  for (const int signal : noted_) setHandler(signal, SIG_DFL);
  ::close(pipeToWake);
  pipeToWake = -1;
  ::close(read_);
}

std::optional<int> Signals::take() const {
  unsigned char number = 0;
  if (::read(read_, &number, 1) != 1) return std::nullopt;
  return number;
}

bool Signals::hasCome() { return aSignalHasCome != 0; }

void Signals::stopHere() {
  raiseWithUsualEffect(SIGTSTP);
  setHandler(SIGTSTP, noteSignal);
}

void Signals::endBy(int signal) {
  leaveNoCore();
  raiseWithUsualEffect(signal);
  // Only a signal that does not end a process comes here.
  ::_exit(128 + signal);
}

void ignoreWriteSignals() {
  for (const int signal : {SIGPIPE, SIGXFSZ}) setHandler(signal, SIG_IGN);
}

Pipe openPipe() {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  return {ends[0], ends[1]};
}

void setNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

}  // namespace vellicor
