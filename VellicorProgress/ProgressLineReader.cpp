#include "VellicorProgress/ProgressLineReader.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "VellicorRepackCore/Reporting/ModelInstallProgressLine.h"

namespace vellicor {

namespace {

bool mayBecomeProgress(std::string_view begun) {
  return begun.substr(0, progressLineMark.size()) == progressLineMark.substr(0, begun.size());
}

}  // namespace

std::vector<ProgressLineReader::Piece> ProgressLineReader::feed(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::string_view part = bytes.substr(0, std::min(bytes.size() - 1, bytes.find('\n')) + 1);
    takeLinePart(part);
    bytes.remove_prefix(part.size());
  }
  return std::exchange(pieces_, {});
}

std::vector<ProgressLineReader::Piece> ProgressLineReader::finish() {
  endLine();
  return std::exchange(pieces_, {});
}

// The part ends with the line feed if that has come.
void ProgressLineReader::takeLinePart(std::string_view part) {
  const bool endsLine = part.ends_with('\n');
  if (isPassing_ || held_.size() + part.size() > maximumHeldBytes) {
    passOn(part);
    isPassing_ = !endsLine;
    return;
  }
  held_ += part;
  if (endsLine) {
    endLine();
  } else if (!mayBecomeProgress(held_)) {
    passOn("");
    isPassing_ = true;
  }
}

void ProgressLineReader::endLine() {
  const auto event = decodedProgressLine(held_);
  if (!event) return passOn("");
  held_.clear();
  pieces_.emplace_back(*event);
}

// Hands on the held bytes and the text, in one piece with other text before them.
void ProgressLineReader::passOn(std::string_view text) {
  const std::string held = std::exchange(held_, "");
  if (held.empty() && text.empty()) return;
  if (pieces_.empty() || !std::holds_alternative<std::string>(pieces_.back())) pieces_.emplace_back("");
  std::get<std::string>(pieces_.back()).append(held).append(text);
}

}  // namespace vellicor
