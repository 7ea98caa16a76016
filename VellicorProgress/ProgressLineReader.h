#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "VellicorRepackCore/Reporting/ModelInstallProgress.h"

namespace vellicor {

/// Divides a stream of bytes into progress events and all other text, in order. Other text is handed on
/// unchanged as soon as its beginning shows that it is no progress line. A line that may be one is held until
/// its line feed, but never more than `maximumHeldBytes` of it.
class ProgressLineReader {
 public:
  static constexpr std::size_t maximumHeldBytes = 1048576;
  using Piece = std::variant<ModelInstallProgress, std::string>;

  std::vector<Piece> feed(std::string_view bytes);
  /// The stream has ended: hands on the held bytes.
  std::vector<Piece> finish();

 private:
  void takeLinePart(std::string_view part);
  void endLine();
  void passOn(std::string_view text);

  std::vector<Piece> pieces_;
  /// The beginning of the current line, while it may still become a progress line.
  std::string held_;
  bool isPassing_ = false;
};

}  // namespace vellicor
