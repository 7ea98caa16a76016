#include "VellicorInspect/EndingSignals.h"

#include <array>
#include <csignal>

#include "VellicorRepackCore/Base/Errors.h"

namespace vellicor {

namespace {

constexpr std::array endings = {SIGINT, SIGTERM, SIGHUP};

// The first that came, or 0. Written to by the handler.
volatile std::sig_atomic_t noted = 0;

void note(int signal) {
  if (noted == 0) noted = signal;
}

/// Exchanges the handler of each signal that is not ignored.
void setHandlers(void (*handler)(int)) {
  for (const int signal : endings) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
  }
}

}  // namespace

EndingSignals::EndingSignals() {
  noted = 0;
  setHandlers(note);
}

EndingSignals::~EndingSignals() {
  setHandlers(SIG_DFL);
  if (noted != 0) std::raise(noted);
}

void EndingSignals::throwIfNoted() {
  if (noted != 0) throw CancellationError();
}

}  // namespace vellicor
