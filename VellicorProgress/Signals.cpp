#include "VellicorProgress/Signals.h"

#include <array>
#include <cerrno>
#include <csignal>

#if defined(__linux__)
#include <sys/prctl.h>
#endif
#include <sys/resource.h>
#include <unistd.h>

#include "VellicorProgress/ChildRun.h"

namespace vellicor {

namespace {

constexpr std::array alwaysAnswered = {SIGCHLD, SIGWINCH};
constexpr std::array answeredUnlessIgnored = {SIGTSTP, SIGCONT, SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// Written to by the handler.
volatile sig_atomic_t pipeToWake = -1;

void noteSignal(int signal) {
  const int before = errno;
  const auto number = static_cast<unsigned char>(signal);
  // A full pipe has wakened the reader already.
  [[maybe_unused]] const ssize_t ignored = ::write(pipeToWake, &number, 1);
  errno = before;
}

void answer(int signal) {
  struct sigaction action {};
  action.sa_handler = noteSignal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  ::sigaction(signal, &action, nullptr);
}

bool isIgnored(int signal) {
  struct sigaction action {};
  ::sigaction(signal, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

void raiseWithUsualEffect(int signal) {
  std::signal(signal, SIG_DFL);
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
  // A program that the system pipes cores into gets them whatever the limit.
  ::prctl(PR_SET_DUMPABLE, 0);
#endif
}

}  // namespace

Signals::Signals() {
  Pipe pipe = openPipe();
  setNonBlocking(pipe.read);
  setNonBlocking(pipe.write);
  read_ = pipe.read;
  pipeToWake = pipe.write;
  for (const int signal : alwaysAnswered) answer(signal);
  for (const int signal : answeredUnlessIgnored) {
    if (!isIgnored(signal)) answer(signal);
  }
}

Signals::~Signals() {
  for (const int signal : alwaysAnswered) std::signal(signal, SIG_DFL);
  for (const int signal : answeredUnlessIgnored) {
    if (!isIgnored(signal)) std::signal(signal, SIG_DFL);
  }
  ::close(pipeToWake);
  pipeToWake = -1;
  ::close(read_);
}

std::optional<int> Signals::take() const {
  unsigned char number = 0;
  if (::read(read_, &number, 1) != 1) return std::nullopt;
  return number;
}

void Signals::stopHere() {
  raiseWithUsualEffect(SIGTSTP);
  answer(SIGTSTP);
}

void Signals::endBy(int signal) {
  leaveNoCore();
  raiseWithUsualEffect(signal);
  // Only a signal that does not end a process comes here.
  ::_exit(128 + signal);
}

}  // namespace vellicor
