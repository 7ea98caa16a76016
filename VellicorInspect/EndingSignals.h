#pragma once

namespace vellicor {

/// While one lives, SIGINT, SIGTERM and SIGHUP are noted instead of ending the program, so that what it has
/// begun to write is removed first. Those that were ignored stay so. One object at a time.
class EndingSignals {
 public:
  EndingSignals();
  /// Gives the signals their usual effect again; one that was noted takes it now and ends the program.
  ~EndingSignals();
  EndingSignals(const EndingSignals&) = delete;
  EndingSignals& operator=(const EndingSignals&) = delete;

  /// Throws `CancellationError` once a signal was noted.
  static void throwIfNoted();
};

}  // namespace vellicor
