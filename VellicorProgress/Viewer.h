#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VellicorProgress/ProgressLineReader.h"
#include "VellicorProgress/ProgressMeter.h"
#include "VellicorProgress/Screen.h"

namespace vellicor {

/// Decides which text is written at which moment. Pure: bytes and moments go in, and each call returns the
/// text to write to standard output at once.
///
/// In live mode the line of the current phase is the last one of the screen, and the cursor goes back to its
/// start: text of other writers begins in the first column, and a terminal that reflows a narrower window
/// keeps the cursor on the line's first row. The cursor is hidden while a line is drawn. The live line never
/// covers an unfinished line of the command: it waits for its end, and an ended phase begins a new row.
///
/// An install without a network waits for one. The live line then says so, and a log says so once.
class Viewer {
 public:
  enum class Mode { live, plain };
  /// What the events say an install has left beside its output.
  enum class Reached { nothing, started, copying };

  static constexpr std::chrono::milliseconds shortestRedraw{100};
  static constexpr std::chrono::seconds longestRedraw{1};
  static constexpr std::chrono::seconds plainInterval{10};
  /// After so long without an event, a phase that waits for the hub checks the network.
  static constexpr std::chrono::seconds networkPatience{3};

  /// An empty `hasNetwork` means that there always is a network.
  Viewer(Mode mode, Look look, std::function<bool()> hasNetwork = {})
      : mode_(mode), look_(look), hasNetwork_(std::move(hasNetwork)) {}

  std::string takeOutput(std::string_view bytes, ProgressTime now);
  /// The text to write before these bytes of standard error, if both show on the same terminal. The error
  /// line of a failed install ends the phase, so that it stands together with the advice.
  std::string beforeErrors(std::string_view bytes, ProgressTime now);
  std::string tick(ProgressTime now);
  /// When `tick` has something to do next.
  std::optional<ProgressTime> nextTick() const;

  std::string resize(std::size_t columns, ProgressTime now);
  /// Removes the live line while the terminal belongs to another process.
  std::string hide();
  std::string show(ProgressTime now);
  /// The stream has ended, and the current phase with it.
  std::string finish(PhaseEnd end, ProgressTime now);

  Reached reached() const { return reached_; }

 private:
  std::string take(const std::vector<ProgressLineReader::Piece>& pieces, ProgressTime now);
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
  /// When the line was last drawn, or in plain mode written.
  ProgressTime last_;
  ProgressTime lastEvent_;
  /// The log has said so already.
  bool hasSaidOffline_ = false;
  bool isDrawn_ = false;
  bool hasNews_ = false;
  bool isHidden_ = false;
  bool wasResized_ = false;
  bool isMidLine_ = false;
};

}  // namespace vellicor
