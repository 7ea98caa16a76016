#include "VellicorProgress/ProgressLine.h"

#include <algorithm>
#include <exception>

#include "VellicorFormat/JsonReading.h"

namespace vellicor {

namespace {

constexpr std::string_view lineMark = "PROGRESS ";

std::optional<ModelInstallProgress> eventOf(const JsonObject& object) {
  const std::string phase = object.string("phase");
  if (phase == "metadata") return DownloadingMetadataProgress{};
  if (phase == "checkingDisk") return CheckingDiskProgress{};
  if (phase == "finalizing") return FinalizingProgress{};
  if (phase == "hashing") return HashingOutputProgress{object.string("file")};
  if (phase == "reserving") return ReservingOutputProgress{object.unsignedInteger("outputBytes")};
  if (phase == "planning") {
    return PlanningProgress{object.unsignedInteger("downloadBytes"), object.unsignedInteger("outputBytes")};
  }
  if (phase == "copying") {
    return CopyingPayloadProgress{object.unsignedInteger("reusedBytes"),
                                  object.unsignedInteger("downloadedBytes"),
                                  object.unsignedInteger("totalBytes")};
  }
  return std::nullopt;
}

bool mayBecomeProgress(std::string_view begun) {
  const std::size_t compared = std::min(begun.size(), lineMark.size());
  return begun.substr(0, compared) == lineMark.substr(0, compared);
}

}  // namespace

std::optional<ModelInstallProgress> decodeProgressLine(std::string_view line) {
  if (!line.starts_with(lineMark)) return std::nullopt;
  try {
    const JsonTree document = parseJson(line.substr(lineMark.size()));
    return eventOf(JsonObject(document.root, ""));
  } catch (const JsonDecodingError&) {
    return std::nullopt;
  }
}

void ProgressLineReader::feed(std::string_view bytes, const Receiver& receiver) {
  while (!bytes.empty()) {
    if (!isPassing_) {
      bytes = feedLineStart(bytes, receiver);
      continue;
    }
    // Whole lines of other text go on in one piece, up to the next line that may be progress.
    std::size_t end = 0;
    while (isPassing_ && end < bytes.size()) {
      const std::size_t feedAt = bytes.find('\n', end);
      end = feedAt == std::string_view::npos ? bytes.size() : feedAt + 1;
      isPassing_ =
          feedAt == std::string_view::npos || (end < bytes.size() && !mayBecomeProgress(bytes.substr(end)));
    }
    receiver.other(bytes.substr(0, end));
    bytes.remove_prefix(end);
  }
}

// Takes from `bytes` what belongs to the line that may be progress; returns the rest.
std::string_view ProgressLineReader::feedLineStart(std::string_view bytes, const Receiver& receiver) {
  const std::size_t feedAt = bytes.find('\n');
  const bool isWhole = feedAt != std::string_view::npos;
  const std::size_t length = isWhole ? feedAt + 1 : bytes.size();
  const std::size_t taken = std::min(length, maximumHeldBytes - held_.size());
  held_.append(bytes.substr(0, taken));
  if (isWhole && taken == length) {
    const auto event = decodeProgressLine(std::string_view(held_).substr(0, held_.size() - 1));
    if (event) {
      held_.clear();
      receiver.event(*event);
    } else {
      handOn(receiver);
    }
  } else if (!mayBecomeProgress(held_) || held_.size() == maximumHeldBytes) {
    handOn(receiver);
    isPassing_ = true;
  }
  return bytes.substr(taken);
}

void ProgressLineReader::finish(const Receiver& receiver) {
  const auto event = decodeProgressLine(held_);
  if (event) {
    held_.clear();
    receiver.event(*event);
  }
  handOn(receiver);
}

void ProgressLineReader::handOn(const Receiver& receiver) {
  if (!held_.empty()) receiver.other(held_);
  held_.clear();
}

}  // namespace vellicor
