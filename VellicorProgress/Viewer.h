#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "VellicorProgress/ProgressLine.h"
#include "VellicorProgress/ProgressMeter.h"
#include "VellicorProgress/Screen.h"

namespace vellicor {

/// Decides what is written when. Pure: bytes and moments go in, and each call returns what is to be written
/// to standard output at once.
///
/// Live, the line of the current phase is the last one of the screen, drawn with the cursor back at its
/// start: whatever somebody else writes begins in the first column, and a terminal that reflows a narrower
/// window keeps the cursor on the line's first row. The cursor is hidden exactly while a line is drawn. A
/// line that the command has not finished is never drawn over: the live line waits for its end, and a line
/// that stays begins on a row of its own.
///
/// An install waits where there is no network. Then the line says so, in a log once.
class Viewer {
 public:
  enum class Mode { live, plain };
  /// What an install has left beside its output, as far as its events tell.
  enum class Reached { nothing, started, copying };

  static constexpr std::chrono::milliseconds shortestRedraw{100};
  static constexpr std::chrono::seconds longestRedraw{1};
  static constexpr std::chrono::seconds plainInterval{10};
  /// Without an event for so long while the hub is waited for, the network is looked at.
  static constexpr std::chrono::seconds networkPatience{3};

  /// `hasNetwork` may be empty: there always is one.
  Viewer(Mode mode, Look look, std::function<bool()> hasNetwork = {})
      : mode_(mode), look_(look), hasNetwork_(std::move(hasNetwork)) {}

  std::string takeOutput(std::string_view bytes, ProgressTime now);
  /// What must be written before these bytes of standard error, when both show on the same terminal. The
  /// line of a failed install ends the phase, so that it and the advice stand together.
  std::string beforeErrors(std::string_view bytes, ProgressTime now);
  std::string tick(ProgressTime now);
  /// When `tick` has something to do, if nothing else happens before.
  std::optional<ProgressTime> nextTick() const;

  std::string resize(std::size_t columns, ProgressTime now);
  /// Takes the live line away, for as long as the terminal is somebody else's.
  std::string hide();
  std::string show(ProgressTime now);
  /// The stream has ended; a phase under way ended with it.
  std::string finish(PhaseEnd end, ProgressTime now);

  Reached reached() const { return reached_; }

 private:
  ProgressLineReader::Receiver receiver(std::string& text, ProgressTime now);
  std::string takeEvent(const ModelInstallProgress& event, ProgressTime now);
  std::string passOn(std::string_view bytes, ProgressTime now);
  std::string endPhase(PhaseEnd end, ProgressTime now);
  std::string stay(const std::optional<PhaseState>& ended, PhaseEnd end);
  std::string line(const std::string& text);
  std::string plainStatus(ProgressTime now);
  std::string drawIfDue(ProgressTime now);
  std::string draw(ProgressTime now);
  std::string erase();
  bool mayDraw() const;
  PhaseState state(ProgressTime now) const;

  Mode mode_;
  Look look_;
  std::function<bool()> hasNetwork_;
  ProgressLineReader reader_;
  ProgressMeter meter_;
  std::optional<InstallPhase> phase_;
  Reached reached_ = Reached::nothing;
  /// When something was last drawn, or in plain mode the last line written.
  ProgressTime last_;
  ProgressTime lastEvent_;
  /// Plain: the log says so already.
  bool hasSaidOffline_ = false;
  bool isDrawn_ = false;
  bool hasNews_ = false;
  bool isHidden_ = false;
  bool wasResized_ = false;
  bool isMidLine_ = false;
};

}  // namespace vellicor
