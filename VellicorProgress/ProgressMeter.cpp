#include "VellicorProgress/ProgressMeter.h"

#include <algorithm>
#include <cmath>
#include <variant>

namespace vellicor {

namespace {

using std::chrono::duration;
using std::chrono::seconds;

constexpr std::chrono::milliseconds sampleDistance{50};
constexpr seconds shortestRateTime{1};
constexpr double longestTimeLeft = 1e9;

unsigned percentOf(std::uint64_t part, std::uint64_t whole) {
  if (whole == 0 || part >= whole) return 100;
  // Below 2^53 exact; above, a share of 99.99... % must not become 100.
  const double share = std::floor(static_cast<double>(part) / static_cast<double>(whole) * 100);
  return std::min(99U, static_cast<unsigned>(share));
}

}  // namespace

unsigned PhaseState::percent() const { return percentOf(doneBytes, totalBytes); }
unsigned PhaseState::reusedPercent() const { return percentOf(reusedBytes, totalBytes); }

std::optional<PhaseState> ProgressMeter::apply(const ModelInstallProgress& event, ProgressTime now) {
  const InstallPhase phase = phaseOf(event);
  std::optional<PhaseState> ended;
  if (!state_ || state_->phase != phase) {
    ended = endPhase(now);
    state_.emplace().phase = phase;
    start_ = now;
  }
  std::visit([&](const auto& known) { take(known, now); }, event);
  return ended;
}

std::optional<PhaseState> ProgressMeter::endPhase(ProgressTime now) {
  std::optional<PhaseState> ended = current(now);
  state_.reset();
  samples_.clear();
  received_ = 0;
  downloaded_ = 0;
  return ended;
}

std::optional<PhaseState> ProgressMeter::current(ProgressTime now) const {
  if (!state_) return std::nullopt;
  PhaseState shown = *state_;
  shown.elapsed = now - start_;
  // After the last byte nothing can stall any more.
  if (shown.phase != InstallPhase::copying || shown.doneBytes >= shown.totalBytes) return shown;
  shown.rate = rate(now);
  if (!shown.rate || *shown.rate <= 0) return shown;
  const double left = std::ceil(static_cast<double>(shown.totalBytes - shown.doneBytes) / *shown.rate);
  shown.left = seconds(static_cast<std::int64_t>(std::min(left, longestTimeLeft)));
  return shown;
}

void ProgressMeter::take(const PlanningProgress& event, ProgressTime) {
  state_->totalBytes = event.downloadBytes;
  state_->outputBytes = event.outputBytes;
}

void ProgressMeter::take(const ReservingOutputProgress& event, ProgressTime) {
  state_->outputBytes = event.bytes;
}

void ProgressMeter::take(const HashingOutputProgress& event, ProgressTime) {
  state_->file = event.relativePath;
  state_->files += 1;
}

void ProgressMeter::take(const CopyingPayloadProgress& event, ProgressTime now) {
  state_->totalBytes = event.total;
  state_->reusedBytes = std::min(event.reusedBytes, event.total);
  const std::uint64_t fetched = std::min(event.downloadedThisRun, event.total - state_->reusedBytes);
  state_->doneBytes = state_->reusedBytes + fetched;
  // A retried range takes its bytes back, although they were received.
  if (!samples_.empty() && fetched > downloaded_) received_ += fetched - downloaded_;
  downloaded_ = fetched;

  if (!samples_.empty() && now - samples_.back().time < sampleDistance) {
    samples_.back().received = received_;
  } else {
    samples_.push_back({now, received_});
  }
  while (samples_.size() > 1 && now - samples_[1].time >= rateWindow) samples_.pop_front();
}

std::optional<double> ProgressMeter::rate(ProgressTime now) const {
  // The newest sample older than the window, or the first of the phase.
  auto base = std::ranges::upper_bound(samples_, now - rateWindow, {}, &Sample::time);
  if (base != samples_.begin()) --base;
  if (base == samples_.end() || now - base->time < shortestRateTime) return std::nullopt;
  return static_cast<double>(received_ - base->received) / duration<double>(now - base->time).count();
}

}  // namespace vellicor
