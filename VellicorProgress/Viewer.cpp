#include "VellicorProgress/Viewer.h"

#include <algorithm>

namespace vellicor {

namespace {

constexpr std::string_view hideCursor = "\033[?25l";
constexpr std::string_view showCursor = "\033[?25h";
constexpr std::string_view eraseLine = "\r\033[K";
constexpr std::string_view eraseBelow = "\r\033[J";
constexpr std::string_view eraseRest = "\033[K\r";
constexpr std::string_view failedInstall = "install failed: ";

}  // namespace

std::string Viewer::takeOutput(std::string_view bytes, ProgressTime now) {
  std::string text = take(reader_.feed(bytes), now);
  text += drawIfDue(now);
  return text;
}

std::string Viewer::beforeErrors(std::string_view bytes, ProgressTime now) {
  std::string text = erase();
  if (!isMidLine_ && bytes.starts_with(failedInstall)) text += endPhase(PhaseEnd::stopped, now);
  if (!bytes.empty()) isMidLine_ = bytes.back() != '\n';
  return text;
}

std::string Viewer::tick(ProgressTime now) {
  if (mode_ == Mode::live) return drawIfDue(now);
  if (!mayDraw() || now - last_ < plainInterval) return "";
  const bool wasOffline = hasSaidOffline_;
  hasSaidOffline_ = state(now).isOffline;
  if (!wasOffline || !hasSaidOffline_) return plainStatus(now);
  last_ = now;
  return "";
}

std::optional<ProgressTime> Viewer::nextTick() const {
  if (!mayDraw()) return std::nullopt;
  if (mode_ == Mode::plain) return last_ + plainInterval;
  const bool isOutdated = hasNews_ || !isDrawn_;
  return last_ + (isOutdated ? std::chrono::nanoseconds(shortestRedraw) : longestRedraw);
}

std::string Viewer::resize(std::size_t columns, ProgressTime now) {
  look_.columns = columns;
  if (!isDrawn_) return "";
  wasResized_ = true;
  std::string text = erase();
  text += draw(now);
  return text;
}

std::string Viewer::hide() {
  isHidden_ = true;
  return erase();
}

std::string Viewer::show(ProgressTime now) {
  isHidden_ = false;
  return mode_ == Mode::live && mayDraw() ? draw(now) : "";
}

std::string Viewer::finish(PhaseEnd end, ProgressTime now) {
  std::string text = take(reader_.finish(), now);
  text += erase();
  text += endPhase(end, now);
  return text;
}

std::string Viewer::take(const std::vector<ProgressLineReader::Piece>& pieces, ProgressTime now) {
  std::string text;
  for (const auto& piece : pieces) {
    const auto* event = std::get_if<ModelInstallProgress>(&piece);
    text += event != nullptr ? takeEvent(*event, now) : passOn(std::get<std::string>(piece), now);
  }
  return text;
}

std::string Viewer::takeEvent(const ModelInstallProgress& event, ProgressTime now) {
  std::string text = stay(meter_.apply(event, now), PhaseEnd::finished);
  const InstallPhase phase = meter_.current(now)->phase;
  const bool isNew = phase_ != phase;
  phase_ = phase;
  const PhaseTraits traits = traitsOf(phase);
  reached_ = std::max(reached_, traits.isSaved ? Reached::copying : Reached::started);
  hasNews_ = true;
  lastEvent_ = now;
  if (traits.isMomentary) {
    text += endPhase(PhaseEnd::finished, now);
  } else if (isNew && mode_ == Mode::plain) {
    text += plainStatus(now);
  }
  return text;
}

std::string Viewer::passOn(std::string_view bytes, ProgressTime now) {
  std::string text = erase();
  // The last phase is followed by the installer's report.
  if (phase_ == InstallPhase::finalizing) text += endPhase(PhaseEnd::finished, now);
  text += bytes;
  isMidLine_ = bytes.back() != '\n';
  return text;
}

std::string Viewer::endPhase(PhaseEnd end, ProgressTime now) {
  phase_.reset();
  return stay(meter_.endPhase(now), end);
}

std::string Viewer::stay(const std::optional<PhaseState>& ended, PhaseEnd end) {
  if (!ended) return "";
  return line(mode_ == Mode::live ? endedLine(*ended, end, look_) : plainEndedLine(*ended, end));
}

std::string Viewer::line(const std::string& text) {
  std::string begun = erase();
  if (isMidLine_) begun += '\n';
  isMidLine_ = false;
  return begun + text + "\n";
}

std::string Viewer::plainStatus(ProgressTime now) {
  last_ = now;
  return line(plainLine(state(now), look_.glyphs));
}

std::string Viewer::drawIfDue(ProgressTime now) {
  if (mode_ == Mode::plain || !mayDraw() || now < *nextTick()) return "";
  return draw(now);
}

std::string Viewer::draw(ProgressTime now) {
  std::string text(isDrawn_ ? "" : hideCursor);
  text += liveLine(state(now), look_);
  text += eraseRest;
  isDrawn_ = true;
  hasNews_ = false;
  last_ = now;
  return text;
}

std::string Viewer::erase() {
  if (!isDrawn_) return "";
  isDrawn_ = false;
  std::string text(wasResized_ ? eraseBelow : eraseLine);
  wasResized_ = false;
  return text += showCursor;
}

// Called only while there is a phase.
PhaseState Viewer::state(ProgressTime now) const {
  PhaseState shown = *meter_.current(now);
  const bool waitsForHub = traitsOf(shown.phase).waitsForHub;
  shown.isOffline = waitsForHub && now - lastEvent_ >= networkPatience && hasNetwork_ && !hasNetwork_();
  return shown;
}

bool Viewer::mayDraw() const { return phase_ && !isHidden_ && !isMidLine_; }

}  // namespace vellicor
