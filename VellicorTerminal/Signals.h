#pragma once

#include <optional>
#include <vector>

namespace vellicor {

/// While one lives, the given signals are noted instead of taking their usual effect. A signal that was
/// ignored at the start stays ignored, except SIGCHLD and SIGWINCH. One object at a time; commands that are
/// started have the usual dispositions.
class Signals {
 public:
  /// Throws `std::system_error`.
  explicit Signals(std::vector<int> noted);
  ~Signals();
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  /// Readable when `take` has a signal.
  int descriptor() const { return read_; }
  /// The signals in the order in which they came.
  std::optional<int> take() const;
  /// Whether a signal has come, taken or not.
  static bool hasCome();

  /// Stops this process as the keyboard's SIGTSTP does; returns when it is continued.
  static void stopHere();
  /// Ends this process by the signal, without a core file; on Linux without a crash report either.
  [[noreturn]] static void endBy(int signal);

 private:
  std::vector<int> noted_;
  int read_ = -1;
};

/// Makes a write fail like any other when the reader has gone or the file exceeds the limit on file sizes;
/// without it, such a write ends the process.
void ignoreWriteSignals();

/// Two descriptors, closed on exec. Plain numbers: the opener closes them.
struct Pipe {
  int read = -1;
  int write = -1;
};
/// Throws `std::system_error`.
Pipe openPipe();
void setNonBlocking(int fd);

}  // namespace vellicor
