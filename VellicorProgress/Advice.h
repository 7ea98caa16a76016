#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "VellicorProgress/Viewer.h"

namespace vellicor {

/// The situation in which a command has failed.
struct FailureSituation {
  Viewer::Reached reached = Viewer::Reached::nothing;
  /// The command was told to resume, so there is a saved download however early it failed.
  bool isResume = false;
};

/// The next step for a person after the installer's error line, if one is known.
std::optional<std::string> adviceFor(std::string_view errorLine, const FailureSituation& situation);
/// The same for an install that a signal has ended.
std::optional<std::string> adviceAfterSignal(const FailureSituation& situation);

/// Remembers the last line of standard error that reports a failure of the installer.
class ErrorLineKeeper {
 public:
  static constexpr std::size_t maximumLineBytes = 65536;

  void feed(std::string_view bytes);
  const std::string& lastErrorLine() const { return kept_; }

 private:
  void endLine();

  std::string line_;
  std::string kept_;
};

}  // namespace vellicor
