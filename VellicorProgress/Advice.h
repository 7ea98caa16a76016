#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "VellicorProgress/Viewer.h"

namespace vellicor {

/// What else is known when a command has failed.
struct FailureSituation {
  Viewer::Reached reached = Viewer::Reached::nothing;
  /// Whether the command was told to resume: then there is a saved download, however early it failed.
  bool isResume = false;
};

/// The next step that a person can take after the installer's error line, or nothing when none is known.
std::optional<std::string> adviceFor(std::string_view errorLine, const FailureSituation& situation);
/// The same for an install that a signal ended.
std::optional<std::string> adviceAfterSignal(const FailureSituation& situation);

/// Remembers the last line of standard error in which the installer says that it failed.
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
