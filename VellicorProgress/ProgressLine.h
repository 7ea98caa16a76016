#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "VellicorRepackCore/Reporting/ModelInstallProgress.h"

namespace vellicor {

/// The event of one line (without its line feed), or nothing when the line is no progress line: another
/// beginning, malformed JSON, an unknown phase, a member that is missing or of another type. The requirement
/// of a space check is not in its line and stays empty.
std::optional<ModelInstallProgress> decodeProgressLine(std::string_view line);

/// Divides a stream of bytes into progress events and everything else, in order. What is no progress line is
/// handed on unchanged, byte for byte, as soon as its beginning shows it; only what begins like a progress
/// line waits for its line feed, and never more than `maximumHeldBytes` of it.
class ProgressLineReader {
 public:
  static constexpr std::size_t maximumHeldBytes = 1048576;

  struct Receiver {
    std::function<void(const ModelInstallProgress&)> event;
    std::function<void(std::string_view)> other;
  };

  void feed(std::string_view bytes, const Receiver& receiver);
  /// The stream has ended: hands on what is held.
  void finish(const Receiver& receiver);

 private:
  std::string_view feedLineStart(std::string_view bytes, const Receiver& receiver);
  void handOn(const Receiver& receiver);

  /// The beginning of the current line, while it may still become a progress line.
  std::string held_;
  bool isPassing_ = false;
};

}  // namespace vellicor
